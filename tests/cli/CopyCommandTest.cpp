#include "CliTestFixture.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <thread>

namespace clitest {
namespace {

class CopyCommandTest : public CliTest {
protected:
    // The chain src/disk, src/snaps/s1, src/snaps/s0 (oldest), each view
    // with other bytes.
    void makeChain()
    {
        createDisk("src/disk", "2M", cheapKeyWrappedDiskArgs());
        writeFile(path("a.img"), makeImage(2 << 20, 1));
        importImage("src/disk", "a.img");
        ASSERT_EQ(runWithPassword({"snapshot", path("src/disk"), path("src/snaps/s0")}).exitStatus, 0);
        writeFile(path("b.img"), makeImage(1 << 20, 2));
        importImage("src/disk", "b.img");
        ASSERT_EQ(runWithPassword({"snapshot", path("src/disk"), path("src/snaps/s1")}).exitStatus, 0);
        writeFile(path("c.img"), makeImage(512 << 10, 3));
        importImage("src/disk", "c.img");
    }

    // Each disk of `disks` reads the same below src and below `copy`.
    void expectSameDisks(const std::string& copy, const std::vector<std::string>& disks)
    {
        for (const std::string& disk : disks) {
            EXPECT_EQ(exportImage(copy + "/" + disk), exportImage("src/" + disk)) << disk;
            const RunResult check = runWithPassword({"check", path(copy + "/" + disk), "--read-data"});
            EXPECT_EQ(check.exitStatus, 0) << disk << ": " << check.out << check.err;
        }
    }

    // Brick files below src whose bytes `copy` does not hold at the same place.
    int countDifferingBrickFiles(const std::string& copy)
    {
        int count = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path("src"))) {
            const std::string relative = std::filesystem::relative(entry.path(), path("src")).string();
            if (!entry.is_regular_file() || relative.find("/bricks/") == std::string::npos)
                continue;
            const std::string other = path(copy + "/" + relative);
            count += !std::filesystem::exists(other) || readFile(other) != readFile(entry.path().string()) ? 1 : 0;
        }
        return count;
    }
};

TEST_F(CopyCommandTest, CopiesTheChainWithoutThePasswordAndEveryDiskChecksAndReadsLikeItsSource)
{
    makeChain();
    const int files = countDifferingBrickFiles("backup");

    const RunResult copied = run({"copy", path("src/disk"), path("backup/disk"), "--json", "--verify"});

    ASSERT_EQ(copied.exitStatus, 0) << copied.err;
    EXPECT_NE(copied.out.find("\"filesSent\": " + std::to_string(files) + ","), std::string::npos) << copied.out;
    EXPECT_NE(copied.out.find("\"filesSkipped\": 0,"), std::string::npos) << copied.out;
    EXPECT_NE(copied.out.find("\"verified\": true"), std::string::npos) << copied.out;
    expectSameDisks("backup", {"disk", "snaps/s1", "snaps/s0"});
}

TEST_F(CopyCommandTest, SecondCopySendsOnlyTheChangedFilesAndAddsTheNewSnapshot)
{
    makeChain();
    ASSERT_EQ(run({"copy", path("src/disk"), path("backup/disk")}).exitStatus, 0);
    writeFile(path("d.img"), makeImage(256 << 10, 4));
    importImage("src/disk", "d.img");
    ASSERT_EQ(runWithPassword({"snapshot", path("src/disk"), path("src/snaps/s2")}).exitStatus, 0);
    writeFile(path("e.img"), makeImage(128 << 10, 5));
    importImage("src/disk", "e.img");
    const int files = countDifferingBrickFiles("backup");
    ASSERT_GT(files, 0);

    const RunResult dryRun = run({"copy", path("src/disk"), path("backup/disk"), "--dry-run"});
    ASSERT_EQ(dryRun.exitStatus, 0) << dryRun.err;
    EXPECT_NE(dryRun.out.find("would make " + path("backup/snaps/s2")), std::string::npos) << dryRun.out;
    EXPECT_EQ(countDifferingBrickFiles("backup"), files);

    const RunResult copied = run({"copy", path("src/disk"), path("backup/disk"), "--json"});
    ASSERT_EQ(copied.exitStatus, 0) << copied.err;
    EXPECT_NE(copied.out.find("\"filesSent\": " + std::to_string(files) + ","), std::string::npos) << copied.out;
    EXPECT_EQ(countDifferingBrickFiles("backup"), 0);
    expectSameDisks("backup", {"disk", "snaps/s2", "snaps/s1", "snaps/s0"});
    const RunResult again = run({"copy", path("src/disk"), path("backup/disk"), "--json"});
    EXPECT_NE(again.out.find("\"filesSent\": 0,"), std::string::npos) << again.out;
}

// DEST names the top otherwise than SOURCE: the snapshot beside it links to
// the new name, so it checks and reads like its source, and a second copy
// finds nothing to write.
TEST_F(CopyCommandTest, SnapshotBesideATopCopiedUnderAnotherNameOpensAndASecondCopyWritesNothing)
{
    createDisk("src/disk", "2M", cheapKeyWrappedDiskArgs());
    writeFile(path("a.img"), makeImage(2 << 20, 1));
    importImage("src/disk", "a.img");
    ASSERT_EQ(runWithPassword({"snapshot", path("src/disk"), path("src/disk-s0")}).exitStatus, 0);
    writeFile(path("b.img"), makeImage(1 << 20, 2));
    importImage("src/disk", "b.img");

    const RunResult copied = run({"copy", path("src/disk"), path("backup/other")});

    ASSERT_EQ(copied.exitStatus, 0) << copied.err;
    EXPECT_EQ(exportImage("backup/other"), exportImage("src/disk"));
    EXPECT_EQ(exportImage("backup/disk-s0"), exportImage("src/disk-s0"));
    const RunResult check = runWithPassword({"check", path("backup/disk-s0"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
    const RunResult again = run({"copy", path("src/disk"), path("backup/other"), "--json"});
    ASSERT_EQ(again.exitStatus, 0) << again.err;
    EXPECT_NE(again.out.find("\"filesSent\": 0,"), std::string::npos) << again.out;
    EXPECT_NE(again.out.find("\"recordsWritten\": 0,"), std::string::npos) << again.out;
}

TEST_F(CopyCommandTest, InterruptedOrKilledCopyIsFinishedByARunAgain)
{
    createDisk("src/disk", "32M");
    writeFile(path("image"), makeImage(32 << 20, 7));
    importImage("src/disk", "image");
    // A fast machine may copy the whole disk before the signal comes: then
    // it comes sooner in the next try.
    RunResult result;
    for (const int delayMillis : {150, 40, 10, 1}) {
        std::filesystem::remove_all(path("backup"));
        RunningProgram copying({"copy", path("src/disk"), path("backup/disk"), "--jobs", "1"}, RunOptions{});
        // The delay counts from the destination's folder, which the copy
        // makes first: a signal during a slow start (as under a sanitizer)
        // would come before the program handles interrupts and kill it.
        for (int i = 0; i < 2000 && !std::filesystem::exists(path("backup/disk")); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMillis));
        copying.signal(SIGINT);
        result = copying.wait();
        if (result.exitStatus != 0)
            break;
    }
    EXPECT_EQ(result.exitStatus, 130) << result.err;
    EXPECT_NE(result.err.find("brickdisk: interrupted"), std::string::npos) << result.err;
    EXPECT_NE(runWithPassword({"export", path("backup/disk"), path("refused.img")}).exitStatus, 0);
    ASSERT_EQ(run({"copy", path("src/disk"), path("backup/disk")}).exitStatus, 0);
    expectSameDisks("backup", {"disk"});

    // Killed while it sends the second time: the run after finishes too.
    writeFile(path("image2"), makeImage(32 << 20, 8));
    importImage("src/disk", "image2");
    RunningProgram killed({"copy", path("src/disk"), path("backup/disk"), "--jobs", "1"}, RunOptions{});
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    killed.kill();
    killed.wait();
    ASSERT_EQ(run({"copy", path("src/disk"), path("backup/disk")}).exitStatus, 0);
    EXPECT_EQ(countDifferingBrickFiles("backup"), 0);
    expectSameDisks("backup", {"disk"});
}

TEST_F(CopyCommandTest, RefusesADestinationThatHoldsAnotherDisk)
{
    makeChain();
    createDisk("other/disk", "2M", cheapKeyWrappedDiskArgs());

    const RunResult refused = run({"copy", path("src/disk"), path("other/disk")});

    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("The destination holds another disk"), std::string::npos) << refused.err;
    EXPECT_TRUE(brickFiles("other/disk").empty());
}

} // namespace
} // namespace clitest
