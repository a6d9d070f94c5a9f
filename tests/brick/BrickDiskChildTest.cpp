#include "brick/chain/BrickDisk.h"

#include "brick/chain/BrickDiskRemover.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskHeader;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::linkTarget;
using testsupport::messageOf;
using testsupport::propsOf;
using zo::CError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Props = std::vector<std::pair<std::string, std::string>>;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
// Twelve whole bricks and a short last one.
constexpr int64 kDiskSize = 12 * kBrickSize + 500;
const char* const kPassword = "secret";

class BrickDiskChildTest : public ::testing::Test {
protected:
    void createParent(const char* folder = "/disks/parent")
    {
        testsupport::createDisk(fs.get(), CURI(folder), kDiskSize, kPassword);
    }
    void createChild(const char* child, const char* parent, CBrickDisk::ChildType type = CBrickDisk::linkedChild)
    {
        CBrickDisk::createChild(fs.get(), CURI(child), CURI(parent), type);
    }
    P<CBrickDisk> open(const char* folder, IIOStream::Access access = IIOStream::AccessReadWrite)
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(folder), kPassword, access);
        disk->setAllowWritingWithParentDisk(true);
        return disk;
    }
    // Every byte of the disk in `folder`, read through its chain.
    Bytes contentOf(const char* folder) { return testsupport::readWholeDisk(*open(folder, IIOStream::AccessRead)); }

    // `count` writes of random bytes at random places, applied to `model` as
    // well. On a disk without a parent some of them are zeros over whole
    // bricks, whose files are then removed. A child stores such a brick by
    // removing its own file too, which lets its parent's brick show through,
    // so children get no all-zero bricks here.
    void writeRandomly(const char* folder, Bytes& model, int count)
    {
        const P<CBrickDisk> disk = open(folder);
        const bool zeroBricksAllowed = disk->getParentDiskFolders().empty();
        for (int i = 0; i < count; ++i) {
            const int size = static_cast<int>(rng() % (3 * kBrickSize)) + 1;
            const int64 position = static_cast<int64>(rng() % (kDiskSize - size + 1));
            const bool zeros = zeroBricksAllowed && rng() % 4 == 0;
            const Bytes bytes = zeros ? testsupport::zeroBytes(kBrickSize)
                                      : testsupport::patternBytes(size, static_cast<unsigned>(rng()));
            const int64 at = zeros ? (position / kBrickSize) * kBrickSize : position;
            if (at + bytes.getUsed() > kDiskSize)
                continue;
            testsupport::writeAt(*disk, at, bytes);
            model = testsupport::overlay(model, at, bytes);
        }
        disk->flushChanges();
        EXPECT_TRUE(disk->getBackgroundErrorList().empty());
    }

    // What each disk of a parent -> child -> grandchild chain reads.
    struct ChainModel {
        Bytes parent, child, grandchild;
    };
    // Makes that chain with random writes to the parent and to the child
    // (before the grandchild exists).
    ChainModel makeChain(int parentWrites, int childWrites)
    {
        ChainModel model;
        createParent();
        model.parent = testsupport::zeroBytes(static_cast<int>(kDiskSize));
        writeRandomly("/disks/parent", model.parent, parentWrites);
        createChild("/disks/child", "/disks/parent");
        model.child = model.parent;
        writeRandomly("/disks/child", model.child, childWrites);
        createChild("/disks/grandchild", "/disks/child");
        model.grandchild = model.child;
        return model;
    }
    // Makes that chain with pattern bytes drawn from `seed` over the whole
    // parent and nothing in the child and the grandchild; returns the bytes.
    Bytes makeChainOverAFullParent(unsigned seed)
    {
        createParent();
        const Bytes bytes = testsupport::patternBytes(static_cast<int>(kDiskSize), seed);
        testsupport::writeAt(*open("/disks/parent"), 0, bytes);
        createChild("/disks/child", "/disks/parent");
        createChild("/disks/grandchild", "/disks/child");
        return bytes;
    }
    void expectChainReads(const ChainModel& model)
    {
        EXPECT_EQ(contentOf("/disks/parent"), model.parent);
        EXPECT_EQ(contentOf("/disks/child"), model.child);
        EXPECT_EQ(contentOf("/disks/grandchild"), model.grandchild);
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
    std::mt19937 rng{20240611};
};

// --- Files written by child creation -------------------------------------------

TEST_F(BrickDiskChildTest, LinkedChildGetsAHeaderAndAParentLinkAndTheParentGetsAChildLink)
{
    createParent();

    createChild("/disks/child", "/disks/parent");

    EXPECT_EQ(testsupport::filesBelow(fs.get(), CURI("/disks/child")),
              std::vector<std::string>({"created.bricktime", "disk.brickdisk", "fallback/created.bricktime",
                                        "fallback/disk.brickdisk", "fallback/parent.bricklnk", "parent.bricklnk"}));
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/child"), "parent.bricklnk"), "../parent");
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/parent"), "child.bricklnk"), "../child");
}

TEST_F(BrickDiskChildTest, ChildHeaderIsACopyOfTheParentHeader)
{
    createParent();

    createChild("/disks/child", "/disks/parent");

    EXPECT_EQ(*fs->getFileData(CBrickDiskHeader::getHeaderURI(CURI("/disks/child"), 0)),
              *fs->getFileData(CBrickDiskHeader::getHeaderURI(CURI("/disks/parent"), 0)));
    const P<CBrickDisk> child = open("/disks/child");
    EXPECT_EQ(child->getSize(), kDiskSize);
    EXPECT_EQ(child->getBrickSize(), kBrickSize);
    EXPECT_EQ(child->getParentDiskFolder(), CURI("/disks/parent"));
}

TEST_F(BrickDiskChildTest, SecondLinkedChildIsInsertedBetweenTheParentAndTheFirstChild)
{
    createParent();
    createChild("/disks/first", "/disks/parent");

    createChild("/disks/second", "/disks/parent");

    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/second"), "parent.bricklnk"), "../parent");
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/second"), "child.bricklnk"), "../first");
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/first"), "parent.bricklnk"), "../second");
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/parent"), "child.bricklnk"), "../second");
    const P<CBrickDisk> first = open("/disks/first", IIOStream::AccessRead);
    EXPECT_EQ(first->getParentDiskFolder(), CURI("/disks/second"));
    EXPECT_EQ(first->getParentDiskFolders().back(), CURI("/disks/parent"));
}

TEST_F(BrickDiskChildTest, StandAloneChildLinksToTheParentAsGivenAndTouchesNoParentFile)
{
    createParent();
    const auto parentFiles = testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent"));

    createChild("/elsewhere/child", "/disks/parent", CBrickDisk::standAloneChild);

    EXPECT_EQ(linkTarget(fs.get(), CURI("/elsewhere/child"), "parent.bricklnk"), "/disks/parent");
    EXPECT_FALSE(fs->fileExists(CURI("/elsewhere/child/child.bricklnk")));
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent")), parentFiles);
    EXPECT_EQ(open("/elsewhere/child")->getParentDiskFolder(), CURI("/disks/parent"));
}

TEST_F(BrickDiskChildTest, StandAloneChildOfAParentWithAChildLinksToThatChildAndChangesNothingElse)
{
    createParent();
    createChild("/disks/first", "/disks/parent");
    const auto parentFiles = testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent"));
    const auto firstFiles = testsupport::fileContentsBelow(fs.get(), CURI("/disks/first"));

    createChild("/disks/alone", "/disks/parent", CBrickDisk::standAloneChild);

    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/alone"), "child.bricklnk"), "../first");
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent")), parentFiles);
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks/first")), firstFiles);
}

TEST_F(BrickDiskChildTest, ChildOpensWithTheParentPasswordOnly)
{
    createParent();
    createChild("/disks/child", "/disks/parent");

    EXPECT_NO_THROW(open("/disks/child"));
    const auto error = errorOf<brick::CBrickDiskError>(
        [&] { testsupport::openDisk(fs.get(), CURI("/disks/child"), "other", IIOStream::AccessRead); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), brick::CBrickDiskError::IncorrectPassword);
    EXPECT_EQ(propsOf(*error), Props({{"diskFolder", "/disks/child"}}));
}

// --- Refused child creations ------------------------------------------------------

TEST_F(BrickDiskChildTest, InvalidChildTypeFailsAfterTheFolderWasCreated)
{
    createParent();

    const auto error = errorOf<zo::CInvalidArgError>([&] {
        CBrickDisk::createChild(fs.get(), CURI("/disks/child"), CURI("/disks/parent"),
                                static_cast<CBrickDisk::ChildType>(2));
    });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getWhere(), "CBrickDisk::createChild");
    EXPECT_EQ(messageOf(*error), "Invalid childType: 2");
    EXPECT_TRUE(error->getProps().isEmpty());
    EXPECT_TRUE(fs->folderExists(CURI("/disks/child")));
    EXPECT_TRUE(testsupport::filesBelow(fs.get(), CURI("/disks/child")).empty());
    EXPECT_FALSE(fs->fileExists(CURI("/disks/parent/child.bricklnk")));
}

TEST_F(BrickDiskChildTest, FolderThatHoldsADiskAlreadyIsRefused)
{
    createParent();
    createChild("/disks/child", "/disks/parent");
    const auto before = testsupport::fileContentsBelow(fs.get(), CURI("/disks"));

    const auto error = errorOf<CError>([&] { createChild("/disks/child", "/disks/parent"); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Cannot create child brick disk in a folder that already contains one.");
    EXPECT_EQ(error->getDomain(), "");
    EXPECT_EQ(error->getCode(), -1);
    EXPECT_EQ(propsOf(*error),
              Props({{"childDiskFolder", "/disks/child"},
                     {"parentDiskFolder", "/disks/parent"},
                     {"action", "CBrickDisk::createChild"}}));
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks")), before);
}

TEST_F(BrickDiskChildTest, ChildThatRanOutOfSpaceIsRefusedUntilMadeAgain)
{
    createParent();
    Bytes model = testsupport::zeroBytes(static_cast<int>(kDiskSize));
    writeRandomly("/disks/parent", model, 6);
    createChild("/disks/older", "/disks/parent");
    // The mark and the header are stored, then the store of a link finds no
    // room.
    fs->failOperation(CMemoryFileSystem::Operation::StoreFile, 5, zo::CFileSystemError::NoSpace, false,
                      CURI("/disks/child"));

    EXPECT_THROW(createChild("/disks/child", "/disks/parent"), zo::CFileSystemError);

    const auto error = errorOf<brick::CBrickDiskError>([&] { open("/disks/child", IIOStream::AccessRead); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), brick::CBrickDiskError::UnfinishedSnapshot);
    EXPECT_EQ(propsOf(*error), Props({{"diskFolder", "/disks/child"}}));
    EXPECT_EQ(contentOf("/disks/older"), model);

    createChild("/disks/child", "/disks/parent");
    EXPECT_EQ(CBrickDisk::getCompletion(fs.get(), CURI("/disks/child")), CBrickDisk::Finished);
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/parent"), "child.bricklnk"), "../child");
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/older"), "parent.bricklnk"), "../child");
    EXPECT_EQ(contentOf("/disks/child"), model);
}

TEST_F(BrickDiskChildTest, ChildThatRanOutOfSpaceIsRemovedWithoutTouchingTheChain)
{
    createParent();
    Bytes model = testsupport::zeroBytes(static_cast<int>(kDiskSize));
    writeRandomly("/disks/parent", model, 6);
    createChild("/disks/older", "/disks/parent");
    const auto before = testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent"));
    fs->failOperation(CMemoryFileSystem::Operation::StoreFile, 5, zo::CFileSystemError::NoSpace, false,
                      CURI("/disks/child"));
    EXPECT_THROW(createChild("/disks/child", "/disks/parent"), zo::CFileSystemError);

    brick::CBrickDiskRemover::remove(fs.get(), CURI("/disks/child"));

    EXPECT_TRUE(testsupport::filesBelow(fs.get(), CURI("/disks/child")).empty());
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent")), before);
    EXPECT_EQ(linkTarget(fs.get(), CURI("/disks/older"), "parent.bricklnk"), "../parent");
    EXPECT_EQ(contentOf("/disks/older"), model);
}

TEST_F(BrickDiskChildTest, UnfinishedChildOfAnotherParentIsNotFinished)
{
    createParent();
    createParent("/disks/other");
    fs->failOperation(CMemoryFileSystem::Operation::StoreFile, 5, zo::CFileSystemError::NoSpace, false,
                      CURI("/disks/child"));
    EXPECT_THROW(createChild("/disks/child", "/disks/parent"), zo::CFileSystemError);

    const auto error = errorOf<CError>([&] { createChild("/disks/child", "/disks/other"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "The folder holds an unfinished child of another disk.");
    EXPECT_FALSE(fs->fileExists(CURI("/disks/other/child.bricklnk")));
}

TEST_F(BrickDiskChildTest, FoldersWithoutACommonRootCannotBeLinked)
{
    createParent();

    const auto error = errorOf<CError>([&] { createChild("relative/child", "/disks/parent"); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Parent and child brick disk must be in same folder hierarchy.");
    EXPECT_EQ(error->getCode(), -1);
    EXPECT_EQ(propsOf(*error),
              Props({{"childDiskFolder", "relative/child"},
                     {"parentDiskFolder", "/disks/parent"},
                     {"action", "CBrickDisk::createChild"}}));
    EXPECT_TRUE(error->getCause());
    EXPECT_FALSE(fs->fileExists(CBrickDiskHeader::getHeaderURI(CURI("relative/child"), 0)));
}

TEST_F(BrickDiskChildTest, MissingParentHeaderErrorPassesThrough)
{
    fs->createFolder(CURI("/disks/none"), 0x1ff);
    CBrickDiskHeader header;
    const auto expected = errorOf<CError>([&] { header.load(fs.get(), CURI("/disks/none")); });

    const auto error = errorOf<CError>([&] { createChild("/disks/child", "/disks/none"); });

    ASSERT_TRUE(expected && error);
    EXPECT_EQ(error->getMessage(), expected->getMessage());
    EXPECT_EQ(propsOf(*error), propsOf(*expected));
}

// --- Children keep their bytes -----------------------------------------------------

TEST_F(BrickDiskChildTest, ChildAndGrandchildKeepTheirBytesWhileTheParentIsWritten)
{
    ChainModel model = makeChain(12, 6);
    ASSERT_EQ(contentOf("/disks/grandchild"), model.grandchild);

    for (int step = 0; step < 6; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        writeRandomly("/disks/parent", model.parent, 5);
        expectChainReads(model);
    }
}

TEST_F(BrickDiskChildTest, ChildKeepsItsBytesWhenTheParentWritesWholeBricksOfZeros)
{
    createParent();
    Bytes parentModel = testsupport::patternBytes(static_cast<int>(kDiskSize), 3);
    testsupport::writeAt(*open("/disks/parent"), 0, parentModel);
    createChild("/disks/child", "/disks/parent");

    testsupport::writeAt(*open("/disks/parent"), 2 * kBrickSize, testsupport::zeroBytes(3 * kBrickSize));

    EXPECT_EQ(contentOf("/disks/child"), parentModel);
    EXPECT_EQ(testsupport::readAt(*open("/disks/parent", IIOStream::AccessRead), 2 * kBrickSize, 3 * kBrickSize),
              testsupport::zeroBytes(3 * kBrickSize));
}

TEST_F(BrickDiskChildTest, GrandchildWritesStayInTheGrandchild)
{
    createParent();
    Bytes parentModel = testsupport::zeroBytes(static_cast<int>(kDiskSize));
    writeRandomly("/disks/parent", parentModel, 8);
    createChild("/disks/child", "/disks/parent");
    createChild("/disks/grandchild", "/disks/child");
    const auto parentFiles = testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent"));
    const auto childFiles = testsupport::fileContentsBelow(fs.get(), CURI("/disks/child"));
    Bytes grandchildModel = parentModel;

    writeRandomly("/disks/grandchild", grandchildModel, 8);

    EXPECT_EQ(contentOf("/disks/grandchild"), grandchildModel);
    EXPECT_EQ(contentOf("/disks/parent"), parentModel);
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent")), parentFiles);
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks/child")), childFiles);
}

TEST_F(BrickDiskChildTest, MiddleDiskWrittenWhereOnlyItsParentHoldsABrickLeavesTheGrandchildItsBytes)
{
    const Bytes parentModel = makeChainOverAFullParent(5);

    // Brick 2 as a whole and part of brick 4: the child holds neither yet.
    Bytes childModel = parentModel;
    for (const auto& [at, size] : {std::pair<int64, int>{2 * kBrickSize, kBrickSize}, {4 * kBrickSize + 7, 100}}) {
        const Bytes bytes = testsupport::patternBytes(size, static_cast<unsigned>(at));
        testsupport::writeAt(*open("/disks/child"), at, bytes);
        childModel = testsupport::overlay(childModel, at, bytes);
    }

    EXPECT_EQ(contentOf("/disks/grandchild"), parentModel);
    EXPECT_EQ(contentOf("/disks/child"), childModel);
    EXPECT_EQ(contentOf("/disks/parent"), parentModel);
    // The grandchild holds the parent's own brick files, byte for byte.
    const P<CBrickDisk> parent = open("/disks/parent", IIOStream::AccessRead);
    for (const int64 index : {2, 4}) {
        const P<zo::TBuffer<zo::uint8>> copied =
            fs->getFileData(testsupport::brickFileOf(*parent, CURI("/disks/grandchild"), index));
        ASSERT_TRUE(copied) << "brick " << index;
        EXPECT_EQ(*copied, *fs->getFileData(testsupport::brickFileOf(*parent, CURI("/disks/parent"), index)));
    }
}

TEST_F(BrickDiskChildTest, EveryDiskOfAChainKeepsItsViewWhileTheMiddleDiskIsWrittenRandomly)
{
    ChainModel model = makeChain(10, 3);

    for (int step = 0; step < 5; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        writeRandomly("/disks/child", model.child, 4);
        expectChainReads(model);
    }
}

TEST_F(BrickDiskChildTest, FailedCopyOfTheParentBrickIntoTheGrandchildStoresNothing)
{
    const Bytes parentModel = makeChainOverAFullParent(6);
    fs->failOperation(CMemoryFileSystem::Operation::StoreFile, 1, zo::CFileSystemError::NoSpace, true,
                      CURI("/disks/grandchild"));

    const P<CBrickDisk> child = open("/disks/child");
    testsupport::writeAt(*child, 3 * kBrickSize, testsupport::patternBytes(kBrickSize, 9));
    child->flushChanges();

    ASSERT_EQ(child->getBackgroundErrorList().size(), 1u);
    const brick::CBrick::Error& failure = child->getBackgroundErrorList().front();
    EXPECT_EQ(failure.brickIndex, 3);
    EXPECT_EQ(failure.error->getMessage(), "Copying a parent disk's brick into the child disk failed.");
    EXPECT_EQ(contentOf("/disks/child"), parentModel);
    EXPECT_EQ(contentOf("/disks/grandchild"), parentModel);
}

TEST_F(BrickDiskChildTest, UnreadableParentBrickStopsTheMiddleDiskWriteAndNamesTheFile)
{
    const Bytes parentModel = makeChainOverAFullParent(8);
    const P<CBrickDisk> child = open("/disks/child");
    fs->failStreamReads(CURI("/disks/parent"), zo::CFileSystemError::Unclassified);

    // A whole brick: the write itself needs nothing of the parent.
    testsupport::writeAt(*child, 5 * kBrickSize, testsupport::patternBytes(kBrickSize, 10));
    child->flushChanges();
    fs->clearFailures();

    ASSERT_EQ(child->getBackgroundErrorList().size(), 1u);
    const brick::CBrick::Error& failure = child->getBackgroundErrorList().front();
    EXPECT_EQ(failure.brickIndex, 5);
    EXPECT_EQ(failure.error->getMessage(), "Copying a parent disk's brick into the child disk failed.");
    EXPECT_EQ(failure.error->getProps().lookup("parentFile"),
              testsupport::brickFileOf(*child, CURI("/disks/parent"), 5).toString(true));
    ASSERT_TRUE(failure.error->getCause());
    EXPECT_TRUE(dynamic_cast<const zo::CFileSystemError*>(failure.error->getCause().get()));
    EXPECT_EQ(contentOf("/disks/child"), parentModel);
    EXPECT_EQ(contentOf("/disks/grandchild"), parentModel);
}

TEST_F(BrickDiskChildTest, OldChildKeepsItsSnapshotThroughAnInsertedChild)
{
    createParent();
    Bytes parentModel = testsupport::zeroBytes(static_cast<int>(kDiskSize));
    writeRandomly("/disks/parent", parentModel, 10);
    createChild("/disks/first", "/disks/parent");
    const Bytes firstModel = parentModel;
    writeRandomly("/disks/parent", parentModel, 5);

    createChild("/disks/second", "/disks/parent");
    const Bytes secondModel = parentModel;
    EXPECT_EQ(contentOf("/disks/first"), firstModel);

    for (int step = 0; step < 4; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        writeRandomly("/disks/parent", parentModel, 5);

        EXPECT_EQ(contentOf("/disks/parent"), parentModel);
        EXPECT_EQ(contentOf("/disks/second"), secondModel);
        EXPECT_EQ(contentOf("/disks/first"), firstModel);
    }
}

TEST_F(BrickDiskChildTest, StandAloneChildReadsTheParentAndWritesOnlyItself)
{
    createParent();
    Bytes parentModel = testsupport::zeroBytes(static_cast<int>(kDiskSize));
    writeRandomly("/disks/parent", parentModel, 8);
    createChild("/disks/alone", "/disks/parent", CBrickDisk::standAloneChild);
    EXPECT_EQ(contentOf("/disks/alone"), parentModel);
    const auto parentFiles = testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent"));
    const Bytes own = testsupport::patternBytes(kBrickSize, 77);

    testsupport::writeAt(*open("/disks/alone"), 4 * kBrickSize, own);

    EXPECT_EQ(contentOf("/disks/alone"), testsupport::overlay(parentModel, 4 * kBrickSize, own));
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks/parent")), parentFiles);
    // The parent does not know this child, so its later writes show through
    // wherever the child has no brick of its own.
    writeRandomly("/disks/parent", parentModel, 5);
    EXPECT_EQ(contentOf("/disks/alone"), testsupport::overlay(parentModel, 4 * kBrickSize, own));
}

} // namespace
