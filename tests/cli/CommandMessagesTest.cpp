// What the commands tell their user: counts in the singular and the plural,
// hints that name only options the command has, the unmount of a folder that
// is not mounted, progress of a delete, and --help agreeing with docs/cli.md.
#include "CliTestFixture.h"

#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

namespace clitest {
namespace {

class CommandMessagesTest : public CliTest {
protected:
    // A chain disk -> s2 -> s1 of one brick where s2 holds the disk's old
    // brick, which s1 reads through it.
    void makeChainWithOneBrickInTheMiddle()
    {
        createDisk("disk", "64K");
        writeFile(path("a"), std::string(kBrickSize, 'a'));
        importImage("disk", "a");
        ASSERT_EQ(run({"snapshot", path("disk"), path("s1")}).exitStatus, 0);
        ASSERT_EQ(run({"snapshot", path("disk"), path("s2")}).exitStatus, 0);
        writeFile(path("b"), std::string(kBrickSize, 'b'));
        importImage("disk", "b");
        ASSERT_EQ(brickFiles("s2").size(), 1u);
        ASSERT_TRUE(brickFiles("s1").empty());
    }
};

TEST_F(CommandMessagesTest, CountsOfOneAreInTheSingular)
{
    makeChainWithOneBrickInTheMiddle();

    const RunResult info = run({"info", path("disk")});
    EXPECT_NE(info.out.find("64.0 KiB, 1 brick\n"), std::string::npos) << info.out;
    const RunResult check = run({"check", path("disk")});
    EXPECT_NE(check.out.find("the links and 1 brick file ("), std::string::npos) << check.out;
    const RunResult snapshots = run({"snapshots", path("disk")});
    EXPECT_EQ(countOf(snapshots.out, ", 1 brick file, "), 2u) << snapshots.out;
    const RunResult diff = runWithPassword({"diff", path("disk"), path("s2")});
    EXPECT_NE(diff.out.find("1 of 1 brick differs ("), std::string::npos) << diff.out;

    const RunResult deleted = run({"delete", path("s2")});
    ASSERT_EQ(deleted.exitStatus, 0) << deleted.err;
    EXPECT_NE(deleted.out.find("; 1 brick it held for " + path("s1") + " was kept there\n"), std::string::npos)
        << deleted.out;
    EXPECT_EQ(exportImage("s1"), std::string(kBrickSize, 'a'));
}

TEST_F(CommandMessagesTest, PasswdOnADiskInUseSuggestsNoOptionThatPasswdLacks)
{
    createDisk("disk", "4M", {"--kdf", "argon2id", "--kdf-memory", "64K", "--kdf-passes", "1"});
    writeFile(path("new-password"), "another long passphrase\n");
    const std::string image = makeImage(4 * 1024 * 1024, 7);
    RunningProgram import({"import", path("disk"), "-", "--password-file", path("pw")}, RunOptions{});
    EXPECT_TRUE(import.feed(image.substr(0, image.size() / 2)));
    // The import holds the disk once it has stored a brick.
    for (int i = 0; i < 400 && brickFiles("disk").empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_FALSE(brickFiles("disk").empty()) << "the import stored no brick";

    const RunResult passwd = runWithPassword({"passwd", path("disk"), "--new-password-file", path("new-password"),
                                              "--kdf-memory", "64K", "--kdf-passes", "1"});
    EXPECT_EQ(passwd.exitStatus, 1);
    EXPECT_NE(passwd.err.find("The disk is in use by another process."), std::string::npos) << passwd.err;
    EXPECT_EQ(passwd.err.find("--force-share"), std::string::npos) << passwd.err;
    const RunResult exported = runWithPassword({"export", path("disk"), path("out")});
    EXPECT_NE(exported.err.find("--force-share"), std::string::npos) << exported.err;

    import.feed(image.substr(image.size() / 2));
    import.closeInput();
    EXPECT_EQ(import.wait().exitStatus, 0);
}

TEST_F(CommandMessagesTest, UnmountOfAFolderThatIsNotMountedSaysSo)
{
    std::filesystem::create_directory(path("mnt"));
    const RunResult result = run({"unmount", path("mnt")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("The folder is not mounted."), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("loop-mounted"), std::string::npos) << result.err;
}

TEST_F(CommandMessagesTest, DeleteShowsProgressOnATerminal)
{
    makeChainWithOneBrickInTheMiddle();
    const RunResult result = runOnTerminal({"delete", path("s2")}, {});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.err.find("delete: keeping bricks for the child ["), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("delete: deleting files ["), std::string::npos) << result.err;
    EXPECT_NE(result.err.find(" files "), std::string::npos) << result.err;
    EXPECT_EQ(exportImage("s1"), std::string(kBrickSize, 'a'));
}

TEST_F(CommandMessagesTest, DeleteShowsNoProgressOnAPipe)
{
    makeChainWithOneBrickInTheMiddle();
    const RunResult result = run({"delete", path("s2")});
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.err, "");
}

TEST_F(CommandMessagesTest, KeyDerivationDefaultsOfCreateHelpAreTheOnesTheDocsGive)
{
    const RunResult help = run({"create", "--help"});
    ASSERT_EQ(help.exitStatus, 0);
    std::string defaults[3];
    const char* options[3] = {"--kdf-memory", "--kdf-passes", "--kdf-lanes"};
    for (int i = 0; i < 3; ++i) {
        std::smatch match;
        const std::regex shown(std::string(options[i]) + R"( \S+=(\S+))");
        ASSERT_TRUE(std::regex_search(help.out, match, shown)) << options[i] << "\n" << help.out;
        defaults[i] = match[1];
    }
    const std::string docs = readFile(std::string(BRICKDISK_SOURCE_DIR) + "/docs/cli.md");
    const std::string stated = defaults[0] + ", " + defaults[1] + " and " + defaults[2] + " by default";
    EXPECT_NE(docs.find(stated), std::string::npos) << stated;
}

} // namespace
} // namespace clitest
