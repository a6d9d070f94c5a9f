// The brickdisk program on disks on the S3 test service: what every object
// store serves, a disk of more than a thousand brick objects, a copy to the
// top of a bucket, and the errors of a missing bucket and of wrong keys. The program finds the service
// through AWS_ENDPOINT_URL or --s3-endpoint and its keys in the environment,
// as S3 tools do.
#include "../S3TestService.h"
#include "objectstore/StoreCommandsContract.h"

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

using clitest::readFile;
using clitest::RunResult;
using clitest::writeFile;

struct S3Store {
    static constexpr const char* kLockLeaseOption = "--s3-lock-lease";
    static zo::CURI uniqueFolder(const std::string& label) { return testsupport::uniqueS3Folder(label); }
    static void removeFolder(const zo::CURI& folder) { testsupport::removeS3Folder(folder); }
    static void prepareEnvironment() { ::setenv("AWS_ENDPOINT_URL", testsupport::s3TestOptions().endpoint.c_str(), 1); }
};

INSTANTIATE_TYPED_TEST_SUITE_P(S3, StoreCommandsContractTest, ::testing::Types<S3Store>);

using S3CommandsTest = StoreCommandsTest<S3Store>;

TEST_F(S3CommandsTest, ADiskOfMoreThanAThousandBrickObjectsIsCheckedAndExportedExactly)
{
    // 1100 bricks of 4 KiB, none all-zero (those are not stored): more brick
    // objects than the 1000 keys of one listing answer, spread over the
    // brick tree's folders.
    constexpr size_t brickSize = 4096;
    constexpr size_t storedBricks = 1100;
    std::string image = clitest::makeImage(storedBricks * brickSize, 51);
    for (size_t at = 0; at < image.size(); at += brickSize)
        image[at] = 'b';
    writeFile(path("image"), image);
    runOk({"create", disk, "--size", std::to_string(image.size()), "--brick-size", "4K"});
    runOk({"import", disk, path("image")});
    const RunResult check = runOk({"check", disk, "--read-data", "--json"});
    EXPECT_NE(check.out.find("\"brickFiles\": " + std::to_string(storedBricks)), std::string::npos) << check.out;
    runOk({"export", disk, path("exported")});
    EXPECT_TRUE(readFile(path("exported")) == image);
}

// A disk whose snapshot sits beside it, copied to the top of a bucket, puts
// the snapshot beside the copy at the top of the bucket, which is inside it:
// the copy is made and both disks export like their sources.
TEST_F(S3CommandsTest, CopyToTheTopOfABucketPutsTheSnapshotBesideItThere)
{
    // The copy's top has the source's name, so that the snapshot's link to
    // it ("../" and that name) stays true.
    const zo::CURI snapshotCopy = testsupport::uniqueS3Folder("snap");
    const std::string source = path("disks/" + zo::CURI(zo::String::fromUTF8(folder)).getName().toUTF8());
    const std::string sourceSnapshot = path("disks/" + snapshotCopy.getName().toUTF8());
    runOk({"create", source, "--size", "256K", "--brick-size", "4K"});
    writeFile(path("a.img"), clitest::makeImage(256 * 1024, 61));
    runOk({"import", source, path("a.img")});
    runOk({"snapshot", source, sourceSnapshot});
    writeFile(path("b.img"), clitest::makeImage(256 * 1024, 62));
    runOk({"import", source, path("b.img")});

    const RunResult copied = clitest::run({"copy", source, folder});

    EXPECT_EQ(copied.exitStatus, 0) << copied.err;
    const std::vector<std::pair<std::string, std::string>> disks{
        {folder, source}, {snapshotCopy.toString(true).toUTF8(), sourceSnapshot}};
    for (const auto& [copy, original] : disks) {
        runOk({"export", original, path("source.img"), "--force"});
        runOk({"export", copy, path("copy.img"), "--force"});
        EXPECT_TRUE(readFile(path("copy.img")) == readFile(path("source.img"))) << copy;
    }
    testsupport::removeS3Folder(snapshotCopy);
}

TEST_F(S3CommandsTest, AMissingBucketIsReportedAsSuch)
{
    // The endpoint given only on the command line.
    const std::string endpoint = testsupport::s3TestOptions().endpoint;
    ::unsetenv("AWS_ENDPOINT_URL");
    const RunResult result =
        runWithPassword({"--s3-endpoint", endpoint, "create", "s3://brickdisk-no-such-bucket/disk", "--size", "1M"});
    ::setenv("AWS_ENDPOINT_URL", endpoint.c_str(), 1);
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
    writeFile(path("credentials"),
              "[other]\naws_access_key_id = wrong\n\n[tests]\naws_access_key_id = " + id +
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

} // namespace
