// A snapshot read while its parent is written: one thread rewrites random
// bricks of the parent while others read the snapshot in a loop, and every
// read must equal the snapshot's content from the moment it was taken.
#include "brick/chain/BrickDisk.h"

#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using testsupport::Bytes;
using zo::CURI;
using zo::IIOStream;
using zo::P;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 16;
constexpr int kWrites = 600;
constexpr int kReaders = 3;
const char* const kPassword = "snap";

Bytes brickAt(CBrickDisk& disk, int index)
{
    return testsupport::readAt(disk, static_cast<zo::int64>(index) * kBrickSize, kBrickSize);
}

// Runs the writer and the readers on `fs`; returns how many snapshot bricks
// the readers compared.
int runWriterAndReaders(zo::IFileSystem* fs, const CURI& diskFolder, const CURI& snapshotFolder)
{
    testsupport::createDisk(fs, diskFolder, static_cast<zo::int64>(kBrickSize) * kBrickCount, kPassword);
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs, diskFolder, kPassword);
        // Data in every other brick, so that the snapshot also reads zeros
        // that the writer then fills.
        for (int i = 0; i < kBrickCount; i += 2)
            testsupport::writeAt(*disk, static_cast<zo::int64>(i) * kBrickSize,
                                 testsupport::patternBytes(kBrickSize, static_cast<unsigned>(i)));
        disk->flushChanges();
    }
    CBrickDisk::createChild(fs, snapshotFolder, diskFolder, CBrickDisk::linkedChild);
    std::vector<Bytes> frozen;
    {
        const P<CBrickDisk> snapshot = testsupport::openDisk(fs, snapshotFolder, kPassword, IIOStream::AccessRead);
        for (int i = 0; i < kBrickCount; ++i)
            frozen.push_back(brickAt(*snapshot, i));
    }

    std::atomic<bool> writing{true};
    std::atomic<int> compared{0};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&, r] {
            std::mt19937 random(static_cast<unsigned>(100 + r));
            // The first pass runs even if the writer is done already.
            bool first = true;
            while (first || writing.load()) {
                first = false;
                const P<CBrickDisk> snapshot =
                    testsupport::openDisk(fs, snapshotFolder, kPassword, IIOStream::AccessRead);
                for (int n = 0; n < 2 * kBrickCount; ++n) {
                    const int index = static_cast<int>(random() % kBrickCount);
                    if (!(brickAt(*snapshot, index) == frozen[static_cast<size_t>(index)]))
                        ++mismatches;
                    ++compared;
                }
            }
        });
    }
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs, diskFolder, kPassword, IIOStream::AccessReadWrite, 4);
        std::mt19937 random(7);
        for (int n = 0; n < kWrites; ++n) {
            const int index = static_cast<int>(random() % kBrickCount);
            const bool whole = random() % 2 == 0;
            const Bytes bytes =
                testsupport::patternBytes(whole ? kBrickSize : kBrickSize / 4, 1000u + static_cast<unsigned>(n));
            testsupport::writeAt(*disk, static_cast<zo::int64>(index) * kBrickSize + (whole ? 0 : kBrickSize / 2),
                                 bytes);
        }
        disk->flushChanges();
        EXPECT_TRUE(disk->getBackgroundErrorList().empty());
    }
    writing = false;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(mismatches.load(), 0) << "of " << compared.load() << " snapshot bricks read";
    return compared.load();
}

TEST(SnapshotReadWhileWriting, EveryReadOfTheSnapshotEqualsItsFrozenContentInMemory)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(3));
    // Operations that complete in another order than they were started
    // widen the windows between a writer's steps.
    fs->setCompletionDelay(0, 2);
    EXPECT_GT(runWriterAndReaders(fs.get(), CURI("/disk"), CURI("/snapshot")), 0);
}

TEST(SnapshotReadWhileWriting, EveryReadOfTheSnapshotEqualsItsFrozenContentOnLocalFiles)
{
    testsupport::TempFolder temp;
    const P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(4));
    fs->setSyncEnabled(false);
    EXPECT_GT(runWriterAndReaders(fs.get(), temp.uri() << "disk", temp.uri() << "snapshot"), 0);
}

} // namespace
