// A copy of a chain stopped at every changing operation of the destination,
// and the power cut at that moment too: the brick files sent are stored
// without a sync of their folders each, so what no sync made durable is lost
// (PowerCutFileSystem). Every disk that opens afterwards reads like its
// source (or, for the snapshots the destination held, as before), and a new
// run finishes the copy.
#include "brick/backup/ChainCopier.h"
#include "brick/chain/BrickDisk.h"
#include "support/CrashingFileSystem.h"
#include "support/DiskTestHelpers.h"
#include "support/PowerCutFileSystem.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

using brick::CBrickDisk;
using brick::CChainCopier;
using testsupport::Bytes;
using testsupport::PowerCutFileSystem;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;

namespace {

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr zo::int64 kDiskSize = 8 * kBrickSize;
const char* const kPassword = "pw";

void writeBricks(zo::IFileSystem* fs, const std::vector<int>& indexes, unsigned seed)
{
    const P<CBrickDisk> disk = testsupport::openDisk(fs, CURI("/src/disk"), kPassword);
    for (int index : indexes)
        testsupport::writeAt(*disk, static_cast<zo::int64>(index) * kBrickSize,
                             testsupport::patternBytes(kBrickSize, seed + static_cast<unsigned>(index)));
}

// The chain /src/disk, /src/snaps/s1, /src/snaps/s0 (oldest).
void makeChain(zo::IFileSystem* fs)
{
    testsupport::createDisk(fs, CURI("/src/disk"), kDiskSize, kPassword);
    writeBricks(fs, {0, 1, 2, 3}, 10);
    testsupport::createLinkedChild(fs, CURI("/src/snaps/s0"), CURI("/src/disk"), kPassword);
    writeBricks(fs, {1, 4}, 20);
    testsupport::createLinkedChild(fs, CURI("/src/snaps/s1"), CURI("/src/disk"), kPassword);
    writeBricks(fs, {2, 5, 1}, 30);
}

CChainCopier::Summary copy(zo::IFileSystem* source, zo::IFileSystem* destination)
{
    CChainCopier::Options options;
    options.jobs = 2;
    return CChainCopier::copy(source, CURI("/src/disk"), destination, CURI("/dst/disk"), options);
}

// The disks of `folders` below `root` that open, each read whole; a disk
// that is refused (cut short in the making) is left out.
std::map<std::string, Bytes> readOpeningDisks(zo::IFileSystem* fs, const std::string& root,
                                              const std::vector<std::string>& folders)
{
    std::map<std::string, Bytes> contents;
    for (const std::string& folder : folders) {
        P<CBrickDisk> disk;
        try {
            disk = testsupport::openDisk(fs, CURI(root + folder), kPassword, zo::IIOStream::AccessRead);
        } catch (const zo::CError&) {
            continue;
        }
        contents[folder] = testsupport::readWholeDisk(*disk);
    }
    return contents;
}

const std::vector<std::string> kFirstDisks{"/disk", "/snaps/s1", "/snaps/s0"};
const std::vector<std::string> kSecondDisks{"/disk", "/snaps/s2", "/snaps/s1", "/snaps/s0"};

// Copies from `source` into a copy of `files`, stopped before each changing
// operation in turn with the power cut as `loss` says; `check` looks at the
// destination after each stop, then a new run must make `disks` read like
// the source's.
void sweepCopy(CMemoryFileSystem* source, const std::map<std::string, Bytes>& files, PowerCutFileSystem::Loss loss,
               const std::vector<std::string>& disks,
               const std::function<void(CMemoryFileSystem*, const std::string&)>& check)
{
    const std::map<std::string, Bytes> expected = readOpeningDisks(source, "/src", disks);
    ASSERT_EQ(expected.size(), disks.size());
    const auto makeDestination = [&] {
        const P<CMemoryFileSystem> fs(new CMemoryFileSystem());
        for (const auto& [path, bytes] : files)
            fs->setFileData(CURI("/" + path), bytes);
        return fs;
    };
    int operations = 0;
    {
        const P<CMemoryFileSystem> fs = makeDestination();
        const P<PowerCutFileSystem> power(new PowerCutFileSystem(fs.get()));
        const P<testsupport::CrashingFileSystem> counting(new testsupport::CrashingFileSystem(power.get(), -1));
        copy(source, counting.get());
        operations = counting->getChangeCount();
        EXPECT_EQ(power->getUnsyncedChangeCount(), 0) << "changes left unsynced after the copy";
    }
    ASSERT_GT(operations, 10);
    for (int allowed = 0; allowed < operations; ++allowed) {
        const std::string context =
            "stopped before changing operation " + std::to_string(allowed + 1) + " of " + std::to_string(operations);
        const P<CMemoryFileSystem> fs = makeDestination();
        {
            const P<PowerCutFileSystem> power(new PowerCutFileSystem(fs.get()));
            {
                const P<testsupport::CrashingFileSystem> crashing(
                    new testsupport::CrashingFileSystem(power.get(), allowed));
                try {
                    copy(source, crashing.get());
                } catch (const zo::CError&) {
                    // The stop ends the copy wherever it is; a stop in the
                    // last removals of a creating mark's copies may pass.
                }
            }
            fs->waitUntilIdle();
            power->cutPower(loss);
        }
        check(fs.get(), context);
        EXPECT_NO_THROW(copy(source, fs.get())) << context;
        EXPECT_EQ(readOpeningDisks(fs.get(), "/dst", disks), expected) << context << " and running again";
        if (::testing::Test::HasFailure())
            return;
    }
}

TEST(ChainCopierPowerCut, FirstCopyLeavesNoDiskThatLacksABrickFileAndARunFinishesIt)
{
    const P<CMemoryFileSystem> source(new CMemoryFileSystem());
    makeChain(source.get());
    const std::map<std::string, Bytes> expected = readOpeningDisks(source.get(), "/src", kFirstDisks);
    for (const PowerCutFileSystem::Loss loss :
         {PowerCutFileSystem::Loss::Everything, PowerCutFileSystem::Loss::NewFolders}) {
        // A disk that opens is whole; the others are refused as cut short.
        sweepCopy(source.get(), {}, loss, kFirstDisks, [&](CMemoryFileSystem* fs, const std::string& context) {
            for (const auto& [disk, bytes] : readOpeningDisks(fs, "/dst", kFirstDisks))
                EXPECT_EQ(bytes, expected.at(disk)) << disk << " " << context;
        });
        if (HasFailure())
            return;
    }
}

TEST(ChainCopierPowerCut, SecondCopyKeepsTheSnapshotsReadingAsBeforeAndARunFinishesIt)
{
    const P<CMemoryFileSystem> source(new CMemoryFileSystem());
    const P<CMemoryFileSystem> pristine(new CMemoryFileSystem());
    makeChain(source.get());
    copy(source.get(), pristine.get());
    const std::vector<std::string> snapshots{"/snaps/s1", "/snaps/s0"};
    const std::map<std::string, Bytes> before = readOpeningDisks(pristine.get(), "/dst", snapshots);
    ASSERT_EQ(before.size(), 2u);
    const std::map<std::string, Bytes> files = testsupport::fileContentsBelow(pristine.get(), CURI("/"));
    writeBricks(source.get(), {0, 6}, 40);
    testsupport::createLinkedChild(source.get(), CURI("/src/snaps/s2"), CURI("/src/disk"), kPassword);
    writeBricks(source.get(), {0, 2, 7}, 50);

    for (const PowerCutFileSystem::Loss loss :
         {PowerCutFileSystem::Loss::Everything, PowerCutFileSystem::Loss::NewFolders}) {
        sweepCopy(source.get(), files, loss, kSecondDisks, [&](CMemoryFileSystem* fs, const std::string& context) {
            EXPECT_EQ(readOpeningDisks(fs, "/dst", snapshots), before) << context;
        });
        if (HasFailure())
            return;
    }
}

} // namespace
