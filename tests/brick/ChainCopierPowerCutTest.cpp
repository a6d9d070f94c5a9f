// A copy of a chain stopped at every changing operation of the destination,
// and the power cut at that moment too: the brick files sent are stored
// without a sync of their folders each, so what no sync made durable is lost
// (PowerCutFileSystem). Every disk that opens afterwards reads like its
// source (or, for the snapshots the destination held, as before), and a new
// run finishes the copy.
#include "brick/backup/ChainCopier.h"
#include "brick/chain/BrickDisk.h"
#include "support/BackupTestChain.h"
#include "support/CrashingFileSystem.h"
#include "support/DiskTestHelpers.h"
#include "support/PowerCutFileSystem.h"
#include "support/SweepRounds.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

using brick::CBrickDisk;
using brick::CChainCopier;
using namespace testsupport::backuptest;
using testsupport::Bytes;
using testsupport::PowerCutFileSystem;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;

namespace {

CChainCopier::Summary copy(zo::IFileSystem* source, zo::IFileSystem* destination)
{
    CChainCopier::Options options;
    options.jobs = 2;
    return copyChain(source, destination, options);
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

// Copies from `source` into a copy of `files`, stopped before each changing
// operation in turn (every sweepStep()-th in a sanitized build) with the
// power cut as `loss` says; `check` looks at the
// destination after each stop, then a new run must make `disks` read like
// the source's.
void sweepCopy(CMemoryFileSystem* source, const std::map<std::string, Bytes>& files, PowerCutFileSystem::Loss loss,
               const std::vector<std::string>& disks,
               const std::function<void(CMemoryFileSystem*, const std::string&)>& check)
{
    const std::map<std::string, Bytes> expected = readOpeningDisks(source, "/src", disks);
    ASSERT_EQ(expected.size(), disks.size());
    int operations = 0;
    {
        const P<CMemoryFileSystem> fs = memoryFileSystemWith(files);
        const P<PowerCutFileSystem> power(new PowerCutFileSystem(fs.get()));
        const P<testsupport::CrashingFileSystem> counting(new testsupport::CrashingFileSystem(power.get(), -1));
        copy(source, counting.get());
        operations = counting->getChangeCount();
        EXPECT_EQ(power->getUnsyncedChangeCount(), 0) << "changes left unsynced after the copy";
    }
    ASSERT_GT(operations, 10);
    for (int allowed = 0; allowed < operations; allowed += testsupport::sweepStep()) {
        const std::string context =
            "stopped before changing operation " + std::to_string(allowed + 1) + " of " + std::to_string(operations);
        const P<CMemoryFileSystem> fs = memoryFileSystemWith(files);
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
    changeChain(source.get());

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
