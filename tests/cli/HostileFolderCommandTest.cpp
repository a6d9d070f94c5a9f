// Disk folders that someone else has planted entries in, used as an attacker
// would: symbolic links out of the disk where the program deletes or writes,
// FIFOs where it reads. Every command must leave what the links point to
// untouched and end, with a clear error where it cannot go on.
#include "CliTestFixture.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

namespace clitest {
namespace {

// Far longer than any of these commands takes; only a command that hangs
// on a FIFO meets it.
constexpr unsigned kHangBoundSeconds = 120;

class HostileFolderTest : public CliTest {
protected:
    void SetUp() override
    {
        writeFile(path("image"), makeImage(4 * 1024 * 1024, 7));
        createDisk("disk");
        importImage("disk", "image");
        std::filesystem::create_directories(path("outside"));
        writeFile(path("outside/victim"), "precious");
    }
    // Replaces `entry` (a path inside the test's folder) with a symbolic link to `target`.
    void plantLink(const std::string& entry, const std::string& target) const
    {
        std::filesystem::remove_all(path(entry));
        std::filesystem::create_symlink(target, path(entry));
    }
    // Replaces the file at `fullPath` with a FIFO that nobody writes to.
    static void plantFifo(const std::string& fullPath)
    {
        std::filesystem::remove_all(fullPath);
        ASSERT_EQ(::mkfifo(fullPath.c_str(), 0600), 0);
    }
    RunResult runBounded(const std::vector<std::string>& args) const
    {
        RunOptions options;
        options.timeoutSeconds = kHangBoundSeconds;
        return runWithPassword(args, options);
    }
    // The names in `folder`, sorted.
    std::vector<std::string> entriesOf(const std::string& folder) const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path(folder)))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    // The first folder below "disk/bricks".
    std::string firstBrickFolder() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(path("disk/bricks")))
            if (entry.is_directory())
                return "disk/bricks/" + entry.path().filename().string();
        ADD_FAILURE() << "the disk has no brick folder";
        return "disk/bricks/none";
    }
};

TEST_F(HostileFolderTest, DeleteRemovesALinkToAFolderAsALinkAndLeavesTheFolderAlone)
{
    ASSERT_EQ(run({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    std::filesystem::create_symlink(path("outside"), path("snap/notes"));
    const RunResult deleted = run({"delete", path("snap")});
    EXPECT_EQ(deleted.exitStatus, 0) << deleted.err;
    EXPECT_FALSE(std::filesystem::exists(path("snap")));
    EXPECT_EQ(entriesOf("outside"), std::vector<std::string>({"victim"}));
    EXPECT_EQ(readFile(path("outside/victim")), "precious");
}

TEST_F(HostileFolderTest, DeleteThroughALinkToTheParentLeavesTheParentWhole)
{
    ASSERT_EQ(run({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    const std::vector<std::string> parentFiles = brickFiles("disk");
    std::filesystem::create_symlink("../disk", path("snap/parent-view"));
    const RunResult deleted = run({"delete", path("snap")});
    EXPECT_EQ(deleted.exitStatus, 0) << deleted.err;
    EXPECT_FALSE(std::filesystem::exists(path("snap")));
    EXPECT_TRUE(std::filesystem::exists(path("disk/disk.brickdisk")));
    EXPECT_EQ(brickFiles("disk"), parentFiles);
    EXPECT_TRUE(exportImage("disk") == readFile(path("image")));
}

TEST_F(HostileFolderTest, DeleteOfASnapshotWithALoopingLinkFinishesAndKeepsTheChainWhole)
{
    ASSERT_EQ(run({"snapshot", path("disk"), path("snap")}).exitStatus, 0);
    std::filesystem::create_symlink("..", path("snap/loop"));
    const RunResult deleted = run({"delete", path("snap")});
    EXPECT_EQ(deleted.exitStatus, 0) << deleted.err;
    EXPECT_FALSE(std::filesystem::exists(path("snap")));
    EXPECT_FALSE(std::filesystem::exists(path("disk/child.bricklnk")));
    EXPECT_TRUE(exportImage("disk") == readFile(path("image")));
    const RunResult checked = runWithPassword({"check", path("disk")});
    EXPECT_EQ(checked.exitStatus, 0) << checked.out << checked.err;
}

TEST_F(HostileFolderTest, AWriterRefusesALockFileThatIsALink)
{
    plantLink("disk/.lock", path("outside/victim"));
    const RunResult imported = runWithPassword({"import", path("disk"), path("image")});
    EXPECT_NE(imported.exitStatus, 0);
    EXPECT_NE(imported.err.find("symbolic link"), std::string::npos) << imported.err;
    EXPECT_NE(imported.err.find(path("disk/.lock")), std::string::npos) << imported.err;
    EXPECT_EQ(readFile(path("outside/victim")), "precious");
}

TEST_F(HostileFolderTest, SnapshotRefusesAChildLinkRecordThatIsALink)
{
    plantLink("disk/child.bricklnk", path("outside/victim"));
    const RunResult snapshot = run({"snapshot", path("disk"), path("snap")});
    EXPECT_NE(snapshot.exitStatus, 0);
    EXPECT_NE(snapshot.err.find("symbolic link"), std::string::npos) << snapshot.err;
    EXPECT_EQ(readFile(path("outside/victim")), "precious");
}

TEST_F(HostileFolderTest, PasswdRefusesAHeaderThatIsALink)
{
    const std::vector<std::string> cheapKdf{"--kdf", "argon2id", "--kdf-memory", "64K", "--kdf-passes", "1"};
    createDisk("keyed", "1M", cheapKdf);
    writeFile(path("new-password"), "another horse");
    plantLink("keyed/disk.brickdisk", path("outside/victim"));
    const RunResult changed = runWithPassword({"passwd", path("keyed"), "--new-password-file", path("new-password"),
                                               "--kdf-memory", "64K", "--kdf-passes", "1"});
    EXPECT_NE(changed.exitStatus, 0);
    EXPECT_NE(changed.err.find("symbolic link"), std::string::npos) << changed.err;
    EXPECT_EQ(readFile(path("outside/victim")), "precious");
}

TEST_F(HostileFolderTest, ImportWritesNoBrickThroughABrickFolderThatIsALink)
{
    plantLink(firstBrickFolder(), path("outside"));
    writeFile(path("changed"), makeImage(4 * 1024 * 1024, 8));
    const RunResult imported = runWithPassword({"import", path("disk"), path("changed")});
    EXPECT_NE(imported.exitStatus, 0);
    EXPECT_NE(imported.err.find("symbolic link"), std::string::npos) << imported.err;
    EXPECT_EQ(entriesOf("outside"), std::vector<std::string>({"victim"}));
}

TEST_F(HostileFolderTest, ABrickFileThatIsAFifoEndsExportCheckAndInfoWithAClearError)
{
    const std::vector<std::string> bricks = brickFiles("disk");
    ASSERT_FALSE(bricks.empty());
    plantFifo(bricks.front());

    const RunResult exported = runBounded({"export", path("disk"), path("exported")});
    EXPECT_NE(exported.exitStatus, -1) << "export hung on the FIFO";
    EXPECT_NE(exported.exitStatus, 0);
    EXPECT_NE(exported.err.find("is not a regular file"), std::string::npos) << exported.err;

    const RunResult checked = runBounded({"check", path("disk"), "--read-data"});
    EXPECT_NE(checked.exitStatus, -1) << "check hung on the FIFO";
    EXPECT_NE(checked.exitStatus, 0);
    EXPECT_NE((checked.out + checked.err).find("is not a regular file"), std::string::npos)
        << checked.out << checked.err;

    const RunResult info = runBounded({"info", path("disk")});
    EXPECT_NE(info.exitStatus, -1) << "info hung on the FIFO";
}

TEST_F(HostileFolderTest, AHeaderThatIsAFifoEndsExportCheckAndInfo)
{
    plantFifo(path("disk/disk.brickdisk"));
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"export", path("disk"), path("exported")}, {"check", path("disk")}, {"info", path("disk")}}) {
        const RunResult result = runBounded(args);
        EXPECT_NE(result.exitStatus, -1) << args.front() << " hung on the FIFO";
    }
    std::filesystem::remove_all(path("disk/fallback"));
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"export", path("disk"), path("exported")}, {"check", path("disk")}, {"info", path("disk")}}) {
        const RunResult result = runBounded(args);
        EXPECT_NE(result.exitStatus, -1) << args.front() << " hung on the FIFO";
        EXPECT_NE(result.exitStatus, 0) << args.front();
    }
}

TEST_F(HostileFolderTest, ALockFileThatIsAFolderIsNamedInTheError)
{
    std::filesystem::remove(path("disk/.lock"));
    std::filesystem::create_directories(path("disk/.lock"));
    const RunResult imported = runWithPassword({"import", path("disk"), path("image")});
    EXPECT_NE(imported.exitStatus, 0);
    EXPECT_NE(imported.err.find("is not a regular file"), std::string::npos) << imported.err;
    EXPECT_NE(imported.err.find(path("disk/.lock")), std::string::npos) << imported.err;
}

} // namespace
} // namespace clitest
