// brickdisk copy --rekey: a chain copied under a new key and password, each
// disk exported byte for byte as its source, the old password refused.
#include "CliTestFixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace clitest {
namespace {

constexpr const char* kNewPassword = "the copy's own password";
const char* const kDisks[] = {"top", "s1", "s2"};

class RekeyCopyCommandTest : public CliTest {
protected:
    void SetUp() override { writeFile(path("new-password"), kNewPassword); }
    // chain/top with the snapshots chain/s1 and chain/s2, the top changed
    // after each.
    void makeChain()
    {
        createDisk("chain/top", "1M", cheapKeyWrappedDiskArgs());
        std::string image(5 * kBrickSize, '\0');
        std::mt19937 random(11);
        for (char& c : image)
            c = static_cast<char>(random() % 255 + 1);
        for (int round = 0; round < 3; ++round) {
            image.replace(static_cast<size_t>(round) * kBrickSize, kBrickSize, std::string(kBrickSize, 'a' + round));
            writeFile(path("image"), image);
            importImage("chain/top", "image");
            if (round == 2)
                break;
            const std::string snapshot = path("chain/s" + std::to_string(round + 1));
            ASSERT_EQ(runWithPassword({"snapshot", path("chain/top"), snapshot}).exitStatus, 0);
        }
    }
    RunResult rekey(const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> args{"copy",    path("chain/top"),     path("copy/top"),
                                      "--rekey", "--new-password-file", path("new-password")};
        args.insert(args.end(), cheapKdfArgs().begin(), cheapKdfArgs().end());
        args.insert(args.end(), extra.begin(), extra.end());
        return runWithPassword(args);
    }
};

TEST_F(RekeyCopyCommandTest, EveryDiskExportsAsItsSourceWithTheNewPasswordOnly)
{
    makeChain();
    const RunResult copied = rekey();
    ASSERT_EQ(copied.exitStatus, 0) << copied.err;
    EXPECT_NE(copied.out.find("encoded anew under a new key"), std::string::npos) << copied.out;
    for (const char* disk : kDisks) {
        const std::string source = exportWith(std::string("chain/") + disk, kPassword);
        EXPECT_EQ(exportWith(std::string("copy/") + disk, kNewPassword), source) << disk;
        const RunResult old =
            withPassword({"export", path(std::string("copy/") + disk), path("refused.img")}, kPassword);
        EXPECT_EQ(old.exitStatus, 1) << disk;
        EXPECT_NE(old.err.find("password is incorrect"), std::string::npos) << old.err;
        EXPECT_EQ(withPassword({"check", path(std::string("copy/") + disk), "--read-data"}, kNewPassword).exitStatus, 0)
            << disk;
    }
    // The snapshots differ from the top, so each was copied as itself.
    EXPECT_NE(exportWith("copy/s1", kNewPassword), exportWith("copy/top", kNewPassword));
}

TEST_F(RekeyCopyCommandTest, SecondRekeyedCopyIntoTheSameFolderIsRefused)
{
    makeChain();
    ASSERT_EQ(rekey().exitStatus, 0);
    const RunResult again = rekey();
    EXPECT_EQ(again.exitStatus, 1);
    EXPECT_NE(again.err.find("A copy with a new key goes into a new or empty folder"), std::string::npos) << again.err;
    EXPECT_EQ(exportWith("copy/top", kNewPassword), exportWith("chain/top", kPassword));
}

TEST_F(RekeyCopyCommandTest, WrongPasswordLeavesNoFolderBehind)
{
    makeChain();
    std::vector<std::string> args{"copy",    path("chain/top"),     path("copy/top"),
                                  "--rekey", "--new-password-file", path("new-password")};
    args.insert(args.end(), cheapKdfArgs().begin(), cheapKdfArgs().end());
    const RunResult result = withPassword(args, "not the password");
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_FALSE(std::filesystem::exists(path("copy/top")));
}

TEST_F(RekeyCopyCommandTest, OptionsOfThePlainCopyAreUsageErrors)
{
    makeChain();
    for (const std::vector<std::string>& extra :
         {std::vector<std::string>{"--dry-run"}, {"--verify"}, {"--snapshots", "none"}, {"--jobs", "2"}}) {
        const RunResult result = rekey(extra);
        EXPECT_EQ(result.exitStatus, 2) << extra.front();
    }
    EXPECT_FALSE(std::filesystem::exists(path("copy/top")));
}

} // namespace
} // namespace clitest
