// Copying a chain from one file system to another: every copied disk reads
// like its source and opens with the same password, a second copy sends only
// what changed and adds the new snapshots, a copy stopped at any failing
// operation keeps the destination's snapshots reading as before and a new
// run finishes it, and a destination that is another disk is refused.
#include "brick/backup/ChainCopier.h"
#include "brick/backup/RetentionPlan.h"
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/BrickDiskRemover.h"
#include "brick/format/BrickDiskAuxFileBase.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "seal/KeyDerivation.h"
#include "support/BackupTestChain.h"
#include "support/DiskTestHelpers.h"
#include "support/SweepRounds.h"
#include "support/TempFolder.h"
#include "zo/Error.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

using brick::CBrickDisk;
using brick::CChainCopier;
using namespace testsupport::backuptest;
using testsupport::Bytes;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;

namespace {

std::vector<std::string> chainOf(zo::IFileSystem* fs, const char* top)
{
    std::vector<std::string> folders;
    for (const brick::CRetentionPlan::Disk& disk : brick::CRetentionPlan::readChain(fs, CURI(top)))
        folders.push_back(disk.folder.toString(true).toUTF8());
    return folders;
}

// Brick files below `root` whose bytes `other` does not hold at the same path.
int countDifferingBrickFiles(const std::map<std::string, Bytes>& files, const std::map<std::string, Bytes>& other)
{
    int count = 0;
    for (const auto& [path, bytes] : files) {
        if (path.find("/bricks/") == std::string::npos)
            continue;
        const auto found = other.find(path);
        count += found == other.end() || !(found->second == bytes) ? 1 : 0;
    }
    return count;
}

// The files below "/src" under the names they get below "/dst".
std::map<std::string, Bytes> asDestinationFiles(CMemoryFileSystem* fs)
{
    std::map<std::string, Bytes> files;
    for (const auto& [path, bytes] : testsupport::fileContentsBelow(fs, CURI("/src")))
        files["dst/" + path] = bytes;
    return files;
}

class ChainCopier : public ChainCopyFixture {
protected:
    // The message of the copy's refusal when `occupied` in the destination
    // holds a disk of its own; checks that the destination kept its files.
    std::string refusalWithADiskIn(const char* occupied)
    {
        makeChain(source.get());
        testsupport::createDisk(destination.get(), CURI(occupied), kDiskSize, kPassword);
        const std::map<std::string, Bytes> before = testsupport::fileContentsBelow(destination.get(), CURI("/"));

        const auto refused = testsupport::errorOf<zo::CError>([&] { copyChain(source.get(), destination.get()); });

        EXPECT_EQ(testsupport::fileContentsBelow(destination.get(), CURI("/")), before);
        return refused ? testsupport::messageOf(*refused) : std::string();
    }
};

TEST_F(ChainCopier, CopiesEveryDiskSoEachReadsLikeItsSource)
{
    makeChain(source.get());

    const CChainCopier::Summary summary = copyChain(source.get(), destination.get());

    const std::map<std::string, Bytes> sourceFiles = asDestinationFiles(source.get());
    EXPECT_EQ(summary.filesSent, countDifferingBrickFiles(sourceFiles, {}));
    EXPECT_EQ(summary.filesSkipped, 0);
    EXPECT_EQ(summary.disksMade.size(), 3u);
    EXPECT_EQ(readDisks(destination.get(), "/dst", kFirstDisks), readDisks(source.get(), "/src", kFirstDisks));
    EXPECT_EQ(chainOf(destination.get(), "/dst/disk"),
              (std::vector<std::string>{"/dst/disk", "/dst/snaps/s1", "/dst/snaps/s0"}));
    EXPECT_NO_THROW(brick::CBrickDiskChain(destination.get(), CURI("/dst/snaps/s0")).validate());
    // Byte for byte: every file of the source is in the destination.
    EXPECT_EQ(testsupport::fileContentsBelow(destination.get(), CURI("/dst")),
              testsupport::fileContentsBelow(source.get(), CURI("/src")));
}

TEST_F(ChainCopier, SecondCopySendsOnlyChangedFilesAndAddsTheNewSnapshot)
{
    makeChain(source.get());
    copyChain(source.get(), destination.get());
    changeChain(source.get());
    const int differing = countDifferingBrickFiles(asDestinationFiles(source.get()),
                                                   testsupport::fileContentsBelow(destination.get(), CURI("/")));
    ASSERT_GT(differing, 0);

    const CChainCopier::Summary summary = copyChain(source.get(), destination.get());

    EXPECT_EQ(summary.filesSent, differing);
    EXPECT_GT(summary.filesSkipped, 0);
    ASSERT_EQ(summary.disksMade.size(), 1u);
    EXPECT_EQ(summary.disksMade[0], CURI("/dst/snaps/s2"));
    EXPECT_EQ(readDisks(destination.get(), "/dst", kSecondDisks), readDisks(source.get(), "/src", kSecondDisks));
    EXPECT_EQ(chainOf(destination.get(), "/dst/disk"),
              (std::vector<std::string>{"/dst/disk", "/dst/snaps/s2", "/dst/snaps/s1", "/dst/snaps/s0"}));
    EXPECT_EQ(copyChain(source.get(), destination.get()).filesSent, 0);
}

TEST_F(ChainCopier, CopiesTheNewSnapshotsThatTheDestinationsSnapshotsReadThroughWhateverIsChosen)
{
    makeChain(source.get());
    copyChain(source.get(), destination.get());
    changeChain(source.get());
    CChainCopier::Options options;
    options.snapshots = CChainCopier::SnapshotChoice::None;

    const CChainCopier::Summary summary = copyChain(source.get(), destination.get(), options);

    ASSERT_EQ(summary.disksMade.size(), 1u);
    EXPECT_EQ(summary.disksMade[0], CURI("/dst/snaps/s2"));
    EXPECT_EQ(readDisks(destination.get(), "/dst", kSecondDisks), readDisks(source.get(), "/src", kSecondDisks));
}

TEST_F(ChainCopier, RefusesToUpdateADestinationWhoseNewestSnapshotTheSourceDeleted)
{
    makeChain(source.get());
    copyChain(source.get(), destination.get());
    brick::CBrickDiskRemover::remove(source.get(), CURI("/src/snaps/s1"),
                                     testsupport::diskKey(source.get(), CURI("/src/disk"), kPassword));
    writeBricks(source.get(), kSourceTop, {3, 4}, 60);
    const std::map<std::string, Bytes> before = testsupport::fileContentsBelow(destination.get(), CURI("/"));

    const auto refused = testsupport::errorOf<zo::CError>([&] { copyChain(source.get(), destination.get()); });

    ASSERT_TRUE(refused);
    EXPECT_NE(testsupport::messageOf(*refused).find("/dst/snaps/s1 is no longer in the source chain"),
              std::string::npos);
    EXPECT_EQ(testsupport::fileContentsBelow(destination.get(), CURI("/")), before);
}

TEST_F(ChainCopier, KeepsAnOlderSnapshotTheSourceDeletedAndItsNeighboursReadAsBefore)
{
    makeChain(source.get());
    changeChain(source.get());
    copyChain(source.get(), destination.get());
    const std::map<std::string, Bytes> before = readDisks(destination.get(), "/dst", kSecondDisks);
    brick::CBrickDiskRemover::remove(source.get(), CURI("/src/snaps/s1"),
                                     testsupport::diskKey(source.get(), CURI("/src/disk"), kPassword));
    writeBricks(source.get(), kSourceTop, {3, 4}, 60);

    copyChain(source.get(), destination.get());

    std::map<std::string, Bytes> after = readDisks(destination.get(), "/dst", kSecondDisks);
    EXPECT_EQ(after.at("/snaps/s2"), before.at("/snaps/s2"));
    EXPECT_EQ(after.at("/snaps/s1"), before.at("/snaps/s1"));
    EXPECT_EQ(after.at("/snaps/s0"), before.at("/snaps/s0"));
    EXPECT_EQ(after.at("/disk"), readDisks(source.get(), "/src", {"/disk"}).at("/disk"));
}

TEST_F(ChainCopier, DryRunCountsWhatWouldBeSentAndChangesNothing)
{
    makeChain(source.get());
    CChainCopier::Options options;
    options.dryRun = true;

    const CChainCopier::Summary summary = copyChain(source.get(), destination.get(), options);

    EXPECT_EQ(summary.filesSent, countDifferingBrickFiles(asDestinationFiles(source.get()), {}));
    EXPECT_EQ(summary.disksMade.size(), 3u);
    EXPECT_TRUE(testsupport::filesBelow(destination.get(), CURI("/")).empty());
}

TEST_F(ChainCopier, CopiesOnlyTheNewestSnapshotsThatAreChosen)
{
    makeChain(source.get());
    CChainCopier::Options options;
    options.snapshots = CChainCopier::SnapshotChoice::Listed;
    options.snapshotNames = {"s0"};
    const auto refused = testsupport::errorOf<zo::CError>([&] { copyChain(source.get(), destination.get(), options); });
    ASSERT_TRUE(refused);
    EXPECT_NE(testsupport::messageOf(*refused).find("Only the newest snapshots"), std::string::npos);

    options.snapshotNames = {"s1"};
    copyChain(source.get(), destination.get(), options);
    EXPECT_EQ(chainOf(destination.get(), "/dst/disk"), (std::vector<std::string>{"/dst/disk", "/dst/snaps/s1"}));
    EXPECT_EQ(readDisks(destination.get(), "/dst", {"/disk", "/snaps/s1"}),
              readDisks(source.get(), "/src", {"/disk", "/snaps/s1"}));
    EXPECT_FALSE(destination->folderExists(CURI("/dst/snaps/s0")));
}

TEST_F(ChainCopier, RefusesADestinationThatIsAnotherDisk)
{
    EXPECT_NE(refusalWithADiskIn("/dst/disk").find("The destination holds another disk"), std::string::npos);
}

TEST_F(ChainCopier, RefusesASnapshotFolderThatHoldsAnotherDisk)
{
    EXPECT_NE(refusalWithADiskIn("/dst/snaps/s0").find("/dst/snaps/s0"), std::string::npos);
}

TEST_F(ChainCopier, RefusesSnapshotsThatWouldLandAboveTheStoreRootOrInTheSource)
{
    const P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    makeChain(fs.get());
    testsupport::createDisk(fs.get(), CURI("/deep/top/disk"), kDiskSize, kPassword);
    testsupport::createLinkedChild(fs.get(), CURI("/deep/snap"), CURI("/deep/top/disk"), kPassword);
    // "../../snap" from "/copy" would be above "/".
    const auto above = testsupport::errorOf<zo::CError>(
        [&] { CChainCopier::copy(fs.get(), CURI("/deep/top/disk"), fs.get(), CURI("/copy"), {}); });
    ASSERT_TRUE(above);
    EXPECT_NE(testsupport::messageOf(*above).find("above the root"), std::string::npos);
    EXPECT_FALSE(fs->pathExists(CURI("/snap")));
    // "/src/other" puts the snapshots onto the source's own.
    const auto inside = testsupport::errorOf<zo::CError>(
        [&] { CChainCopier::copy(fs.get(), CURI("/src/disk"), fs.get(), CURI("/src/other"), {}); });
    ASSERT_TRUE(inside);
    EXPECT_NE(testsupport::messageOf(*inside).find("source's disk"), std::string::npos);
    EXPECT_FALSE(fs->pathExists(CURI("/copy")));
    EXPECT_FALSE(fs->pathExists(CURI("/src/other")));
}

// A disk whose snapshot sits beside it ("/disks/vm1" linked to "../snap1")
// copied to the top of a store ("/vm1") puts the snapshot at the top too
// ("/snap1"), which is inside the store.
TEST_F(ChainCopier, PutsASnapshotBesideTheTopAtTheTopOfTheStore)
{
    testsupport::createDisk(source.get(), CURI("/disks/vm1"), kDiskSize, kPassword);
    {
        const P<CBrickDisk> disk = testsupport::openDisk(source.get(), CURI("/disks/vm1"), kPassword);
        testsupport::writeAt(*disk, 0, testsupport::patternBytes(kBrickSize, 1));
    }
    testsupport::createLinkedChild(source.get(), CURI("/disks/snap1"), CURI("/disks/vm1"), kPassword);
    {
        const P<CBrickDisk> disk = testsupport::openDisk(source.get(), CURI("/disks/vm1"), kPassword);
        testsupport::writeAt(*disk, 0, testsupport::patternBytes(kBrickSize, 2));
    }

    CChainCopier::copy(source.get(), CURI("/disks/vm1"), destination.get(), CURI("/vm1"), {});

    EXPECT_EQ(chainOf(destination.get(), "/vm1"), (std::vector<std::string>{"/vm1", "/snap1"}));
    EXPECT_EQ(readDisks(destination.get(), "", {"/vm1", "/snap1"}),
              readDisks(source.get(), "/disks", {"/vm1", "/snap1"}));
}

// A destination named otherwise than the source's top: the snapshots beside
// it link to the copy's top by its new name, their authenticated links still
// open under the key, and a second copy sends only what changed.
TEST_F(ChainCopier, SnapshotsOfATopCopiedUnderAnotherNameLinkToItsNewName)
{
    CBrickDisk::createAuthenticated(source.get(), CURI("/src/disk"), kDiskSize, 1, kPassword, "lz4", kBrickSize,
                                    seal::Argon2idCost{1, 8, 1});
    writeBricks(source.get(), kSourceTop, {0, 1, 2}, 10);
    testsupport::createLinkedChild(source.get(), CURI("/src/disk-s0"), kSourceTop, kPassword);
    writeBricks(source.get(), kSourceTop, {1, 3}, 20);
    const auto copyAsOther = [&] {
        return CChainCopier::copy(source.get(), CURI("/src/disk"), destination.get(), CURI("/dst/other"), {});
    };

    copyAsOther();

    EXPECT_EQ(chainOf(destination.get(), "/dst/other"), (std::vector<std::string>{"/dst/other", "/dst/disk-s0"}));
    EXPECT_EQ(brick::CBrickDiskChain::loadLinkedFolder(destination.get(), CURI("/dst/disk-s0"),
                                                       CBrickDisk::getParentLinkFileName()),
              CURI("/dst/other"));
    EXPECT_FALSE(destination->pathExists(CURI("/dst/disk")));
    EXPECT_NO_THROW(brick::CBrickDiskChain(destination.get(), CURI("/dst/disk-s0")).validate());
    EXPECT_EQ(
        readDisks(destination.get(), "/dst", {"/other", "/disk-s0"}),
        (std::map<std::string, Bytes>{{"/other", readDisks(source.get(), "/src", {"/disk"}).at("/disk")},
                                      {"/disk-s0", readDisks(source.get(), "/src", {"/disk-s0"}).at("/disk-s0")}}));

    writeBricks(source.get(), kSourceTop, {2}, 30);
    const CChainCopier::Summary second = copyAsOther();
    EXPECT_EQ(second.filesSent, 2) << "brick 2 of the top and the snapshot's copy of its old file";
    EXPECT_EQ(second.recordsWritten, 0);
    EXPECT_TRUE(second.disksMade.empty());
    EXPECT_EQ(readDisks(destination.get(), "/dst", {"/disk-s0"}).at("/disk-s0"),
              readDisks(source.get(), "/src", {"/disk-s0"}).at("/disk-s0"));
}

// A copy killed while the local file system stored a record leaves that
// store's temporary file in the disk's folder; the next run removes it
// instead of taking the folder for one that holds other files, and finishes.
TEST_F(ChainCopier, RunAfterAKilledCopyRemovesItsTemporaryFilesAndFinishes)
{
    const testsupport::TempFolder temp;
    const P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(2));
    const CURI top = temp.uri() << "src/disk";
    const CURI snapshot = temp.uri() << "src/snaps/s0";
    testsupport::createDisk(fs.get(), top, kDiskSize, kPassword);
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), top, kPassword);
        testsupport::writeAt(*disk, 0, testsupport::patternBytes(kBrickSize, 1));
    }
    testsupport::createLinkedChild(fs.get(), snapshot, top, kPassword);
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), top, kPassword);
        testsupport::writeAt(*disk, kBrickSize, testsupport::patternBytes(kBrickSize, 2));
    }
    const CURI copiedTop = temp.uri() << "dst/disk";
    const CURI copiedSnapshot = temp.uri() << "dst/snaps/s0";
    const std::string mark =
        brick::CBrickDiskAuxFileBase::getAuxFileURI(CURI("."), CBrickDisk::getCreatingMarkFileName(), 0)
            .getName()
            .toUTF8();
    for (const CURI& folder : {copiedTop, copiedSnapshot}) {
        fs->createFolder(folder, 0755);
        std::ofstream(folder.toLocalPath() + "/" + testsupport::storeLeftoverName(mark)) << "cut short";
    }

    EXPECT_NO_THROW(CChainCopier::copy(fs.get(), top, fs.get(), copiedTop, {}));

    for (const auto& [copied, original] : {std::pair(copiedTop, top), std::pair(copiedSnapshot, snapshot)}) {
        const P<CBrickDisk> copy = testsupport::openDisk(fs.get(), copied, kPassword, zo::IIOStream::AccessRead);
        const P<CBrickDisk> source = testsupport::openDisk(fs.get(), original, kPassword, zo::IIOStream::AccessRead);
        EXPECT_EQ(testsupport::readWholeDisk(*copy), testsupport::readWholeDisk(*source))
            << copied.toString(true).toUTF8();
        EXPECT_EQ(fs->removeTemporaryFiles(copied), 0) << copied.toString(true).toUTF8();
    }
}

// The disks of makeChain have plain MD5 digests, which need no key: a brick
// file whose outer digest does not match is sent as it is and listed.
TEST_F(ChainCopier, SendsADamagedSourceFileAsItIsAndListsIt)
{
    makeChain(source.get());
    std::string damaged;
    for (const auto& [path, bytes] : testsupport::fileContentsBelow(source.get(), CURI("/src/snaps/s1")))
        if (path.find("bricks/") == 0)
            damaged = "/src/snaps/s1/" + path;
    ASSERT_FALSE(damaged.empty());
    zo::TBuffer<zo::uint8> file = *source->getFileData(CURI(damaged));
    file[file.getUsed() / 2] ^= 0x20;
    source->setFileData(CURI(damaged), file);
    const Bytes bytes = testsupport::fileContentsBelow(source.get(), CURI("/src")).at(damaged.substr(5));

    CChainCopier::Options options;
    options.verify = true;
    const CChainCopier::Summary summary = copyChain(source.get(), destination.get(), options);

    ASSERT_EQ(summary.damagedFiles.size(), 1u);
    EXPECT_EQ(summary.damagedFiles[0].toString(true).toUTF8(), damaged);
    EXPECT_EQ(testsupport::fileContentsBelow(destination.get(), CURI("/dst")).at(damaged.substr(5)), bytes);
}

TEST_F(ChainCopier, VerifyFailsWhenSentFilesDoNotReadBack)
{
    makeChain(source.get());
    CChainCopier::Options options;
    options.verify = true;
    destination->failStreamReads(CURI("/dst/snaps/s0/bricks"), zo::CFileSystemError::AccessDenied);

    const auto failed = testsupport::errorOf<zo::CError>([&] { copyChain(source.get(), destination.get(), options); });

    ASSERT_TRUE(failed);
    EXPECT_NE(testsupport::messageOf(*failed).find("does not read back as sent"), std::string::npos);
    EXPECT_NE(testsupport::messageOf(*failed).find("/dst/snaps/s0/bricks"), std::string::npos);
    destination->clearFailures();
    EXPECT_NO_THROW(copyChain(source.get(), destination.get(), options));
}

// A first copy stopped at any failing operation leaves no disk that opens
// with other bytes than its source's: a disk not yet whole is refused (its
// header is missing or it is marked unfinished), and a new run finishes.
TEST_F(ChainCopier, FirstCopyStoppedAnywhereLeavesNoHalfDiskAndARunFinishesIt)
{
    using Operation = CMemoryFileSystem::Operation;
    makeChain(source.get());
    const std::map<std::string, Bytes> expected = readDisks(source.get(), "/src", kFirstDisks);

    const int cutsTried = sweepFailingOperations(
        {Operation::StoreFile, Operation::CreateFolderSync, Operation::DeleteFileSync}, {},
        [&](CMemoryFileSystem* fs) { copyChain(source.get(), fs); },
        [&](CMemoryFileSystem* fs, const std::string& context) {
            for (const std::string& disk : kFirstDisks) {
                try {
                    const P<CBrickDisk> opened =
                        testsupport::openDisk(fs, CURI("/dst" + disk), kPassword, zo::IIOStream::AccessRead);
                    EXPECT_EQ(testsupport::readWholeDisk(*opened), expected.at(disk)) << disk << " " << context;
                } catch (const zo::CError&) {
                    // Not whole yet, and refused as such.
                }
            }
            EXPECT_NO_THROW(copyChain(source.get(), fs)) << context;
            EXPECT_EQ(readDisks(fs, "/dst", kFirstDisks), expected) << context << " and running again";
        });
    // More than 20 cuts, of which a sanitized build takes every third.
    EXPECT_GE(cutsTried, testsupport::sweepCuts(21));
}

TEST_F(ChainCopier, StopsWhereTheCheckpointThrowsAndARunFinishes)
{
    makeChain(source.get());
    CChainCopier::Options options;
    options.jobs = 2;
    int calls = 0;
    options.checkpoint = [&] {
        if (++calls == 3)
            throw zo::CError("Stopped.");
    };

    EXPECT_THROW(copyChain(source.get(), destination.get(), options), zo::CError);
    EXPECT_EQ(brick::CBrickDisk::getCompletion(destination.get(), CURI("/dst/snaps/s0")),
              CBrickDisk::CreationUnfinished);
    EXPECT_FALSE(destination->pathExists(CURI("/dst/disk")));

    options.checkpoint = nullptr;
    const CChainCopier::Summary summary = copyChain(source.get(), destination.get(), options);
    EXPECT_GT(summary.filesSkipped, 0);
    EXPECT_EQ(readDisks(destination.get(), "/dst", kFirstDisks), readDisks(source.get(), "/src", kFirstDisks));
}

// Every changing operation of the destination, in turn, fails for good from
// its nth occurrence on during a second copy: the snapshots the destination
// held read as before, and a new run finishes the copy.
TEST_F(ChainCopier, SnapshotsReadAsBeforeWhereverASecondCopyStops)
{
    using Operation = CMemoryFileSystem::Operation;
    makeChain(source.get());
    copyChain(source.get(), destination.get());
    const std::vector<std::string> snapshots{"/snaps/s1", "/snaps/s0"};
    const std::map<std::string, Bytes> before = readDisks(destination.get(), "/dst", snapshots);
    const std::map<std::string, Bytes> files = testsupport::fileContentsBelow(destination.get(), CURI("/"));
    changeChain(source.get());
    const std::map<std::string, Bytes> expected = readDisks(source.get(), "/src", kSecondDisks);

    const int cutsTried = sweepFailingOperations(
        {Operation::StoreFile, Operation::DeleteFile, Operation::DeleteFileSync, Operation::CreateFolderSync,
         Operation::OpenStream, Operation::ListFolder},
        files, [&](CMemoryFileSystem* fs) { copyChain(source.get(), fs); },
        [&](CMemoryFileSystem* fs, const std::string& context) {
            EXPECT_EQ(readDisks(fs, "/dst", snapshots), before) << context;
            EXPECT_NO_THROW(copyChain(source.get(), fs)) << context;
            EXPECT_EQ(readDisks(fs, "/dst", kSecondDisks), expected) << context << " and running again";
        });
    // More than 20 cuts, of which a sanitized build takes every third.
    EXPECT_GE(cutsTried, testsupport::sweepCuts(21));
}

} // namespace
