#include "brick/chain/Brick.h"
#include "brick/format/BrickTree.h"

#include "support/BrickTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <set>
#include <string>

namespace {

using brick::CBrick;
using brick::CBrickTree;
using testsupport::Bytes;
using zo::CURI;
using zo::int64;
using zo::P;

constexpr int kBrickSize = 4096;

// The path of brick `index` relative to a disk folder, in a tree of
// `treeLevels` levels with `objectsPerTreeLevel` entries each, as a brick
// object names it; the path that needs no brick object must be the same.
std::string relativePath(int treeLevels, int objectsPerTreeLevel, int64 index)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(1));
    const brick::CBrickDiskHeader header =
        testsupport::makeBrickHeader(kBrickSize, treeLevels, objectsPerTreeLevel, "null");
    const P<CBrick> object(
        new CBrick(fs.get(), CURI("/disk"), CURI(), {}, header, testsupport::makeBrickKey("null"), 1));
    object->seek(index, 0);
    const std::string path = object->getRelativeBrickURI().toString(true).toUTF8();
    EXPECT_EQ(CBrickTree::getRelativeBrickURI(header, index).toString(true).toUTF8(), path);
    return path;
}

TEST(BrickAddressing, EveryEntryNameParsesBackToItsDigitAtItsLevelOnly)
{
    for (const int perLevel : {15, 16, 97, 256}) {
        const brick::CBrickDiskHeader header = testsupport::makeBrickHeader(kBrickSize, 3, perLevel, "null");
        for (int level = 0; level < 3; ++level) {
            for (int digit = 0; digit < perLevel; ++digit) {
                const std::string name = CBrickTree::getEntryName(header, level, digit).toUTF8();
                EXPECT_EQ(CBrickTree::parseEntryName(header, level, name), digit) << name;
                EXPECT_EQ(CBrickTree::parseEntryName(header, (level + 1) % 3, name), -1) << name;
            }
        }
    }
}

TEST(BrickAddressing, NamesEachFolderLevelWithItsLetterAndTheFileWithBrick)
{
    EXPECT_EQ(relativePath(3, 256, 0x12345), "bricks/b001/a023/045.brick");
    EXPECT_EQ(relativePath(3, 256, 7), "bricks/b000/a000/007.brick");
}

TEST(BrickAddressing, IndexZeroHasZeroNamesAtEveryLevel)
{
    EXPECT_EQ(relativePath(3, 256, 0), "bricks/b000/a000/000.brick");
}

TEST(BrickAddressing, PadsEveryNameToTheDigitCountOfTheEntriesPerLevel)
{
    EXPECT_EQ(relativePath(2, 16, 0x1f), "bricks/a01/0f.brick");
}

TEST(BrickAddressing, DigitWidthIsTheHexLengthOfTheEntriesPerLevelItself)
{
    EXPECT_EQ(relativePath(2, 15, 14), "bricks/a0/e.brick");
    EXPECT_EQ(relativePath(2, 16, 15), "bricks/a00/0f.brick");
    EXPECT_EQ(relativePath(2, 255, 254), "bricks/a00/fe.brick");
    EXPECT_EQ(relativePath(2, 256, 255), "bricks/a000/0ff.brick");
    EXPECT_EQ(relativePath(2, 1000, 999), "bricks/a000/3e7.brick");
    EXPECT_EQ(relativePath(2, 4096, 4095), "bricks/a0000/0fff.brick");
}

TEST(BrickAddressing, WritesDigitsInLowerCase)
{
    EXPECT_EQ(relativePath(3, 256, 0xabcdef), "bricks/b0ab/a0cd/0ef.brick");
}

TEST(BrickAddressing, IndexesBeyondTheTreeWrapOntoLowerOnes)
{
    EXPECT_EQ(relativePath(2, 16, 256), relativePath(2, 16, 0));
    EXPECT_EQ(relativePath(2, 16, 0x1ff), "bricks/a0f/0f.brick");
    EXPECT_EQ(relativePath(3, 256, (int64{1} << 24) + 7), "bricks/b000/a000/007.brick");
}

TEST(BrickAddressing, OneLevelPutsTheFileDirectlyUnderBricks)
{
    EXPECT_EQ(relativePath(1, 16, 5), "bricks/05.brick");
}

TEST(BrickAddressing, NoLevelMakesTheBrickFileBricksItself)
{
    EXPECT_EQ(relativePath(0, 16, 0), "bricks");
    EXPECT_EQ(relativePath(0, 16, 12345), "bricks");
}

TEST(BrickAddressing, DeepestFolderLetterIsThatOfTheLastLevel)
{
    // The fixed tree of every disk: 5 levels of 97 entries (two digits).
    constexpr int64 per = 97;
    EXPECT_EQ(relativePath(5, 97, 0), "bricks/d00/c00/b00/a00/00.brick");
    EXPECT_EQ(relativePath(5, 97, 3 * per * per * per * per + 2 * per + 5), "bricks/d03/c00/b00/a02/05.brick");
    EXPECT_EQ(relativePath(5, 97, 96), "bricks/d00/c00/b00/a00/60.brick");
}

// --- The same names as files of a local folder ------------------------------

struct LocalBrick {
    int treeLevels;
    int objectsPerTreeLevel;
    int64 index;
    const char* path;
};

void PrintTo(const LocalBrick& brick, std::ostream* out)
{
    *out << "brick " << brick.index << " of " << brick.treeLevels << " levels of " << brick.objectsPerTreeLevel
         << " at " << brick.path;
}

class BrickAddressingOnDisk : public ::testing::TestWithParam<LocalBrick> {};

std::set<std::string> regularFilesUnder(const std::string& root)
{
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_regular_file())
            files.insert(std::filesystem::relative(entry.path(), root).generic_string());
    }
    return files;
}

TEST_P(BrickAddressingOnDisk, StoresTheBrickFileAtItsPath)
{
    const LocalBrick& brick = GetParam();
    testsupport::TempFolder folder;
    const P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(2));
    fs->setSyncEnabled(false);
    const auto header = testsupport::makeBrickHeader(kBrickSize, brick.treeLevels, brick.objectsPerTreeLevel);
    const auto key = testsupport::makeBrickKey("aes256cbc");
    const Bytes plain = testsupport::patternBytes(kBrickSize, 50);
    {
        const P<CBrick> writer(new CBrick(fs.get(), folder.uri(), CURI(), {}, header, key, 2));
        writer->seek(brick.index, 0);
        ASSERT_EQ(writer->writeLaxInsideBrick(plain.getData(), kBrickSize), kBrickSize);
        writer->backgroundSaveChanges();
        ASSERT_TRUE(writer->waitUntilBackgroundSavesDone(10000));
        EXPECT_FALSE(writer->haveBackgroundErrors());
    }

    EXPECT_EQ(regularFilesUnder(folder.path()), std::set<std::string>({brick.path}));

    const P<CBrick> reader(new CBrick(fs.get(), folder.uri(), CURI(), {}, header, key, 1));
    reader->seek(brick.index, 0);
    Bytes read(kBrickSize);
    ASSERT_EQ(reader->readLaxInsideBrick(read.getData(), kBrickSize), kBrickSize);
    EXPECT_TRUE(testsupport::sameBytes(read, plain));
}

INSTANTIATE_TEST_SUITE_P(Paths, BrickAddressingOnDisk,
                         ::testing::Values(LocalBrick{3, 256, 0x12345, "bricks/b001/a023/045.brick"},
                                           LocalBrick{3, 256, 7, "bricks/b000/a000/007.brick"},
                                           LocalBrick{2, 16, 0x1f, "bricks/a01/0f.brick"},
                                           LocalBrick{2, 16, 0x11f, "bricks/a01/0f.brick"},
                                           LocalBrick{2, 1000, 999, "bricks/a000/3e7.brick"},
                                           LocalBrick{1, 16, 5, "bricks/05.brick"}, LocalBrick{0, 16, 9, "bricks"},
                                           LocalBrick{5, 97, 0, "bricks/d00/c00/b00/a00/00.brick"}));

} // namespace
