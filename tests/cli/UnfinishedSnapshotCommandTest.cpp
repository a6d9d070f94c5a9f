// Snapshots whose making or deletion was cut short, as a user meets them: the
// library is stopped at every step of making or deleting a snapshot (a file
// system that crashes on purpose), and the program is then run on what the
// stop left: such a snapshot never exports with part of its view, and running
// the same snapshot or delete command again finishes the work, with every
// other disk exact.
#include "CliTestFixture.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskRemover.h"
#include "support/CrashingFileSystem.h"
#include "support/SweepRounds.h"
#include "zo/LocalFileSystem.h"

#include <filesystem>
#include <functional>

namespace clitest {
namespace {

class UnfinishedSnapshotTest : public CliTest {
protected:
    // Runs `work` on the test's folder through a file system that crashes
    // before its changing operation number `cut` + 1; true when it crashed.
    static bool runCutShort(int cut, const std::function<void(zo::IFileSystem*)>& work)
    {
        const zo::P<zo::CLocalFileSystem> local(new zo::CLocalFileSystem(2));
        const zo::P<testsupport::CrashingFileSystem> crashing(new testsupport::CrashingFileSystem(local.get(), cut));
        try {
            work(crashing.get());
        } catch (const std::exception&) {
            // The crash stops the work wherever it is.
        }
        return crashing->hasCrashed();
    }

    zo::CURI uri(const std::string& name) const { return m_folder.uri() << zo::String(name); }

    // True when a file lies anywhere below the folder (a removal may leave
    // empty folders behind for its caller).
    bool holdsFiles(const std::string& name) const
    {
        if (!std::filesystem::exists(path(name)))
            return false;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path(name))) {
            if (!entry.is_directory())
                return true;
        }
        return false;
    }

    // The files below a folder, for failure messages.
    std::string listing(const std::string& name) const
    {
        std::string files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path(name)))
            files += entry.path().string() + " ";
        return files;
    }

    // disk<tag> holding `images[1]` with the snapshot older<tag> holding `images[0]`.
    void makeDiskWithSnapshot(const std::string& tag, const std::vector<std::string>& images) const
    {
        createDisk("disk" + tag, "1M");
        writeFile(path("image"), images[0]);
        importImage("disk" + tag, "image");
        ASSERT_EQ(run({"snapshot", path("disk" + tag), path("older" + tag)}).exitStatus, 0);
        writeFile(path("image"), images[1]);
        importImage("disk" + tag, "image");
    }

    void importInto(const std::string& disk, const std::string& image) const
    {
        writeFile(path("image"), image);
        importImage(disk, "image");
    }
};

// Three versions of a 1 MiB image, each changing a byte in every third brick.
std::vector<std::string> threeImages()
{
    std::vector<std::string> images{makeImage(1024 * 1024, 60)};
    for (size_t version = 1; version < 3; ++version) {
        std::string next = images.back();
        for (size_t at = version * 1000; at < next.size(); at += 3 * 64 * 1024)
            next[at] = static_cast<char>(next[at] ^ 0x5a);
        images.push_back(next);
    }
    return images;
}

TEST_F(UnfinishedSnapshotTest, ASnapshotCutShortIsRefusedAndFinishedBySnapshotAgainOrRemovedByDelete)
{
    const std::vector<std::string> images = threeImages();
    bool crashed = true;
    for (int cut = 0; crashed; cut += testsupport::sweepStep()) {
        const std::string tag = std::to_string(cut);
        const std::string disk = "disk" + tag;
        const std::string newer = "newer" + tag;
        makeDiskWithSnapshot(tag, images);
        crashed = runCutShort(cut, [&](zo::IFileSystem* fs) {
            brick::CBrickDisk::createChild(fs, uri(newer), uri(disk), brick::CBrickDisk::linkedChild);
        });
        const std::string context = "the snapshot cut before change " + std::to_string(cut + 1);
        const RunResult exported = runWithPassword({"export", path(newer), path("out")});
        if (!crashed) {
            EXPECT_EQ(exported.exitStatus, 0) << exported.err;
        } else if (holdsFiles(newer)) {
            EXPECT_EQ(exported.exitStatus, 1) << context;
            EXPECT_NE(exported.err.find("unfinished snapshot"), std::string::npos) << context << ": " << exported.err;
            EXPECT_NE(exported.err.find("brickdisk snapshot " + path(disk) + " " + path(newer)), std::string::npos)
                << exported.err;
        }
        if (!crashed || cut % 2 == 0) {
            // Finished by the same command.
            if (crashed) {
                const RunResult again = run({"snapshot", path(disk), path(newer)});
                ASSERT_EQ(again.exitStatus, 0) << context << ": " << again.err;
            }
            EXPECT_TRUE(exportImage(newer) == images[1]) << context;
            importInto(disk, images[2]);
            EXPECT_TRUE(exportImage(newer) == images[1]) << context << " and a later import";
        } else {
            // Or removed by delete.
            if (holdsFiles(newer)) {
                const RunResult deleted = run({"delete", path(newer)});
                ASSERT_EQ(deleted.exitStatus, 0) << context << ": " << deleted.err;
            }
            EXPECT_FALSE(holdsFiles(newer)) << context << ": " << listing(newer);
            importInto(disk, images[2]);
        }
        EXPECT_TRUE(exportImage("older" + tag) == images[0]) << context;
        EXPECT_TRUE(exportImage(disk) == images[2]) << context;
        if (::testing::Test::HasFailure())
            break;
    }
}

TEST_F(UnfinishedSnapshotTest, ADeleteCutShortNeverExportsPartOfTheSnapshotAndFinishesWhenRunAgain)
{
    const std::vector<std::string> images = threeImages();
    bool crashed = true;
    for (int cut = 0; crashed; cut += testsupport::sweepStep()) {
        const std::string tag = std::to_string(cut);
        const std::string disk = "disk" + tag;
        const std::string newer = "newer" + tag;
        makeDiskWithSnapshot(tag, images);
        ASSERT_EQ(run({"snapshot", path(disk), path(newer)}).exitStatus, 0);
        importInto(disk, images[2]);
        crashed = runCutShort(cut, [&](zo::IFileSystem* fs) { brick::CBrickDiskRemover::remove(fs, uri(newer)); });
        const std::string context = "the delete cut before change " + std::to_string(cut + 1);
        // The disk moves on after the cut: a snapshot that still exports must
        // show its own view, whole.
        importInto(disk, images[0]);
        if (crashed && holdsFiles(newer)) {
            const RunResult exported = runWithPassword({"export", path(newer), path("out")});
            if (exported.exitStatus == 0)
                EXPECT_TRUE(readFile(path("out")) == images[1]) << context;
            else
                EXPECT_NE(exported.err.find("deletion was cut short"), std::string::npos)
                    << context << ": " << exported.err;
            const RunResult deleted = run({"delete", path(newer)});
            ASSERT_EQ(deleted.exitStatus, 0) << context << ": " << deleted.err;
        }
        EXPECT_FALSE(holdsFiles(newer)) << context << ": " << listing(newer);
        EXPECT_TRUE(exportImage("older" + tag) == images[0]) << context;
        EXPECT_TRUE(exportImage(disk) == images[0]) << context;
        if (::testing::Test::HasFailure())
            break;
    }
}

} // namespace
} // namespace clitest
