// The chain of a disk as its folders hold it, and the brick files of a disk
// folder, read without a password.
#include "brick/chain/BrickDiskChain.h"
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickTree.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using brick::CBrickDisk;
using brick::CBrickDiskChain;
using brick::CBrickTree;
using zo::CURI;
using zo::P;

namespace {

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr zo::int64 kDiskSize = 16 * kBrickSize;

class BrickDiskChainTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::createDisk(fs.get(), CURI("/disks/base"), kDiskSize, "pw");
        writeBrick("/disks/base", 3, 1);
        writeBrick("/disks/base", 5, 3);
        CBrickDisk::createChild(fs.get(), CURI("/disks/monday"), CURI("/disks/base"), CBrickDisk::linkedChild);
        writeBrick("/disks/base", 3, 2);
    }
    void writeBrick(const char* folder, int index, unsigned seed)
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(folder), "pw");
        testsupport::writeAt(*disk, static_cast<zo::int64>(index) * kBrickSize,
                             testsupport::patternBytes(kBrickSize, seed));
    }
    std::vector<std::string> memberFolders(const CBrickDiskChain& chain)
    {
        std::vector<std::string> folders;
        for (const auto& member : chain.getMembers())
            folders.push_back(member.folder.toString(true).toUTF8());
        return folders;
    }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
};

TEST_F(BrickDiskChainTest, ListsTheDiskThenItsAncestorsAndNamesItsChild)
{
    const CBrickDiskChain snapshot(fs.get(), CURI("/disks/monday"));
    EXPECT_EQ(memberFolders(snapshot), std::vector<std::string>({"/disks/monday", "/disks/base"}));
    EXPECT_TRUE(snapshot.getChildFolder().isEmpty());
    EXPECT_EQ(snapshot.findProblem(), nullptr);
    EXPECT_NO_THROW(snapshot.validate());

    const CBrickDiskChain base(fs.get(), CURI("/disks/base"));
    EXPECT_EQ(memberFolders(base), std::vector<std::string>({"/disks/base"}));
    EXPECT_EQ(base.getChildFolder().toString(true), "/disks/monday");
}

TEST_F(BrickDiskChainTest, LocatesEachBrickInTheNearestDiskThatHoldsIt)
{
    const CBrickDiskChain snapshot(fs.get(), CURI("/disks/monday"));
    const CURI relative3 = CBrickTree::getRelativeBrickURI(snapshot.getHeader(), 3);
    const CURI relative5 = CBrickTree::getRelativeBrickURI(snapshot.getHeader(), 5);
    EXPECT_EQ(snapshot.locateBrick(fs.get(), 3).toString(true).toUTF8(),
              (CURI("/disks/monday") << relative3).toString(true).toUTF8());
    EXPECT_EQ(snapshot.locateBrick(fs.get(), 5).toString(true).toUTF8(),
              (CURI("/disks/base") << relative5).toString(true).toUTF8());
    EXPECT_TRUE(snapshot.locateBrick(fs.get(), 7).isEmpty());
}

TEST_F(BrickDiskChainTest, AMissingParentIsAProblemThatValidateNames)
{
    fs->deleteFile(CURI("/disks/base/disk.brickdisk"), false);
    fs->deleteFile(CURI("/disks/base/fallback/disk.brickdisk"), false);
    const CBrickDiskChain snapshot(fs.get(), CURI("/disks/monday"));
    ASSERT_NE(snapshot.findProblem(), nullptr);
    EXPECT_EQ(snapshot.findProblem()->problem.toUTF8(), "the folder holds no disk");
    const auto error = testsupport::errorOf<zo::CError>([&] { snapshot.validate(); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "A parent disk of the disk is missing or does not match it.");
    EXPECT_EQ(error->getProps().lookup("parentFolder").toUTF8(), "/disks/base");
    EXPECT_EQ(error->getProps().lookup("diskFolder").toUTF8(), "/disks/monday");
}

TEST_F(BrickDiskChainTest, AParentLinkToAnotherDiskSaysWhatDiffers)
{
    testsupport::createDisk(fs.get(), CURI("/disks/other"), 2 * kDiskSize, "another password", "lz4", 2 * kBrickSize);
    testsupport::writeLink(fs.get(), CURI("/disks/monday"), "parent.bricklnk", CURI("../other"));
    const CBrickDiskChain snapshot(fs.get(), CURI("/disks/monday"));
    ASSERT_NE(snapshot.findProblem(), nullptr);
    EXPECT_EQ(snapshot.findProblem()->problem.toUTF8(),
              "disk size " + std::to_string(2 * kDiskSize) + " instead of " + std::to_string(kDiskSize) +
                  ", brick size " + std::to_string(2 * kBrickSize) + " instead of " + std::to_string(kBrickSize) +
                  ", another password or key");
    EXPECT_THROW(snapshot.validate(), zo::CError);
}

TEST_F(BrickDiskChainTest, AParentFolderThatIsGoneIsMissing)
{
    testsupport::writeLink(fs.get(), CURI("/disks/monday"), "parent.bricklnk", CURI("../gone"));
    const CBrickDiskChain snapshot(fs.get(), CURI("/disks/monday"));
    ASSERT_NE(snapshot.findProblem(), nullptr);
    EXPECT_EQ(snapshot.findProblem()->problem.toUTF8(), "the folder is missing");
    EXPECT_EQ(snapshot.findProblem()->folder.toString(true).toUTF8(), "/disks/gone");
}

TEST_F(BrickDiskChainTest, ALinkLoopIsRefused)
{
    testsupport::writeLink(fs.get(), CURI("/disks/base"), "parent.bricklnk", CURI("../monday"));
    const auto error = testsupport::errorOf<zo::CError>([&] { CBrickDiskChain(fs.get(), CURI("/disks/monday")); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "Parent link loop detected in brick disk.");
}

TEST_F(BrickDiskChainTest, TreeListingGivesEveryBrickFileWithItsIndexAndSizeAndWhatDoesNotBelong)
{
    const CBrickDiskChain base(fs.get(), CURI("/disks/base"));
    const CURI brick5 = CURI("/disks/base") << CBrickTree::getRelativeBrickURI(base.getHeader(), 5);
    fs->setFileData(brick5.getParent() << "notes.txt", testsupport::patternBytes(3, 1));
    fs->setFileData(brick5.getParent() << ".tmp-0123456789abcdef-05.brick.part", testsupport::patternBytes(3, 1));

    const CBrickTree::Listing listing = CBrickTree::list(fs.get(), CURI("/disks/base"), base.getHeader());
    ASSERT_EQ(listing.bricks.size(), 2u);
    EXPECT_EQ(listing.bricks[0].index, 3);
    EXPECT_EQ(listing.bricks[1].index, 5);
    EXPECT_EQ(listing.bricks[1].path.toString(true).toUTF8(), brick5.toString(true).toUTF8());
    EXPECT_EQ(listing.bricks[1].size, fs->getFileData(brick5)->getUsed());
    EXPECT_EQ(listing.totalBrickBytes(), listing.bricks[0].size + listing.bricks[1].size);
    ASSERT_EQ(listing.unexpectedEntries.size(), 1u);
    EXPECT_EQ(listing.unexpectedEntries[0].getName().toUTF8(), "notes.txt");
    EXPECT_EQ(listing.temporaryFiles.size(), 1u);
}

// Listing the folders of each level of the tree at once finds what listing
// them one at a time finds, in the same order.
TEST_F(BrickDiskChainTest, TreeListedSeveralFoldersAtOnceGivesWhatOneAtATimeGives)
{
    const CBrickDiskChain base(fs.get(), CURI("/disks/base"));
    const CURI brick5 = CURI("/disks/base") << CBrickTree::getRelativeBrickURI(base.getHeader(), 5);
    fs->setFileData(brick5.getParent() << "notes.txt", testsupport::patternBytes(3, 1));
    fs->setFileData(brick5.getParent().getParent() << "a7f", testsupport::patternBytes(3, 1));
    fs->setFileData(brick5.getParent() << ".tmp-0123456789abcdef-05.brick.part", testsupport::patternBytes(3, 1));
    const auto paths = [](const std::vector<CURI>& uris) {
        std::vector<std::string> texts;
        for (const CURI& uri : uris)
            texts.push_back(uri.toString(true).toUTF8());
        return texts;
    };

    const CBrickTree::Listing one = CBrickTree::list(fs.get(), CURI("/disks/base"), base.getHeader(), 1);
    const CBrickTree::Listing several = CBrickTree::list(fs.get(), CURI("/disks/base"), base.getHeader(), 4);

    ASSERT_EQ(one.bricks.size(), 2u);
    ASSERT_EQ(several.bricks.size(), one.bricks.size());
    for (std::size_t i = 0; i < one.bricks.size(); ++i) {
        EXPECT_EQ(several.bricks[i].index, one.bricks[i].index);
        EXPECT_EQ(several.bricks[i].path.toString(true).toUTF8(), one.bricks[i].path.toString(true).toUTF8());
        EXPECT_EQ(several.bricks[i].size, one.bricks[i].size);
    }
    EXPECT_EQ(paths(one.unexpectedEntries).size(), 2u);
    EXPECT_EQ(paths(several.unexpectedEntries), paths(one.unexpectedEntries));
    EXPECT_EQ(paths(one.temporaryFiles).size(), 1u);
    EXPECT_EQ(paths(several.temporaryFiles), paths(one.temporaryFiles));
}

TEST_F(BrickDiskChainTest, OnlyTheTreesOwnSpellingOfANameCounts)
{
    const CBrickDiskChain base(fs.get(), CURI("/disks/base"));
    const auto& header = base.getHeader();
    EXPECT_EQ(CBrickTree::parseEntryName(header, 0, "05.brick"), 5);
    EXPECT_EQ(CBrickTree::parseEntryName(header, 0, "60.brick"), 96);
    EXPECT_EQ(CBrickTree::parseEntryName(header, 0, "5.brick"), -1);
    EXPECT_EQ(CBrickTree::parseEntryName(header, 0, "61.brick"), -1);
    EXPECT_EQ(CBrickTree::parseEntryName(header, 0, "0A.brick"), -1);
    EXPECT_EQ(CBrickTree::parseEntryName(header, 1, "a0a"), 10);
    EXPECT_EQ(CBrickTree::parseEntryName(header, 2, "a0a"), -1);
    EXPECT_EQ(CBrickTree::parseEntryName(header, 4, "d00"), 0);
}

} // namespace
