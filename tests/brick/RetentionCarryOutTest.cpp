// Carrying out a retention plan on a chain in memory: the disks it does not
// keep go, the kept ones read exactly as before, also when a file-system
// operation fails at any step of the way, and running it again finishes.
#include "brick/backup/RetentionPlan.h"
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "support/BackupTestChain.h"
#include "support/DiskTestHelpers.h"
#include "support/SweepRounds.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

using brick::CBrickDisk;
using brick::CRetentionPlan;
using testsupport::Bytes;
using testsupport::backuptest::kDiskSize;
using testsupport::backuptest::kPassword;
using testsupport::backuptest::writeBricks;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;

namespace {

constexpr zo::int64 kDay = 86400;
// 2026-05-01 00:00:00 UTC.
constexpr zo::int64 kFirstDay = 1777593600;
const CURI kTop("/disk");

// Takes the snapshot `folder` of /disk, made at `created`.
void takeSnapshot(zo::IFileSystem* fs, const char* folder, zo::int64 created)
{
    CBrickDisk::createChild(fs, CURI(folder), kTop, CBrickDisk::linkedChild);
    brick::CBrickDiskCreationTime::store(fs, CURI(folder), created);
}

// The chain /disk, /s4, /s3, /s2, /s1, /s0 (oldest), each snapshot taken
// after other bricks of the disk changed. s2 and s3 are made on the same day.
void makeChain(zo::IFileSystem* fs)
{
    testsupport::createDisk(fs, kTop, kDiskSize, kPassword);
    writeBricks(fs, kTop, {0, 1, 2, 3}, 10);
    takeSnapshot(fs, "/s0", kFirstDay + 10 * 3600);
    writeBricks(fs, kTop, {1, 4}, 20);
    takeSnapshot(fs, "/s1", kFirstDay + kDay + 10 * 3600);
    writeBricks(fs, kTop, {2, 5}, 30);
    takeSnapshot(fs, "/s2", kFirstDay + 2 * kDay + 10 * 3600);
    writeBricks(fs, kTop, {0, 5, 6}, 40);
    takeSnapshot(fs, "/s3", kFirstDay + 2 * kDay + 12 * 3600);
    writeBricks(fs, kTop, {3, 7}, 50);
    takeSnapshot(fs, "/s4", kFirstDay + 3 * kDay + 10 * 3600);
    writeBricks(fs, kTop, {1, 6}, 60);
}

// Keeps the newest snapshot of each of the last three days: s4, s3 and s1.
CRetentionPlan::Rules threeDays()
{
    CRetentionPlan::Rules rules;
    rules.keepDaily = 3;
    return rules;
}

const std::vector<std::string> kKept{"/disk", "/s4", "/s3", "/s1"};

std::map<std::string, Bytes> readDisks(zo::IFileSystem* fs, const std::vector<std::string>& folders)
{
    return testsupport::backuptest::readDisks(fs, "", folders);
}

std::vector<std::string> chainFolders(zo::IFileSystem* fs)
{
    std::vector<std::string> folders;
    for (const CRetentionPlan::Disk& disk : CRetentionPlan::readChain(fs, CURI("/s1")))
        folders.push_back(disk.folder.toString(true).toUTF8());
    return folders;
}

int forget(zo::IFileSystem* fs)
{
    const std::vector<CRetentionPlan::Decision> plan =
        CRetentionPlan::decide(CRetentionPlan::readChain(fs, CURI("/disk")), threeDays());
    return CRetentionPlan::carryOut(fs, plan);
}

void expectSameBytes(const std::map<std::string, Bytes>& expected, const std::map<std::string, Bytes>& actual,
                     const std::string& context)
{
    for (const auto& [folder, bytes] : expected) {
        ASSERT_EQ(actual.count(folder), 1u) << folder << " " << context;
        EXPECT_TRUE(bytes == actual.at(folder)) << folder << " reads other bytes " << context;
    }
}

TEST(RetentionCarryOut, ReadsTheChainTopFirstWithItsCreationTimes)
{
    const P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    makeChain(fs.get());
    const std::vector<CRetentionPlan::Disk> chain = CRetentionPlan::readChain(fs.get(), CURI("/s2"));
    ASSERT_EQ(chainFolders(fs.get()), (std::vector<std::string>{"/disk", "/s4", "/s3", "/s2", "/s1", "/s0"}));
    EXPECT_EQ(chain[5].created, kFirstDay + 10 * 3600);
    EXPECT_EQ(chain[1].created, kFirstDay + 3 * kDay + 10 * 3600);
    for (const CRetentionPlan::Disk& disk : chain)
        EXPECT_FALSE(disk.unfinished);
}

TEST(RetentionCarryOut, RemovesTheDisksNotKeptAndKeepsWhatTheOthersRead)
{
    const P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    makeChain(fs.get());
    const std::map<std::string, Bytes> before = readDisks(fs.get(), kKept);

    std::vector<std::string> order;
    CRetentionPlan::Hooks hooks;
    hooks.beforeRemoval = [&](const CURI& disk) { order.push_back(disk.toString(true).toUTF8()); };
    const int removed = CRetentionPlan::carryOut(
        fs.get(), CRetentionPlan::decide(CRetentionPlan::readChain(fs.get(), CURI("/disk")), threeDays()), hooks);

    EXPECT_EQ(removed, 2);
    EXPECT_EQ(order, (std::vector<std::string>{"/s0", "/s2"}));
    EXPECT_EQ(chainFolders(fs.get()), kKept);
    EXPECT_TRUE(testsupport::filesBelow(fs.get(), CURI("/s0")).empty());
    EXPECT_TRUE(testsupport::filesBelow(fs.get(), CURI("/s2")).empty());
    expectSameBytes(before, readDisks(fs.get(), kKept), "after the forget");
}

// Every operation of each kind, in turn, fails for good from its nth
// occurrence on; the kept disks must read as before, and a second run (with
// a fresh plan) must finish the job.
TEST(RetentionCarryOut, KeptDisksReadAsBeforeWhereverTheRemovalsStop)
{
    using Operation = CMemoryFileSystem::Operation;
    const P<CMemoryFileSystem> pristine(new CMemoryFileSystem());
    makeChain(pristine.get());
    const std::map<std::string, Bytes> before = readDisks(pristine.get(), kKept);

    const int cutsTried = testsupport::backuptest::sweepFailingOperations(
        {Operation::StoreFile, Operation::MoveFile, Operation::DeleteFile, Operation::DeleteFileSync,
         Operation::CopyFile, Operation::CreateFolder, Operation::OpenStream, Operation::ListFolder},
        testsupport::fileContentsBelow(pristine.get(), CURI("/")), [](CMemoryFileSystem* fs) { forget(fs); },
        [&](CMemoryFileSystem* fs, const std::string& context) {
            expectSameBytes(before, readDisks(fs, kKept), context);
            EXPECT_NO_THROW(forget(fs)) << context;
            EXPECT_EQ(chainFolders(fs), kKept) << context;
            expectSameBytes(before, readDisks(fs, kKept), context + " and running again");
            // No link of a kept disk names a removed one any more; a removal
            // cut short once no link named the disk leaves a marked folder,
            // which `delete` finishes.
            for (const std::string& kept : kKept) {
                for (const zo::String& link :
                     {CBrickDisk::getParentLinkFileName(), CBrickDisk::getChildLinkFileName()}) {
                    const std::string named =
                        brick::CBrickDiskChain::loadLinkedFolder(fs, CURI(kept), link).toString(true).toUTF8();
                    EXPECT_TRUE(named != "/s0" && named != "/s2") << kept << " names " << named << " " << context;
                }
            }
            for (const char* removed : {"/s0", "/s2"}) {
                if (!testsupport::filesBelow(fs, CURI(removed)).empty()) {
                    EXPECT_EQ(CBrickDisk::getCompletion(fs, CURI(removed)), CBrickDisk::RemovalUnfinished)
                        << removed << " " << context;
                }
            }
        });
    // The sweep did cut the work short, many times over.
    // More than 20 cuts, of which a sanitized build takes every third.
    EXPECT_GE(cutsTried, testsupport::sweepCuts(21));
}

} // namespace
