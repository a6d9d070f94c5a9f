// The brickdisk program on disks on the S3 test service: the main job
// (import, snapshot, re-import, export of both, check with data), imports
// killed at random moments, and the errors of a missing bucket and of wrong
// keys. The program finds the service through AWS_ENDPOINT_URL or
// --s3-endpoint and its keys in the environment, as S3 tools do.
#include "../S3TestService.h"
#include "CliTestFixture.h"

#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

namespace {

using clitest::RunResult;
using clitest::readFile;
using clitest::writeFile;

class S3CommandsTest : public clitest::CliTest {
protected:
    void SetUp() override
    {
        clitest::CliTest::SetUp();
        ::setenv("AWS_ENDPOINT_URL", testsupport::s3TestOptions().endpoint.c_str(), 1);
    }
    void TearDown() override { testsupport::removeS3Folder(zo::CURI(zo::String::fromUTF8(folder))); }

    // Runs the program, with the password file when `withPassword`, and
    // expects success.
    RunResult runOk(const std::vector<std::string>& args, bool withPassword = true) const
    {
        const RunResult result = withPassword ? runWithPassword(args) : clitest::run(args);
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result;
    }

    std::string folder = testsupport::uniqueS3Folder("cli").toString(true).toUTF8();
    std::string disk = folder + "/disk";
    std::string snapshot = folder + "/snapshot";
};

TEST_F(S3CommandsTest, MainJobOnAnS3DiskGivesBothVersionsBackByteForByte)
{
    const std::string first = clitest::makeImage(3 * 1024 * 1024 + 12345, 11);
    std::string second = first;
    for (size_t at = 100000; at < second.size(); at += 700000)
        second.replace(at, 5000, std::string(5000, 'x'));
    writeFile(path("v1.img"), first);
    writeFile(path("v2.img"), second);

    runOk({"create", disk, "--size", std::to_string(first.size()), "--brick-size", "64K"});
    runOk({"import", disk, path("v1.img")});
    runOk({"snapshot", disk, snapshot}, false);
    runOk({"import", disk, path("v2.img")});
    runOk({"export", disk, path("v2.exported")});
    runOk({"export", snapshot, path("v1.exported")});
    EXPECT_TRUE(readFile(path("v2.exported")) == second);
    EXPECT_TRUE(readFile(path("v1.exported")) == first);
    runOk({"check", disk, "--read-data"});
    runOk({"check", snapshot, "--read-data"});
    const RunResult info = runOk({"info", snapshot}, false);
    EXPECT_NE(info.out.find(disk), std::string::npos) << info.out;
}

TEST_F(S3CommandsTest, ImportKilledAtRandomMomentsLeavesEveryBrickOldOrNewAndTheSnapshotExact)
{
    // A killed import's lock keeps others out for its lease: a short one here.
    const std::vector<std::string> lease{"--s3-lock-lease", "1"};
    const size_t size = 2 * 1024 * 1024;
    const std::string old = clitest::makeImage(size, 31);
    std::string fresh = clitest::makeImage(size, 32);
    for (size_t at = 0; at < size; at += 5 * kBrickSize)
        fresh.replace(at, kBrickSize, std::string(kBrickSize, '\0'));
    writeFile(path("old"), old);
    writeFile(path("fresh"), fresh);
    runOk({"create", disk, "--size", std::to_string(size), "--brick-size", "64K"});
    runOk({"import", disk, path("old")});
    runOk({"snapshot", disk, snapshot}, false);

    std::mt19937 random(2026);
    for (int round = 0; round < 5 && !HasFailure(); ++round) {
        const std::string context = "kill " + std::to_string(round + 1);
        {
            std::vector<std::string> args = lease;
            args.insert(args.end(), {"import", disk, "-", "--password-file", path("pw")});
            clitest::RunningProgram import(args, clitest::RunOptions{});
            const size_t pieces = 1 + random() % 8;
            for (size_t piece = 0; piece < pieces; ++piece)
                import.feed(fresh.substr(piece * size / 8, size / 8));
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
            import.kill();
            import.wait();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        runOk({"check", disk, "--read-data"});
        runOk({"check", snapshot, "--read-data"});
        runOk({"export", snapshot, path("snapshot.img"), "--force"});
        EXPECT_TRUE(readFile(path("snapshot.img")) == old) << context;
        runOk({"export", disk, path("disk.img"), "--force"});
        const std::string exported = readFile(path("disk.img"));
        ASSERT_EQ(exported.size(), size) << context;
        for (size_t at = 0; at < size; at += kBrickSize) {
            const std::string brick = exported.substr(at, kBrickSize);
            EXPECT_TRUE(brick == old.substr(at, kBrickSize) || brick == fresh.substr(at, kBrickSize))
                << context << ": the brick at " << at << " holds neither its old nor its new content";
        }
    }
    runOk({"import", disk, path("fresh")});
    runOk({"export", disk, path("disk.img"), "--force"});
    EXPECT_TRUE(readFile(path("disk.img")) == fresh);
}

TEST_F(S3CommandsTest, AMissingBucketIsReportedAsSuch)
{
    ::unsetenv("AWS_ENDPOINT_URL");
    const RunResult result = runWithPassword({"--s3-endpoint", testsupport::s3TestOptions().endpoint, "create",
                                              "s3://brickdisk-no-such-bucket/disk", "--size", "1M"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The bucket does not exist."), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("brickdisk-no-such-bucket"), std::string::npos) << result.err;
}

TEST_F(S3CommandsTest, WrongKeysAreRefusedWithAClearError)
{
    const std::string secret = std::getenv("AWS_SECRET_ACCESS_KEY");
    ::setenv("AWS_SECRET_ACCESS_KEY", "not-the-secret-key", 1);
    const RunResult result = runWithPassword({"create", disk, "--size", "1M"});
    ::setenv("AWS_SECRET_ACCESS_KEY", secret.c_str(), 1);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The S3 service refused the credentials"), std::string::npos) << result.err;
}

TEST_F(S3CommandsTest, KeysFromAProfileFileAreUsed)
{
    const std::string id = std::getenv("AWS_ACCESS_KEY_ID");
    const std::string secret = std::getenv("AWS_SECRET_ACCESS_KEY");
    writeFile(path("credentials"), "[other]\naws_access_key_id = wrong\n\n[tests]\naws_access_key_id = " + id +
                                       "\naws_secret_access_key = " + secret + "\n");
    ::unsetenv("AWS_ACCESS_KEY_ID");
    ::unsetenv("AWS_SECRET_ACCESS_KEY");
    ::setenv("AWS_SHARED_CREDENTIALS_FILE", path("credentials").c_str(), 1);
    ::setenv("AWS_PROFILE", "tests", 1);
    const RunResult result = runWithPassword({"create", disk, "--size", "1M", "--brick-size", "64K"});
    ::setenv("AWS_ACCESS_KEY_ID", id.c_str(), 1);
    ::setenv("AWS_SECRET_ACCESS_KEY", secret.c_str(), 1);
    ::unsetenv("AWS_SHARED_CREDENTIALS_FILE");
    ::unsetenv("AWS_PROFILE");
    EXPECT_EQ(result.exitStatus, 0) << result.err;
}

TEST_F(S3CommandsTest, AChildOnAnotherKindOfFolderIsAUsageError)
{
    runOk({"create", disk, "--size", "1M", "--brick-size", "64K"});
    const RunResult result = runWithPassword({"snapshot", disk, path("local-snapshot")});
    EXPECT_EQ(result.exitStatus, 2) << result.err;
}

} // namespace
