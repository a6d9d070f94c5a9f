// A chain made on the test cluster's S3 service copied into its Ceph pool by
// the brickdisk program: every disk of the copy exports like its source.
#include "../../s3/S3TestService.h"
#include "../RadosTestCluster.h"
#include "CliTestFixture.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

class S3ToCephCopyTest : public clitest::CliTest {
protected:
    void SetUp() override
    {
        clitest::CliTest::SetUp();
        ::setenv("AWS_ENDPOINT_URL", testsupport::s3TestOptions().endpoint.c_str(), 1);
    }
    void TearDown() override
    {
        testsupport::removeS3Folder(zo::CURI(zo::String::fromUTF8(s3Folder)));
        testsupport::removeRadosFolder(zo::CURI(zo::String::fromUTF8(radosFolder)));
    }

    // Runs the program and expects success.
    clitest::RunResult runOk(const std::vector<std::string>& args, bool withPassword = true) const
    {
        const clitest::RunResult result = withPassword ? runWithPassword(args) : clitest::run(args);
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result;
    }

    std::string s3Folder = testsupport::uniqueS3Folder("copy").toString(true).toUTF8();
    std::string radosFolder = testsupport::uniqueRadosFolder("copy").toString(true).toUTF8();
};

TEST_F(S3ToCephCopyTest, ChainOfFiveSnapshotsCopiedFromS3ToRadosExportsExactly)
{
    constexpr size_t size = 1024 * 1024;
    const std::string source = s3Folder + "/disk";
    runOk({"create", source, "--size", std::to_string(size), "--brick-size", "64K", "--kdf", "argon2id", "--kdf-memory",
           "64K", "--kdf-passes", "1"});
    std::string image = clitest::makeImage(size, 81);
    std::vector<std::string> disks{"disk"};
    for (int i = 1; i <= 6; ++i) {
        clitest::writeFile(path("image"), image);
        runOk({"import", source, path("image")});
        if (i == 6)
            break;
        disks.push_back("s" + std::to_string(i));
        runOk({"snapshot", source, s3Folder + "/" + disks.back()});
        const std::string fresh = clitest::makeImage(size, 81 + static_cast<unsigned>(i));
        for (size_t at = static_cast<size_t>(i) * kBrickSize; at < size; at += 3 * kBrickSize)
            image.replace(at, kBrickSize, fresh.substr(at, kBrickSize));
    }

    const clitest::RunResult copied = runOk({"copy", source, radosFolder + "/disk", "--json", "--verify"}, false);
    EXPECT_NE(copied.out.find("\"verified\": true"), std::string::npos) << copied.out;
    for (const std::string& name : disks) {
        runOk({"export", s3Folder + "/" + name, path("source.img"), "--force"});
        runOk({"export", radosFolder + "/" + name, path("copy.img"), "--force"});
        EXPECT_TRUE(clitest::readFile(path("copy.img")) == clitest::readFile(path("source.img"))) << name;
        runOk({"check", radosFolder + "/" + name, "--read-data"});
    }
    runOk({"export", radosFolder + "/disk", path("copy.img"), "--force"});
    EXPECT_TRUE(clitest::readFile(path("copy.img")) == image);
}

} // namespace
