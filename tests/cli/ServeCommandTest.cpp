// What serve and mount refuse before any server starts. Serving itself is
// tested with real NBD clients (tests/nbd, CTest label nbd).
#include "CliTestFixture.h"

namespace clitest {
namespace {

class ServeCommandTest : public CliTest {};

TEST_F(ServeCommandTest, SocketAndPortTogetherAreAUsageError)
{
    createDisk("disk");
    const RunResult result = run({"serve", path("disk"), "--socket", path("s.sock"), "--port", "10809"});
    EXPECT_EQ(result.exitStatus, 2) << result.err;
    EXPECT_EQ(result.err.rfind("brickdisk: ", 0), 0u) << result.err;
}

TEST_F(ServeCommandTest, AFolderWithoutADiskIsRefusedBeforeServing)
{
    const RunResult result = run({"serve", path("nothing"), "--socket", path("s.sock")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Disk folder does not exist."), std::string::npos) << result.err;
    EXPECT_EQ(result.out.find("Serving"), std::string::npos) << result.out;
}

TEST_F(ServeCommandTest, AnUnreadableCacheSizeIsAUsageError)
{
    createDisk("disk");
    const RunResult result = run({"serve", path("disk"), "--socket", path("s.sock"), "--cache", "lots"});
    EXPECT_EQ(result.exitStatus, 2) << result.err;
    EXPECT_NE(result.err.find("--cache"), std::string::npos) << result.err;
}

TEST_F(ServeCommandTest, ACacheFolderForADiskInALocalFolderIsRefused)
{
    createDisk("disk");
    const RunResult result = run({"serve", path("disk"), "--socket", path("s.sock"), "--cache-dir", path("cache")});
    EXPECT_EQ(result.exitStatus, 1) << result.err;
    EXPECT_NE(result.err.find("--cache-dir is for disks in a Ceph pool or an S3 bucket"), std::string::npos)
        << result.err;
    EXPECT_EQ(result.out.find("Serving"), std::string::npos) << result.out;
}

TEST_F(ServeCommandTest, CacheOptionsWithoutACacheFolderAreAUsageError)
{
    createDisk("disk");
    for (const std::vector<std::string>& extra : std::vector<std::vector<std::string>>{
             {"--cache-size", "2G"}, {"--upload-jobs", "2"}, {"--flush-to-store"}, {"--max-dirty", "8"}}) {
        std::vector<std::string> arguments{"mount", path("disk"), path("mnt")};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        const RunResult result = run(arguments);
        EXPECT_EQ(result.exitStatus, 2) << result.err;
        EXPECT_NE(result.err.find("requires --cache-dir"), std::string::npos) << result.err;
    }
}

TEST_F(ServeCommandTest, AMaxDirtyBelowOneIsAUsageError)
{
    createDisk("disk");
    const RunResult result =
        run({"serve", path("disk"), "--socket", path("s.sock"), "--cache-dir", path("cache"), "--max-dirty", "0"});
    EXPECT_EQ(result.exitStatus, 2) << result.err;
    EXPECT_NE(result.err.find("--max-dirty"), std::string::npos) << result.err;
}

} // namespace
} // namespace clitest
