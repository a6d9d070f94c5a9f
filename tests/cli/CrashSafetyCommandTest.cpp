// What a killed import, two programs at once and a snapshot on another file
// system do to disks, tried as a user would.
#include "CliTestFixture.h"
#include "support/SweepRounds.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

namespace clitest {
namespace {

class CrashSafetyCommandTest : public CliTest {
protected:
    // Starts an import of `image` through standard input, feeds `fed` bytes
    // of it and waits until the brick files of `watched` (the disk, or its
    // snapshot that receives the old bricks) change, so the import holds its
    // lock; the caller feeds the rest or kills it.
    std::unique_ptr<RunningProgram> startImport(const std::string& disk, const std::string& image, size_t fed,
                                                const std::string& watched = "")
    {
        const std::string folder = watched.empty() ? disk : watched;
        auto import = std::make_unique<RunningProgram>(
            std::vector<std::string>{"import", path(disk), "-", "--password-file", path("pw")}, RunOptions{});
        const std::vector<std::string> before = brickFiles(folder);
        EXPECT_TRUE(import->feed(image.substr(0, fed)));
        for (int i = 0; i < 400 && brickFiles(folder) == before; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        EXPECT_NE(brickFiles(folder), before) << "the import stored no brick";
        return import;
    }

    // The brick of `image` at `index`.
    static std::string brickOf(const std::string& image, size_t index)
    {
        return image.substr(index * kBrickSize, kBrickSize);
    }
};

// An image with every third brick of `brickSize` rewritten, every fifth
// cleared and the rest as in `image`.
std::string changedImage(const std::string& image, unsigned seed, size_t brickSize)
{
    std::string changed = image;
    const std::string fresh = makeImage(image.size(), seed);
    for (size_t i = 0; i < image.size() / brickSize; ++i) {
        if (i % 5 == 0)
            changed.replace(i * brickSize, brickSize, std::string(brickSize, '\0'));
        else if (i % 3 == 0)
            changed.replace(i * brickSize, brickSize, fresh.substr(i * brickSize, brickSize));
    }
    return changed;
}

TEST_F(CrashSafetyCommandTest, ImportKilledAtRandomMomentsLeavesEveryBrickOldOrNewAndTheSnapshotExact)
{
    const size_t size = 4 * 1024 * 1024;
    createDisk("disk", "4M");
    const std::string old = makeImage(size, 31);
    const std::string fresh = changedImage(old, 32, kBrickSize);
    writeFile(path("old"), old);
    importImage("disk", "old");
    ASSERT_EQ(run({"snapshot", path("disk"), path("snapshot")}).exitStatus, 0);

    std::mt19937 random(2026);
    const size_t bricks = size / kBrickSize;
    for (int round = 0; round < testsupport::sweepRounds(20); ++round) {
        const std::string context = "kill " + std::to_string(round + 1);
        {
            RunningProgram import({"import", path("disk"), "-", "--password-file", path("pw")}, RunOptions{});
            // The image in pieces, with the kill after a random one of them
            // and a random pause, so it hits reading, preparing and storing.
            const size_t pieces = 1 + random() % 16;
            const size_t pieceSize = size / 16;
            for (size_t piece = 0; piece < pieces; ++piece)
                import.feed(fresh.substr(piece * pieceSize, pieceSize));
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 60));
            import.kill();
            import.wait();
        }
        const RunResult checkDisk = runWithPassword({"check", path("disk"), "--read-data"});
        EXPECT_EQ(checkDisk.exitStatus, 0) << context << ": " << checkDisk.out << checkDisk.err;
        const RunResult checkSnapshot = runWithPassword({"check", path("snapshot"), "--read-data"});
        EXPECT_EQ(checkSnapshot.exitStatus, 0) << context << ": " << checkSnapshot.out << checkSnapshot.err;
        EXPECT_TRUE(exportImage("snapshot") == old) << context;
        const std::string disk = exportImage("disk");
        ASSERT_EQ(disk.size(), size) << context;
        for (size_t i = 0; i < bricks; ++i) {
            const std::string brick = brickOf(disk, i);
            EXPECT_TRUE(brick == brickOf(old, i) || brick == brickOf(fresh, i))
                << context << ": brick " << i << " holds neither its old nor its new content";
        }
        if (HasFailure())
            break;
    }
    writeFile(path("fresh"), fresh);
    importImage("disk", "fresh");
    EXPECT_TRUE(exportImage("disk") == fresh);
    EXPECT_TRUE(exportImage("snapshot") == old);
}

TEST_F(CrashSafetyCommandTest, SecondImportIntoADiskInUseFailsAtOnceAndWritesNothing)
{
    createDisk("disk", "4M");
    const std::string first = makeImage(4 * 1024 * 1024, 41);
    const std::string second = makeImage(4 * 1024 * 1024, 42);
    writeFile(path("second"), second);

    std::unique_ptr<RunningProgram> import = startImport("disk", first, first.size() / 2);
    const auto started = std::chrono::steady_clock::now();
    const RunResult refused = runWithPassword({"import", path("disk"), path("second")});
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("The disk is in use by another process."), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("holder: process "), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find(path("disk")), std::string::npos) << refused.err;

    import->feed(first.substr(first.size() / 2));
    import->closeInput();
    EXPECT_EQ(import->wait().exitStatus, 0);
    EXPECT_TRUE(exportImage("disk") == first);
}

TEST_F(CrashSafetyCommandTest, ExportOfADiskBeingImportedIsRefusedUnlessForceShareIsGiven)
{
    createDisk("disk", "4M");
    const std::string image = makeImage(4 * 1024 * 1024, 43);
    std::unique_ptr<RunningProgram> import = startImport("disk", image, image.size() / 2);

    const RunResult refused = runWithPassword({"export", path("disk"), path("out")});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("in use by another process"), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("--force-share"), std::string::npos) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(path("out")));
    const RunResult check = runWithPassword({"check", path("disk")});
    EXPECT_EQ(check.exitStatus, 1);
    EXPECT_NE(check.err.find("in use by another process"), std::string::npos) << check.err;

    const RunResult forced = runWithPassword({"export", path("disk"), path("out"), "--force-share"});
    EXPECT_EQ(forced.exitStatus, 0) << forced.err;
    EXPECT_EQ(std::filesystem::file_size(path("out")), image.size());

    import->feed(image.substr(image.size() / 2));
    import->closeInput();
    EXPECT_EQ(import->wait().exitStatus, 0);
    EXPECT_TRUE(exportImage("disk") == image);
}

TEST_F(CrashSafetyCommandTest, SnapshotCanBeExportedWhileItsParentIsImported)
{
    createDisk("disk", "4M");
    const std::string old = makeImage(4 * 1024 * 1024, 44);
    writeFile(path("old"), old);
    importImage("disk", "old");
    ASSERT_EQ(run({"snapshot", path("disk"), path("snapshot")}).exitStatus, 0);
    const std::string fresh = changedImage(old, 45, kBrickSize);

    std::unique_ptr<RunningProgram> import = startImport("disk", fresh, fresh.size() / 2, "snapshot");
    EXPECT_TRUE(exportImage("snapshot") == old);
    const RunResult refused = runWithPassword({"import", path("snapshot"), path("old"), "--allow-parent"});
    EXPECT_EQ(refused.exitStatus, 1) << "a snapshot was written while its parent was";
    import->feed(fresh.substr(fresh.size() / 2));
    import->closeInput();
    EXPECT_EQ(import->wait().exitStatus, 0);
    EXPECT_TRUE(exportImage("snapshot") == old);
    EXPECT_TRUE(exportImage("disk") == fresh);
}

TEST_F(CrashSafetyCommandTest, SnapshotOnAnotherFileSystemKeepsLaterImportsExact)
{
    struct stat shm {};
    struct stat own {};
    if (::stat("/dev/shm", &shm) != 0 || ::stat(path("").c_str(), &own) != 0 || shm.st_dev == own.st_dev)
        GTEST_SKIP() << "this machine has no second file system (a tmpfs at /dev/shm) for the snapshot";
    char pattern[] = "/dev/shm/brickdisk-snapshot-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::string other = pattern;
    const std::string snapshot = other + "/snapshot";

    createDisk("disk", "4M");
    const std::string old = makeImage(4 * 1024 * 1024, 46);
    writeFile(path("old"), old);
    importImage("disk", "old");
    ASSERT_EQ(run({"snapshot", path("disk"), snapshot}).exitStatus, 0);

    std::string current = old;
    for (unsigned round = 0; round < 2; ++round) {
        current = changedImage(current, 47 + round, kBrickSize);
        writeFile(path("current"), current);
        importImage("disk", "current");
        EXPECT_TRUE(exportImage("disk") == current);
    }
    const RunResult exported = runWithPassword({"export", snapshot, path("snapshot.img")});
    EXPECT_EQ(exported.exitStatus, 0) << exported.err;
    EXPECT_TRUE(readFile(path("snapshot.img")) == old);
    const RunResult check = runWithPassword({"check", snapshot, "--read-data"});
    EXPECT_EQ(check.exitStatus, 0) << check.out << check.err;
    std::filesystem::remove_all(other);
}

} // namespace
} // namespace clitest
