// copy as a backup that leaves the machine: a chain of five snapshots copied
// folder to folder and read back byte for byte, copies killed at random
// moments that leave every disk already in the destination reading as before
// and are finished by the next run, and a damaged brick file of the source,
// which the copy never turns into one that reads as good.
#include "CliTestFixture.h"
#include "support/SweepRounds.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace clitest {
namespace {

constexpr size_t kDiskBytes = 2 * 1024 * 1024;
// The brick size of the disks the fixture creates.
constexpr size_t kBrickBytes = 64 * 1024;

// `image` with a few of its bricks rewritten and one cleared, chosen by `round`.
std::string nextImage(const std::string& image, unsigned round)
{
    std::string next = image;
    const std::string fresh = makeImage(image.size(), 100 + round);
    const size_t bricks = image.size() / kBrickBytes;
    for (size_t i = 0; i < bricks; ++i) {
        if ((i * 7 + round) % 5 == 0)
            next.replace(i * kBrickBytes, kBrickBytes, fresh.substr(i * kBrickBytes, kBrickBytes));
    }
    next.replace((round % bricks) * kBrickBytes, kBrickBytes, std::string(kBrickBytes, '\0'));
    return next;
}

class BackupCopyCommandTest : public CliTest {
protected:
    // The disk src/disk and its snapshots src/snaps/s1 (oldest) to
    // src/snaps/s5, each reading another image; `images` holds what each of
    // them reads, by its path below src.
    void makeChain()
    {
        createDisk("src/disk", "2M", cheapKeyWrappedDiskArgs());
        std::string image = makeImage(kDiskBytes, 1);
        for (unsigned i = 1; i <= 5; ++i) {
            importNext(image);
            const std::string snapshot = "snaps/s" + std::to_string(i);
            ASSERT_EQ(runWithPassword({"snapshot", path("src/disk"), path("src/" + snapshot)}).exitStatus, 0);
            images[snapshot] = image;
            image = nextImage(image, i);
        }
        importNext(image);
    }

    // Imports `image` into the source's top disk.
    void importNext(const std::string& image)
    {
        writeFile(path("next.img"), image);
        importImage("src/disk", "next.img");
        images["disk"] = image;
    }

    // What `disk` (a path below the test's folder) reads, or nothing when it
    // cannot be exported.
    std::optional<std::string> tryExport(const std::string& disk) const
    {
        const std::string image = path("exported.img");
        std::filesystem::remove(image);
        if (runWithPassword({"export", path(disk), image}).exitStatus != 0)
            return std::nullopt;
        return readFile(image);
    }

    std::map<std::string, std::string> images;
};

TEST_F(BackupCopyCommandTest, ChainOfFiveSnapshotsCopiedFolderToFolderExportsExactly)
{
    makeChain();
    for (const auto& [disk, image] : images)
        ASSERT_TRUE(exportImage("src/" + disk) == image) << disk;

    const RunResult copied = run({"copy", path("src/disk"), path("backup/disk"), "--json"});

    ASSERT_EQ(copied.exitStatus, 0) << copied.err;
    EXPECT_EQ(countOf(copied.out, path("backup/")), 6u + 1u) << copied.out;
    EXPECT_EQ(images.size(), 6u);
    for (const auto& [disk, image] : images) {
        EXPECT_TRUE(exportImage("backup/" + disk) == image) << disk;
        const RunResult check = runWithPassword({"check", path("backup/" + disk), "--read-data"});
        EXPECT_EQ(check.exitStatus, 0) << disk << ": " << check.out << check.err;
    }
}

TEST_F(BackupCopyCommandTest, CopyKilledAtRandomMomentsKeepsTheDestinationsDisksAndARunFinishesIt)
{
    // The seed can be given to repeat a run that failed.
    const char* seedVariable = std::getenv("BRICKDISK_TEST_SEED");
    const unsigned seed = seedVariable ? static_cast<unsigned>(std::strtoul(seedVariable, nullptr, 10)) : 2026;
    std::cout << "kill moments drawn with seed " << seed << " (BRICKDISK_TEST_SEED)\n";
    std::mt19937 random(seed);
    makeChain();

    // How long an uninterrupted first copy takes here: the kills are drawn
    // within it, so that they land before, during and after the sending.
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(run({"copy", path("src/disk"), path("measure/disk"), "--jobs", "1"}).exitStatus, 0);
    const auto span = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started);

    // What each disk of the destination reads, by its path below it.
    std::map<std::string, std::string> held;
    int killedWhileRunning = 0;
    const int rounds = testsupport::sweepRounds(20);
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        const std::string context = "seed " + std::to_string(seed) + ", kill " + std::to_string(round + 1);
        if (round > 0) {
            // Every third round a new snapshot, every round new writes.
            if (round % 3 == 0) {
                const std::string snapshot = "snaps/r" + std::to_string(round);
                const RunResult made = runWithPassword({"snapshot", path("src/disk"), path("src/" + snapshot)});
                ASSERT_EQ(made.exitStatus, 0) << context << ": " << made.err;
                images[snapshot] = images["disk"];
            }
            importNext(nextImage(images["disk"], 10 + round));
        }
        {
            RunningProgram copying({"copy", path("src/disk"), path("backup/disk"), "--jobs", "1"}, RunOptions{});
            std::this_thread::sleep_for(std::chrono::microseconds(random() % (span.count() + 1)));
            copying.kill();
            killedWhileRunning += copying.wait().exitStatus == -1 ? 1 : 0;
        }

        // The snapshots that were there read as before; the top's bricks are
        // replaced one by one, each reads its old or its new bytes.
        for (const auto& [disk, image] : held) {
            const std::optional<std::string> now = tryExport("backup/" + disk);
            ASSERT_TRUE(now) << context << ": " << disk << " no longer exports";
            if (disk != "disk") {
                EXPECT_TRUE(*now == image) << context << ": " << disk << " reads other bytes";
                continue;
            }
            ASSERT_EQ(now->size(), kDiskBytes) << context;
            for (size_t at = 0; at < kDiskBytes; at += kBrickSize) {
                const std::string brick = now->substr(at, kBrickSize);
                EXPECT_TRUE(brick == image.substr(at, kBrickSize) || brick == images["disk"].substr(at, kBrickSize))
                    << context << ": the top's brick at " << at << " holds neither its old nor its new bytes";
            }
        }
        // A disk the copy was making is refused until it is whole.
        for (const auto& [disk, image] : images) {
            if (held.count(disk) != 0)
                continue;
            const std::optional<std::string> now = tryExport("backup/" + disk);
            EXPECT_TRUE(!now || *now == image) << context << ": " << disk << " opens with other bytes";
        }

        const RunResult finished = run({"copy", path("src/disk"), path("backup/disk"), "--json"});
        ASSERT_EQ(finished.exitStatus, 0) << context << ": " << finished.err;
        for (const auto& [disk, image] : images)
            EXPECT_TRUE(exportImage("backup/" + disk) == image) << context << ": " << disk;
        held = images;
    }
    std::cout << killedWhileRunning << " of " << rounds << " kills stopped the copy while it ran\n";
    // The six disks of the chain, and a snapshot every third round.
    EXPECT_EQ(held.size(), 6u + static_cast<size_t>((rounds - 1) / 3));
}

TEST_F(BackupCopyCommandTest, DamagedSourceBrickNeverReadsAsGoodFromTheCopy)
{
    // Plain SHA-256 digests: the damage shows without the key.
    createDisk("src/disk", "2M");
    writeFile(path("a.img"), makeImage(kDiskBytes, 7));
    importImage("src/disk", "a.img");
    const std::vector<std::string> bricks = brickFiles("src/disk");
    ASSERT_GT(bricks.size(), 4u);
    const std::string damaged = bricks[bricks.size() / 2];
    std::string bytes = readFile(damaged);
    bytes[bytes.size() / 2] ^= 0x20;
    writeFile(damaged, bytes);
    const std::string copy = path("backup/disk") + damaged.substr(path("src/disk").size());

    // The copy takes brick files as stored, without the key; the damaged
    // file keeps the digest that gives it away. The copy checks that digest
    // (plain SHA-256 needs no key), names the file and fails at the end.
    const RunResult copied = run({"copy", path("src/disk"), path("backup/disk"), "--verify", "--json"});
    EXPECT_EQ(copied.exitStatus, 1) << copied.out << copied.err;
    EXPECT_NE(copied.err.find("damaged brick file copied as it is (its digest does not match its bytes): " + damaged),
              std::string::npos)
        << copied.err;
    const size_t damagedList = copied.out.find("\"damagedFiles\": [");
    ASSERT_NE(damagedList, std::string::npos) << copied.out;
    EXPECT_NE(copied.out.find("\"" + damaged + "\"", damagedList), std::string::npos) << copied.out;
    EXPECT_EQ(readFile(copy), bytes);
    // Only the damaged file is named.
    EXPECT_EQ(copied.err.find("damaged brick file", copied.err.find("damaged brick file") + 1), std::string::npos)
        << copied.err;

    const RunResult check = runWithPassword({"check", path("backup/disk"), "--read-data"});
    EXPECT_EQ(check.exitStatus, 1) << check.out << check.err;
    EXPECT_NE(check.out.find("(" + copy + "): damaged: its outer digest does not match its content"), std::string::npos)
        << check.out;
    const RunResult exported = runWithPassword({"export", path("backup/disk"), path("out.img")});
    EXPECT_EQ(exported.exitStatus, 1) << exported.err;
    EXPECT_NE(exported.err.find("brickFile: " + copy), std::string::npos) << exported.err;
    EXPECT_NE(exported.err.find("Brick file is corrupted."), std::string::npos) << exported.err;
}

} // namespace
} // namespace clitest
