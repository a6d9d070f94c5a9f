// Disks of the authenticated format know who they are and whom their links
// tie them to: each header holds an ID and whether the disk has a parent,
// each link names both disks by ID, all under the disk key.
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/BrickDiskRemover.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskIdentity.h"
#include "brick/format/BrickDiskLink.h"
#include "support/DiskTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskChain;
using brick::CBrickDiskHeader;
using brick::CBrickDiskIdentity;
using brick::CBrickDiskLink;
using brick::CBrickDiskRemover;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using zo::CError;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int64 kDiskSize = 4 * kBrickSize;
const char* const kPassword = "secret";

class DiskIdentity : public ::testing::Test {
protected:
    void SetUp() override { create("/disks/top"); }

    void create(const char* folder, const char* password = kPassword)
    {
        CBrickDisk::createAuthenticated(fs.get(), CURI(folder), kDiskSize, 1, password, "lz4", kBrickSize,
                                        kTestKdfCost);
    }
    P<CBrickDisk> open(const char* folder, IIOStream::Access access = IIOStream::AccessReadWrite,
                       const char* password = kPassword)
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(folder), password, access);
        disk->setAllowWritingWithParentDisk(true);
        return disk;
    }
    zo::TCryptBuffer<zo::uint8> keyOf(const char* folder, const char* password = kPassword)
    {
        zo::TCryptBuffer<zo::uint8> key;
        EXPECT_TRUE(CBrickDisk::isEncryptPasswordCorrect(fs.get(), CURI(folder), password, &key));
        return key;
    }
    void snapshot(const char* child, const char* parent = "/disks/top")
    {
        CBrickDisk::createChild(fs.get(), CURI(child), CURI(parent), CBrickDisk::linkedChild, keyOf(parent));
    }
    void write(const char* folder, int64 brick, int seed)
    {
        const P<CBrickDisk> disk = open(folder);
        testsupport::writeAt(*disk, brick * kBrickSize, testsupport::patternBytes(kBrickSize, seed));
        disk->flushChanges();
        ASSERT_TRUE(disk->getBackgroundErrorList().empty());
    }
    Bytes contents(const char* folder) { return testsupport::readWholeDisk(*open(folder, IIOStream::AccessRead)); }
    CBrickDiskHeader header(const char* folder)
    {
        CBrickDiskHeader loaded;
        loaded.load(fs.get(), CURI(folder));
        return loaded;
    }
    CBrickDiskLink link(const char* folder, const char* fileName)
    {
        CBrickDiskLink loaded;
        loaded.load(fs.get(), CURI(folder), fileName);
        return loaded;
    }
    void deleteRecord(const char* folder, const char* fileName)
    {
        for (int copy = 0; copy < 2; ++copy)
            fs->deleteFile(CBrickDiskLink::getAuxFileURI(CURI(folder), fileName, copy), true);
    }
    // The message that opening `folder` throws; empty when it opens.
    std::string openError(const char* folder, IIOStream::Access access = IIOStream::AccessReadWrite,
                          const char* password = kPassword)
    {
        try {
            open(folder, access, password);
        } catch (const CError& e) {
            return testsupport::messageOf(e);
        }
        return std::string();
    }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
};

TEST_F(DiskIdentity, NewDiskHasAnAuthenticIdentityWithoutParent)
{
    const CBrickDiskHeader top = header("/disks/top");
    EXPECT_TRUE(top.hasIdentity());
    EXPECT_EQ(top.getDiskID().getUsed(), CBrickDiskIdentity::kDiskIDSize);
    EXPECT_FALSE(top.getHasParent());
    EXPECT_TRUE(CBrickDiskIdentity::isHeaderAuthentic(top, keyOf("/disks/top")));
    create("/disks/other");
    EXPECT_FALSE(CBrickDiskIdentity::isHeaderAuthentic(top, keyOf("/disks/other")));
    EXPECT_FALSE(header("/disks/other").getDiskID() == top.getDiskID());
}

TEST_F(DiskIdentity, UnencryptedDiskHasAnIdentityToo)
{
    create("/disks/plain", "");
    EXPECT_TRUE(header("/disks/plain").hasIdentity());
    CBrickDisk::createChild(fs.get(), CURI("/disks/plain-snap"), CURI("/disks/plain"), CBrickDisk::linkedChild);
    EXPECT_TRUE(header("/disks/plain-snap").getHasParent());
    EXPECT_EQ(openError("/disks/plain-snap", IIOStream::AccessReadWrite, ""), "");
}

TEST_F(DiskIdentity, SnapshotGetsItsOwnIdentityAndTiedLinks)
{
    write("/disks/top", 0, 1);
    snapshot("/disks/snap");
    const CBrickDiskHeader top = header("/disks/top");
    const CBrickDiskHeader snap = header("/disks/snap");
    EXPECT_TRUE(snap.getHasParent());
    EXPECT_FALSE(snap.getDiskID() == top.getDiskID());
    const zo::TCryptBuffer<zo::uint8> key = keyOf("/disks/top");
    EXPECT_TRUE(CBrickDiskIdentity::isHeaderAuthentic(snap, key));
    const CBrickDiskLink parentLink = link("/disks/snap", "parent.bricklnk");
    EXPECT_TRUE(CBrickDiskIdentity::isLinkAuthentic(parentLink, CBrickDiskIdentity::LinkKind::Parent, snap, key));
    EXPECT_TRUE(parentLink.getLinkedID() == top.getDiskID());
    const CBrickDiskLink childLink = link("/disks/top", "child.bricklnk");
    EXPECT_TRUE(CBrickDiskIdentity::isLinkAuthentic(childLink, CBrickDiskIdentity::LinkKind::Child, top, key));
    EXPECT_TRUE(childLink.getLinkedID() == snap.getDiskID());
    // A parent link is not a child link, even with the same IDs.
    EXPECT_FALSE(CBrickDiskIdentity::isLinkAuthentic(parentLink, CBrickDiskIdentity::LinkKind::Child, snap, key));

    // The snapshot keeps what the disk held when it was taken.
    const Bytes before = contents("/disks/top");
    write("/disks/top", 0, 2);
    EXPECT_EQ(contents("/disks/snap"), before);
}

TEST_F(DiskIdentity, SnapshotWithoutTheKeyIsRefusedBeforeAnythingIsWritten)
{
    EXPECT_THROW(CBrickDisk::createChild(fs.get(), CURI("/disks/snap"), CURI("/disks/top"), CBrickDisk::linkedChild),
                 zo::CInvalidArgError);
    create("/disks/other");
    EXPECT_THROW(CBrickDisk::createChild(fs.get(), CURI("/disks/snap"), CURI("/disks/top"), CBrickDisk::linkedChild,
                                         keyOf("/disks/other")),
                 zo::CInvalidArgError);
    EXPECT_FALSE(fs->folderExists(CURI("/disks/snap")));
    EXPECT_FALSE(fs->fileExists(CURI("/disks/top/child.bricklnk")));
}

TEST_F(DiskIdentity, SnapshotWithoutItsParentLinkDoesNotOpen)
{
    write("/disks/top", 0, 1);
    snapshot("/disks/snap");
    deleteRecord("/disks/snap", "parent.bricklnk");
    EXPECT_EQ(openError("/disks/snap", IIOStream::AccessRead),
              "The disk has a parent disk, but its parent link is missing.");
    // Without the key as well: the chain that check and info read says so.
    try {
        CBrickDiskChain chain(fs.get(), CURI("/disks/snap"));
        FAIL() << "the chain was read";
    } catch (const CError& e) {
        EXPECT_EQ(testsupport::messageOf(e), "The disk has a parent disk, but its parent link is missing.");
    }
}

TEST_F(DiskIdentity, ParentLinkPlantedInTopDiskIsRefused)
{
    create("/disks/other");
    testsupport::writeLink(fs.get(), CURI("/disks/top"), "parent.bricklnk", CURI("../other"));
    EXPECT_EQ(openError("/disks/top", IIOStream::AccessRead),
              "The disk has no parent disk, but it holds a parent link.");
}

TEST_F(DiskIdentity, ChildLinkPointedAtAnotherDiskOfTheSamePasswordIsRefused)
{
    snapshot("/disks/snap");
    create("/disks/victim");
    write("/disks/victim", 1, 7);
    const Bytes victim = contents("/disks/victim");
    // The link keeps its IDs and tag, only its target changes.
    CBrickDiskLink retargeted = link("/disks/top", "child.bricklnk");
    retargeted.setTargetURI(CURI("../victim"));
    retargeted.store(fs.get(), CURI("/disks/top"), "child.bricklnk");
    EXPECT_EQ(openError("/disks/top"), "The child link of the disk leads to another disk.");
    EXPECT_EQ(contents("/disks/victim"), victim);
}

TEST_F(DiskIdentity, ChildLinkPointedAtAnOlderSnapshotOfTheChainIsRefused)
{
    write("/disks/top", 0, 1);
    snapshot("/disks/old");
    write("/disks/top", 0, 2);
    snapshot("/disks/new");
    // top -> new -> old; the top disk's link made to skip "new".
    CBrickDiskLink retargeted = link("/disks/top", "child.bricklnk");
    retargeted.setTargetURI(CURI("../old"));
    retargeted.store(fs.get(), CURI("/disks/top"), "child.bricklnk");
    EXPECT_EQ(openError("/disks/top"), "The child link of the disk leads to another disk.");
    // A link made anew without the key, naming "old" by its ID, is not authentic.
    CBrickDiskLink forged = retargeted;
    forged.setIdentity(header("/disks/top").getDiskID(), header("/disks/old").getDiskID(), retargeted.getTag());
    forged.store(fs.get(), CURI("/disks/top"), "child.bricklnk");
    EXPECT_EQ(openError("/disks/top"), "The child link of the disk is not authentic.");
}

TEST_F(DiskIdentity, ChildLinkPointedAtAPlainFolderWritesNothingThere)
{
    fs->createFolder(CURI("/plain"), 0700);
    testsupport::writeLink(fs.get(), CURI("/disks/top"), "child.bricklnk", CURI("../../plain"));
    EXPECT_NE(openError("/disks/top"), "");
    EXPECT_TRUE(testsupport::filesBelow(fs.get(), CURI("/plain")).empty());
}

TEST_F(DiskIdentity, ChildLinkWithoutIdentityIsNotAuthentic)
{
    snapshot("/disks/snap");
    testsupport::writeLink(fs.get(), CURI("/disks/top"), "child.bricklnk", CURI("../snap"));
    EXPECT_EQ(openError("/disks/top"), "The child link of the disk is not authentic.");
}

TEST_F(DiskIdentity, ChildLinkToADiskThatDoesNotNameThisParentIsRefused)
{
    snapshot("/disks/snap");
    // The snapshot's parent link taken away: the parent's link alone does
    // not make the snapshot its child.
    deleteRecord("/disks/snap", "parent.bricklnk");
    EXPECT_EQ(openError("/disks/top"), "The child link of the disk leads to a disk that is not its child.");
}

TEST_F(DiskIdentity, ParentLinkSwappedForAnotherDisksIsRefused)
{
    snapshot("/disks/a");
    create("/disks/other");
    // The parent link of another chain's snapshot, copied over.
    CBrickDisk::createChild(fs.get(), CURI("/disks/other-snap"), CURI("/disks/other"), CBrickDisk::linkedChild,
                            keyOf("/disks/other"));
    const CBrickDiskLink foreign = link("/disks/other-snap", "parent.bricklnk");
    CBrickDiskLink copied = foreign;
    copied.setTargetURI(CURI("../top"));
    copied.store(fs.get(), CURI("/disks/a"), "parent.bricklnk");
    EXPECT_EQ(openError("/disks/a", IIOStream::AccessRead), "The parent link of the disk is not authentic.");
}

TEST_F(DiskIdentity, DeletingASnapshotTiesTheLinksAnewUnderTheKey)
{
    write("/disks/top", 0, 1);
    snapshot("/disks/old");
    write("/disks/top", 1, 2);
    snapshot("/disks/mid");
    write("/disks/top", 0, 3);
    const Bytes old = contents("/disks/old");
    const Bytes top = contents("/disks/top");

    // Without the key nothing changes.
    EXPECT_THROW(CBrickDiskRemover::remove(fs.get(), CURI("/disks/mid")), zo::CInvalidArgError);
    EXPECT_EQ(testsupport::linkTarget(fs.get(), CURI("/disks/top"), "child.bricklnk"), "../mid");
    EXPECT_EQ(openError("/disks/mid"), "");

    CBrickDiskRemover::remove(fs.get(), CURI("/disks/mid"), keyOf("/disks/top"));
    EXPECT_EQ(openError("/disks/top"), "");
    EXPECT_EQ(contents("/disks/old"), old);
    EXPECT_EQ(contents("/disks/top"), top);
    const zo::TCryptBuffer<zo::uint8> key = keyOf("/disks/top");
    EXPECT_TRUE(link("/disks/old", "parent.bricklnk").getLinkedID() == header("/disks/top").getDiskID());
    EXPECT_TRUE(CBrickDiskIdentity::isLinkAuthentic(link("/disks/top", "child.bricklnk"),
                                                    CBrickDiskIdentity::LinkKind::Child, header("/disks/top"), key));
}

TEST_F(DiskIdentity, IdentityCutOffTheHeaderIsFound)
{
    // Without its identity the snapshot would open without its parent link.
    snapshot("/disks/snap");
    CBrickDiskHeader stripped = header("/disks/snap");
    stripped.setDiskID(zo::TBuffer<zo::uint8>());
    stripped.store(fs.get(), CURI("/disks/snap"));
    ASSERT_FALSE(header("/disks/snap").hasIdentity());
    deleteRecord("/disks/snap", "parent.bricklnk");
    try {
        open("/disks/snap", IIOStream::AccessRead);
        FAIL() << "the snapshot opened";
    } catch (const brick::CBrickDiskError& e) {
        EXPECT_EQ(e.getErrorCode(), brick::CBrickDiskError::IncorrectPassword);
    }
}

TEST_F(DiskIdentity, IdentityMovedToAnotherDiskIsNotAuthentic)
{
    create("/disks/other");
    CBrickDiskHeader moved = header("/disks/other");
    const CBrickDiskHeader top = header("/disks/top");
    moved.setDiskID(top.getDiskID());
    moved.setIdentityTag(top.getIdentityTag());
    moved.store(fs.get(), CURI("/disks/other"));
    EXPECT_EQ(openError("/disks/other", IIOStream::AccessRead), "The disk's identity is not authentic.");
}

} // namespace
