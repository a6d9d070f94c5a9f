// snapshots, delete and diff, used as a user would: a chain of snapshots of a
// changing ext4 image, snapshots deleted from its middle, a delete killed
// part-way, and the differences between two disks of the chain.
#include "CliTestFixture.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <thread>

namespace clitest {
namespace {

class SnapshotManagementTest : public CliTest {
protected:
    // Runs bench/ext4-image.sh with `args`.
    void ext4Image(const std::string& args) const
    {
        const std::string command =
            std::string("bash ") + BRICKDISK_SOURCE_DIR + "/bench/ext4-image.sh " + args + " >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }
};

TEST_F(SnapshotManagementTest, DeletingTheMiddleThreeOfFiveSnapshotsKeepsEveryOtherDiskExact)
{
    createDisk("disk", "16M");
    ext4Image("make " + path("v0") + " 16M 6000000");
    importImage("disk", "v0");
    std::vector<std::string> versions{readFile(path("v0"))};
    // Five snapshots, each of the image before the next change.
    for (int i = 1; i <= 5; ++i) {
        ASSERT_EQ(run({"snapshot", path("disk"), path("snap" + std::to_string(i))}).exitStatus, 0);
        ext4Image("change " + path("v" + std::to_string(i - 1)) + " " + path("v" + std::to_string(i)) + " 800000");
        importImage("disk", "v" + std::to_string(i));
        versions.push_back(readFile(path("v" + std::to_string(i))));
    }
    // snap5 holds v4, snap4 v3, ..., snap1 v0; the disk holds v5.
    std::map<std::string, std::string> expected{{"disk", versions[5]}};
    for (int i = 1; i <= 5; ++i)
        expected["snap" + std::to_string(i)] = versions[static_cast<size_t>(i - 1)];

    const RunResult listed = run({"snapshots", path("snap3")});
    EXPECT_EQ(listed.exitStatus, 0) << listed.err;
    for (const std::string name : {"disk", "snap5", "snap4", "snap3", "snap2", "snap1"})
        EXPECT_NE(listed.out.find(path(name)), std::string::npos) << listed.out;
    EXPECT_LT(listed.out.find(path("snap5")), listed.out.find(path("snap1")));
    EXPECT_NE(listed.out.find(path("snap3") + "  (given)"), std::string::npos) << listed.out;

    for (const std::string victim : {"snap4", "snap3", "snap2"}) {
        const RunResult deleted = run({"delete", path(victim)});
        ASSERT_EQ(deleted.exitStatus, 0) << deleted.err;
        EXPECT_FALSE(std::filesystem::exists(path(victim)));
        expected.erase(victim);
        for (const auto& [name, image] : expected)
            EXPECT_TRUE(exportImage(name) == image) << name << " after deleting " << victim;
    }
    const RunResult json = run({"snapshots", path("disk"), "--json"});
    EXPECT_EQ(json.exitStatus, 0);
    EXPECT_EQ(countOf(json.out, "\"folder\""), 3u) << json.out;
    const RunResult check = runWithPassword({"check", path("snap1"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out;
}

TEST_F(SnapshotManagementTest, DeleteKilledPartWayLeavesEveryOtherDiskExactAndFinishesWhenRunAgain)
{
    const size_t size = 8 * 1024 * 1024;
    std::mt19937 random(5);
    for (int round = 0; round < 4; ++round) {
        const std::string tag = std::to_string(round);
        createDisk("disk" + tag, "8M");
        const std::string v0 = makeImage(size, 100 + round);
        std::string v1 = v0;
        std::string v2 = v0;
        for (size_t i = 0; i < size; i += 3 * kBrickSize)
            v1[i + 7] ^= 1;
        for (size_t i = kBrickSize; i < size; i += 2 * kBrickSize)
            v2[i + 9] ^= 1;
        writeFile(path("v0"), v0);
        writeFile(path("v1"), v1);
        writeFile(path("v2"), v2);
        importImage("disk" + tag, "v0");
        ASSERT_EQ(run({"snapshot", path("disk" + tag), path("older" + tag)}).exitStatus, 0);
        importImage("disk" + tag, "v1");
        ASSERT_EQ(run({"snapshot", path("disk" + tag), path("newer" + tag)}).exitStatus, 0);
        importImage("disk" + tag, "v2");
        {
            RunningProgram deleting({"delete", path("newer" + tag)}, RunOptions{});
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 15000));
            deleting.kill();
            deleting.wait();
        }
        EXPECT_TRUE(exportImage("disk" + tag) == v2) << "round " << round;
        EXPECT_TRUE(exportImage("older" + tag) == v0) << "round " << round;
        if (std::filesystem::exists(path("newer" + tag))) {
            const RunResult again = run({"delete", path("newer" + tag)});
            EXPECT_EQ(again.exitStatus, 0) << again.err;
        }
        EXPECT_FALSE(std::filesystem::exists(path("newer" + tag)));
        EXPECT_TRUE(exportImage("older" + tag) == v0) << "round " << round;
        importImage("disk" + tag, "v0");
        EXPECT_TRUE(exportImage("older" + tag) == v0) << "round " << round << " after a later import";
    }
}

TEST_F(SnapshotManagementTest, DeleteInterruptedStopsWith130OrFinishesAndEveryOtherDiskStaysExact)
{
    const size_t size = 32 * 1024 * 1024;
    int interrupted = 0;
    for (int round = 0; round < 2; ++round) {
        const std::string tag = std::to_string(round);
        createDisk("disk" + tag, "32M");
        const std::string v0 = makeImage(size, 120 + round);
        const std::string v1 = makeImage(size, 130 + round);
        writeFile(path("v0"), v0);
        writeFile(path("v1"), v1);
        // disk (v1) <- newer (v0, every brick) <- older (v0, through newer):
        // deleting newer copies all its bricks into older.
        importImage("disk" + tag, "v0");
        ASSERT_EQ(run({"snapshot", path("disk" + tag), path("older" + tag)}).exitStatus, 0);
        ASSERT_EQ(run({"snapshot", path("disk" + tag), path("newer" + tag)}).exitStatus, 0);
        importImage("disk" + tag, "v1");

        RunningProgram deleting({"delete", path("newer" + tag)}, RunOptions{});
        // The signal follows the first brick kept in the older snapshot, a
        // little later each round.
        for (int i = 0; i < 5000 && !std::filesystem::exists(path("older" + tag + "/bricks")); ++i)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        std::this_thread::sleep_for(std::chrono::microseconds(round * 500));
        deleting.signal(round % 2 == 0 ? SIGINT : SIGTERM);
        const RunResult result = deleting.wait();
        // A signal that arrives before the program has set up its handlers
        // ends it at once (status -1 here), before it has changed anything.
        if (result.exitStatus == 130 || result.exitStatus == -1) {
            if (result.exitStatus == 130) {
                EXPECT_NE(result.err.find("brickdisk: interrupted"), std::string::npos) << result.err;
                ++interrupted;
            }
            EXPECT_TRUE(exportImage("newer" + tag) == v0) << "round " << round;
        } else {
            EXPECT_EQ(result.exitStatus, 0) << result.err;
            EXPECT_FALSE(std::filesystem::exists(path("newer" + tag))) << "round " << round;
        }
        EXPECT_TRUE(exportImage("disk" + tag) == v1) << "round " << round;
        EXPECT_TRUE(exportImage("older" + tag) == v0) << "round " << round;
    }
    std::cout << "deletes stopped by the signal part-way: " << interrupted << " of 2\n";
}

TEST_F(SnapshotManagementTest, DiffNamesTheBricksThatReadDifferentlyAndDecodesOnlyThose)
{
    createDisk("disk", "1M");
    const std::string v0 = makeImage(1024 * 1024, 111);
    std::string v1 = v0;
    v1[3 * kBrickSize + 5] ^= 1;
    v1[3 * kBrickSize + 6] ^= 1;
    v1[9 * kBrickSize] ^= 1;
    writeFile(path("v0"), v0);
    writeFile(path("v1"), v1);
    importImage("disk", "v0");
    ASSERT_EQ(run({"snapshot", path("disk"), path("monday")}).exitStatus, 0);
    importImage("disk", "v1");

    const RunResult diff = runWithPassword({"diff", path("monday"), path("disk")});
    EXPECT_EQ(diff.exitStatus, 0) << diff.err;
    EXPECT_NE(diff.out.find("brick 3 differs in 2 bytes"), std::string::npos) << diff.out;
    EXPECT_NE(diff.out.find("brick 9 differs in 1 byte\n"), std::string::npos) << diff.out;
    EXPECT_NE(diff.out.find("2 of 16 bricks differ (3 bytes); 2 bricks decoded"), std::string::npos) << diff.out;

    const RunResult same = run({"diff", path("disk"), path("disk"), "--json"});
    EXPECT_EQ(same.exitStatus, 0) << same.err;
    EXPECT_NE(same.out.find("\"bricksDecoded\": 0"), std::string::npos) << same.out;

    createDisk("other", "1M");
    const RunResult unrelated = runWithPassword({"diff", path("disk"), path("other")});
    EXPECT_EQ(unrelated.exitStatus, 1);
    EXPECT_NE(unrelated.err.find("not of one chain"), std::string::npos) << unrelated.err;
}

TEST_F(SnapshotManagementTest, DiffOfABrickThatCannotBeDecodedNamesTheBrickAndItsFile)
{
    createDisk("disk", "1M");
    const std::string v0 = makeImage(1024 * 1024, 112);
    std::string v1 = v0;
    v1[4 * kBrickSize] ^= 1;
    writeFile(path("v0"), v0);
    writeFile(path("v1"), v1);
    importImage("disk", "v0");
    ASSERT_EQ(run({"snapshot", path("disk"), path("monday")}).exitStatus, 0);
    importImage("disk", "v1");
    // The file of the disk's newer brick 4 is damaged in its middle.
    const std::string victim = brickFiles("disk")[4];
    std::string bytes = readFile(victim);
    bytes[bytes.size() / 2] ^= 0x10;
    writeFile(victim, bytes);

    const RunResult diff = runWithPassword({"diff", path("monday"), path("disk")});
    EXPECT_EQ(diff.exitStatus, 1) << diff.out;
    EXPECT_NE(diff.err.find("Cannot read brick 4"), std::string::npos) << diff.err;
    EXPECT_NE(diff.err.find(victim), std::string::npos) << diff.err;
    EXPECT_EQ(diff.out.find("bricks differ"), std::string::npos) << diff.out;
}

TEST_F(SnapshotManagementTest, DeleteRefusesADiskWithoutParent)
{
    createDisk("disk", "1M");
    const RunResult result = run({"delete", path("disk")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("Only a disk with a parent disk can be removed"), std::string::npos) << result.err;
    EXPECT_TRUE(std::filesystem::exists(path("disk/disk.brickdisk")));
}

} // namespace
} // namespace clitest
