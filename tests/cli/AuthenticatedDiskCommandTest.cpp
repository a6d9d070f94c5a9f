// Disks with authenticated bricks and a wrapped key, the tool's default:
// create, info, check and passwd on them.
#include "CliTestFixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace clitest {
namespace {

constexpr const char* kNewPassword = "a new password";

class AuthenticatedDiskCommandTest : public CliTest {
protected:
    void SetUp() override
    {
        writeFile(path("new-password"), kNewPassword);
        // Six bricks of bytes that none is all zeros.
        std::string image(6 * kBrickSize, '\0');
        std::mt19937 random(4);
        for (char& c : image)
            c = static_cast<char>(random() % 255 + 1);
        writeFile(path("image"), image);
    }
    void makeFullDisk(const std::string& name = "disk")
    {
        createDisk(name, "1M", cheapKeyWrappedDiskArgs());
        importImage(name, "image");
    }
    RunResult passwd(const std::string& disk, const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> args{"passwd",       path(disk), "--new-password-file", path("new-password"),
                                      "--kdf-memory", "64K",      "--kdf-passes",        "1"};
        args.insert(args.end(), extra.begin(), extra.end());
        return runWithPassword(args);
    }
};

TEST_F(AuthenticatedDiskCommandTest, NewDisksAreAuthenticatedWithAWrappedKeyByDefault)
{
    const RunResult created = runWithPassword({"create", path("disk"), "--size", "1M"});
    ASSERT_EQ(created.exitStatus, 0) << created.err;
    EXPECT_NE(created.out.find("brick digest hmac-sha256"), std::string::npos) << created.out;

    const RunResult json = run({"info", path("disk"), "--json"});
    EXPECT_NE(json.out.find("\"format\": \"authenticated\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"brickDigest\": \"hmac-sha256\""), std::string::npos);
    EXPECT_NE(json.out.find("\"keyDeriver\": \"argon2id\""), std::string::npos);
    EXPECT_NE(json.out.find("\"keyDerivationMemoryKiB\": 65536"), std::string::npos);
    EXPECT_NE(json.out.find("\"keyDerivationLanes\": 4"), std::string::npos);
    const RunResult text = run({"info", path("disk")});
    EXPECT_NE(text.out.find("format:            authenticated"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("key wrapped under argon2id (12 passes over 64.0 MiB in 4 lanes)"), std::string::npos)
        << text.out;
}

TEST_F(AuthenticatedDiskCommandTest, InfoNamesTheOriginalFormat)
{
    createDisk("disk", "1M");
    const RunResult text = run({"info", path("disk")});
    EXPECT_NE(text.out.find("format:            original"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("key by PKCS5-PBKDF2-HMAC-SHA1 (10000 iterations)"), std::string::npos);
    EXPECT_NE(run({"info", path("disk"), "--json"}).out.find("\"format\": \"original\""), std::string::npos);
}

TEST_F(AuthenticatedDiskCommandTest, ImportExportAndCheckRoundTrip)
{
    makeFullDisk();
    EXPECT_EQ(exportImage("disk").substr(0, 6 * kBrickSize), readFile(path("image")));
    const RunResult check = runWithPassword({"check", path("disk"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
    EXPECT_NE(check.out.find("no problems"), std::string::npos);
}

TEST_F(AuthenticatedDiskCommandTest, CheckReadDataReportsBricksAtTheWrongIndex)
{
    makeFullDisk();
    const std::vector<std::string> files = brickFiles("disk");
    ASSERT_EQ(files.size(), 6u);
    // Brick 1 copied over brick 2; bricks 4 and 5 swapped.
    writeFile(files[2], readFile(files[1]));
    const std::string four = readFile(files[4]);
    writeFile(files[4], readFile(files[5]));
    writeFile(files[5], four);

    const RunResult check = runWithPassword({"check", path("disk"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 1);
    EXPECT_NE(
        check.out.find("problem: brick 2 (" + files[2] + "): at the wrong index: it is the brick file of brick 1"),
        std::string::npos)
        << check.out;
    EXPECT_NE(
        check.out.find("problem: brick 4 (" + files[4] + "): at the wrong index: it is the brick file of brick 5"),
        std::string::npos);
    EXPECT_NE(
        check.out.find("problem: brick 5 (" + files[5] + "): at the wrong index: it is the brick file of brick 4"),
        std::string::npos);
    EXPECT_EQ(countOf(check.out, "problem:"), 3u);

    const RunResult exported = runWithPassword({"export", path("disk"), path("out")});
    EXPECT_EQ(exported.exitStatus, 1);
    EXPECT_NE(exported.err.find("Brick file belongs to another brick index."), std::string::npos) << exported.err;
}

TEST_F(AuthenticatedDiskCommandTest, CheckWithoutPasswordSaysTheDigestsNeedIt)
{
    makeFullDisk();
    const RunResult check = run({"check", path("disk")});
    EXPECT_EQ(check.exitStatus, 0) << check.out;
    EXPECT_NE(check.out.find("only --read-data, with the password, checks them"), std::string::npos) << check.out;
}

TEST_F(AuthenticatedDiskCommandTest, PasswdChangesTheWholeChainWithoutTouchingBricks)
{
    makeFullDisk();
    // Its links are tied under the disk key: the snapshot needs the password.
    ASSERT_EQ(run({"snapshot", path("disk"), path("snap")}).exitStatus, 2);
    ASSERT_EQ(runWithPassword({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    writeFile(path("image2"), makeImage(3 * kBrickSize, 8));
    importImage("disk", "image2");
    const std::string diskBefore = exportImage("disk");
    const std::string snapBefore = exportImage("snap");
    std::vector<std::string> bricks = brickFiles("disk");
    for (const std::string& file : brickFiles("snap"))
        bricks.push_back(file);
    std::vector<std::string> brickBytes;
    for (const std::string& file : bricks)
        brickBytes.push_back(readFile(file));

    const RunResult changed = passwd("snap");
    ASSERT_EQ(changed.exitStatus, 0) << changed.err;
    EXPECT_NE(changed.out.find("changed the password of 2 disks"), std::string::npos) << changed.out;

    for (const std::string disk : {"disk", "snap"}) {
        EXPECT_FALSE(opensWith(disk, kPassword)) << disk;
        EXPECT_TRUE(opensWith(disk, kNewPassword)) << disk;
    }
    EXPECT_EQ(withPassword({"export", path("disk"), "-"}, kNewPassword).out, diskBefore);
    EXPECT_EQ(withPassword({"export", path("snap"), "-"}, kNewPassword).out, snapBefore);
    for (size_t i = 0; i < bricks.size(); ++i)
        EXPECT_EQ(readFile(bricks[i]), brickBytes[i]) << bricks[i];
}

TEST_F(AuthenticatedDiskCommandTest, PasswdWithAWrongPasswordChangesNothing)
{
    makeFullDisk();
    const RunResult result =
        withPassword({"passwd", path("disk"), "--new-password-file", path("new-password")}, "wrong");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The encryption password is incorrect."), std::string::npos) << result.err;
    EXPECT_TRUE(opensWith("disk", kPassword));
}

TEST_F(AuthenticatedDiskCommandTest, PasswdExplainsWhyADiskOfDerivedKeyCannotChange)
{
    createDisk("disk", "1M");
    const RunResult result = passwd("disk");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("cannot change: its bricks are encrypted with the key derived from the password"),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("Export the disk and import the image into a new disk"), std::string::npos);
    EXPECT_TRUE(opensWith("disk", kPassword));
}

TEST_F(AuthenticatedDiskCommandTest, ChecksumThatDoesNotFitTheKeyDerivationIsAUsageError)
{
    EXPECT_EQ(runWithPassword({"create", path("a"), "--size", "1M", "--kdf", "pbkdf2", "--checksum", "hmac-sha256"})
                  .exitStatus,
              2);
    EXPECT_EQ(runWithPassword({"create", path("b"), "--size", "1M", "--checksum", "sha256"}).exitStatus, 2);
    EXPECT_FALSE(std::filesystem::exists(path("a")));
    EXPECT_FALSE(std::filesystem::exists(path("b")));
}

TEST_F(AuthenticatedDiskCommandTest, NewDisksUseAES256GCMAndAES256CBCStaysAChoice)
{
    for (const std::string cipher : {"aes256gcm", "aes256cbc"}) {
        SCOPED_TRACE(cipher);
        std::vector<std::string> args{"create", path(cipher), "--size", "1M", "--brick-size", "64K"};
        args.insert(args.end(), cheapKeyWrappedDiskArgs().begin(), cheapKeyWrappedDiskArgs().end());
        if (cipher != "aes256gcm") {
            args.push_back("--cipher");
            args.push_back(cipher);
        }
        const RunResult created = runWithPassword(args);
        ASSERT_EQ(created.exitStatus, 0) << created.err;
        EXPECT_NE(created.out.find("encrypted with " + cipher + ", key wrapped under argon2id"), std::string::npos)
            << created.out;
        EXPECT_NE(run({"info", path(cipher), "--json"}).out.find("\"cipher\": \"" + cipher + "\""), std::string::npos);
        const std::string format = cipher == "aes256gcm" ? "format:            authenticated (each brick sealed"
                                                         : "format:            authenticated (keyed brick digests";
        EXPECT_NE(run({"info", path(cipher)}).out.find(format), std::string::npos);
        importImage(cipher, "image");
        EXPECT_EQ(exportImage(cipher).substr(0, 6 * kBrickSize), readFile(path("image")));
        EXPECT_EQ(runWithPassword({"check", path(cipher), "--read-data"}).exitStatus, 0);
    }
    EXPECT_NE(run({"info", path("aes256gcm"), "--json"}).out.find("\"format\": \"authenticated\""), std::string::npos);
}

TEST_F(AuthenticatedDiskCommandTest, CheckReadDataFindsAChangedByteWithEitherCipher)
{
    for (const std::string cipher : {"aes256gcm", "aes256cbc"}) {
        SCOPED_TRACE(cipher);
        std::vector<std::string> args = cheapKeyWrappedDiskArgs();
        args.insert(args.end(), {"--cipher", cipher});
        createDisk(cipher, "1M", args);
        importImage(cipher, "image");
        const std::string victim = brickFiles(cipher)[3];
        std::string bytes = readFile(victim);
        bytes[bytes.size() / 2] ^= 0x01;
        writeFile(victim, bytes);
        const RunResult check = runWithPassword({"check", path(cipher), "--read-data"});
        EXPECT_EQ(check.exitStatus, 1);
        EXPECT_NE(check.out.find("problem: brick 3 (" + victim + "): damaged: its keyed digest does not match"),
                  std::string::npos)
            << check.out;
        EXPECT_EQ(countOf(check.out, "problem:"), 1u);
    }
}

TEST_F(AuthenticatedDiskCommandTest, CipherThatDoesNotFitTheDiskIsAUsageError)
{
    EXPECT_EQ(
        runWithPassword({"create", path("a"), "--size", "1M", "--kdf", "pbkdf2", "--cipher", "aes256gcm"}).exitStatus,
        2);
    EXPECT_EQ(run({"create", path("b"), "--size", "1M", "--no-encryption", "--cipher", "aes256gcm"}).exitStatus, 2);
    EXPECT_EQ(runWithPassword({"create", path("c"), "--size", "1M", "--cipher", "aes128gcm"}).exitStatus, 2);
    for (const char* folder : {"a", "b", "c"})
        EXPECT_FALSE(std::filesystem::exists(path(folder))) << folder;
}

TEST_F(AuthenticatedDiskCommandTest, KeyDerivationCostOutsideTheLimitsIsAUsageError)
{
    for (const std::vector<std::string>& cost : {std::vector<std::string>{"--kdf-memory", "4K"},
                                                 {"--kdf-memory", "5G"},
                                                 {"--kdf-passes", "0"},
                                                 {"--kdf-lanes", "65"}}) {
        std::vector<std::string> args{"create", path("disk"), "--size", "1M"};
        args.insert(args.end(), cost.begin(), cost.end());
        EXPECT_EQ(runWithPassword(args).exitStatus, 2) << cost[0] << " " << cost[1];
    }
    EXPECT_FALSE(std::filesystem::exists(path("disk")));
}

TEST_F(AuthenticatedDiskCommandTest, UnencryptedDiskStillBindsBricksToTheirIndex)
{
    ASSERT_EQ(run({"create", path("disk"), "--size", "1M", "--brick-size", "64K", "--no-encryption"}).exitStatus, 0);
    ASSERT_EQ(run({"import", path("disk"), path("image")}).exitStatus, 0);
    const std::vector<std::string> files = brickFiles("disk");
    writeFile(files[3], readFile(files[0]));
    const RunResult check = run({"check", path("disk"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 1);
    EXPECT_NE(check.out.find("problem: brick 3 (" + files[3] + "): at the wrong index"), std::string::npos)
        << check.out;
    EXPECT_NE(run({"passwd", path("disk"), "--new-password-file", path("new-password")}).err.find("not encrypted"),
              std::string::npos);
}

// The links of such disks name both disks by ID under the disk key: a link
// pointed elsewhere, or taken away, is refused instead of followed.
TEST_F(AuthenticatedDiskCommandTest, ChildLinkPointedAtAnotherDiskOfTheSamePasswordIsRefused)
{
    makeFullDisk();
    ASSERT_EQ(runWithPassword({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    makeFullDisk("victim");
    const std::string victim = exportImage("victim");
    // The snapshot's folder and the victim's swap names: the disk's link
    // now leads to the victim.
    std::filesystem::rename(path("snap"), path("kept"));
    std::filesystem::rename(path("victim"), path("snap"));
    writeFile(path("image2"), std::string(6 * kBrickSize, 'x'));
    const RunResult imported = runWithPassword({"import", path("disk"), path("image2")});
    EXPECT_EQ(imported.exitStatus, 1);
    EXPECT_NE(imported.err.find("The child link of the disk leads to another disk."), std::string::npos)
        << imported.err;
    EXPECT_TRUE(exportImage("snap") == victim);
}

TEST_F(AuthenticatedDiskCommandTest, ChildLinkPointedAtAPlainFolderWritesNothingThere)
{
    makeFullDisk();
    ASSERT_EQ(runWithPassword({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    std::filesystem::rename(path("snap"), path("kept"));
    std::filesystem::create_directory(path("snap"));
    writeFile(path("image2"), std::string(6 * kBrickSize, 'x'));
    const RunResult imported = runWithPassword({"import", path("disk"), path("image2")});
    EXPECT_EQ(imported.exitStatus, 1);
    EXPECT_TRUE(std::filesystem::is_empty(path("snap")));
}

TEST_F(AuthenticatedDiskCommandTest, SnapshotWithoutItsParentLinkIsFoundByExportAndCheck)
{
    makeFullDisk();
    ASSERT_EQ(runWithPassword({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    std::filesystem::remove(path("snap") + "/parent.bricklnk");
    std::filesystem::remove(path("snap") + "/fallback/parent.bricklnk");
    const RunResult exported = runWithPassword({"export", path("snap"), path("out")});
    EXPECT_EQ(exported.exitStatus, 1);
    EXPECT_NE(exported.err.find("The disk has a parent disk, but its parent link is missing."), std::string::npos)
        << exported.err;
    const RunResult check = runWithPassword({"check", path("snap"), "--read-data"});
    EXPECT_NE(check.exitStatus, 0) << check.out;
    EXPECT_EQ(check.out.find("no problems"), std::string::npos) << check.out;
    EXPECT_NE((check.out + check.err).find("parent link is missing"), std::string::npos) << check.out << check.err;
}

TEST_F(AuthenticatedDiskCommandTest, DeleteTiesTheLinksAnewWithThePassword)
{
    makeFullDisk();
    ASSERT_EQ(runWithPassword({"snapshot", path("disk"), path("old")}).exitStatus, 0);
    writeFile(path("image2"), std::string(6 * kBrickSize, 'x'));
    importImage("disk", "image2");
    ASSERT_EQ(runWithPassword({"snapshot", path("disk"), path("mid")}).exitStatus, 0);
    const std::string old = exportImage("old");
    EXPECT_EQ(run({"delete", path("mid")}).exitStatus, 2);
    EXPECT_TRUE(std::filesystem::exists(path("mid") + "/disk.brickdisk"));
    const RunResult deleted = runWithPassword({"delete", path("mid")});
    ASSERT_EQ(deleted.exitStatus, 0) << deleted.err;
    EXPECT_TRUE(exportImage("old") == old);
    const RunResult check = runWithPassword({"check", path("old"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
}

} // namespace
} // namespace clitest
