// The space of each disk of a chain: its brick files, and the bytes that
// deleting it would free, on brick files of sizes chosen by hand.
#include "brick/backup/ChainSpace.h"
#include "brick/chain/BrickDisk.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using brick::CBrickDisk;
using brick::CChainSpace;
using zo::CURI;
using zo::P;

namespace {

constexpr zo::int64 kDiskSize = 16 * testsupport::kDiskTestBrickSize;

class ChainSpaceTest : public ::testing::Test {
protected:
    // The chain /top, then /mid, then /old (the oldest snapshot), with no brick yet.
    void SetUp() override
    {
        testsupport::createDisk(fs.get(), CURI("/top"), kDiskSize, "pw");
        CBrickDisk::createChild(fs.get(), CURI("/old"), CURI("/top"), CBrickDisk::linkedChild);
        CBrickDisk::createChild(fs.get(), CURI("/mid"), CURI("/top"), CBrickDisk::linkedChild);
    }
    // Puts a brick file of `size` bytes for brick `index` into `folder`.
    void putBrickFile(const char* folder, zo::int64 index, int size)
    {
        const P<CBrickDisk> top = testsupport::openDisk(fs.get(), CURI("/top"), "pw", zo::IIOStream::AccessRead);
        fs->setFileData(testsupport::brickFileOf(*top, CURI(folder), index), testsupport::zeroBytes(size));
    }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
};

void expectSpace(const CChainSpace::DiskSpace& disk, const char* folder, zo::int64 files, zo::int64 bytes,
                 zo::int64 onlyFiles, zo::int64 onlyBytes)
{
    EXPECT_EQ(disk.folder.toString(true).toUTF8(), folder);
    EXPECT_EQ(disk.brickFiles, files) << folder;
    EXPECT_EQ(disk.bytes, bytes) << folder;
    EXPECT_EQ(disk.onlyBrickFiles, onlyFiles) << folder;
    EXPECT_EQ(disk.onlyBytes, onlyBytes) << folder;
}

TEST_F(ChainSpaceTest, CountsWhatEachDiskHoldsAndWhatDeletingItWouldFree)
{
    putBrickFile("/top", 0, 100);
    putBrickFile("/top", 1, 110);
    putBrickFile("/top", 2, 120);
    putBrickFile("/mid", 1, 200);
    putBrickFile("/mid", 3, 210);
    putBrickFile("/old", 1, 300);
    putBrickFile("/old", 2, 310);
    putBrickFile("/old", 4, 320);

    // Any disk of the chain gives the whole chain, top first.
    for (const char* given : {"/top", "/mid", "/old"}) {
        const CChainSpace space(fs.get(), CURI(given));
        ASSERT_EQ(space.getDisks().size(), 3u) << given;
        // /mid lacks bricks 0 and 2 of /top: they would be kept for it.
        expectSpace(space.getDisks()[0], "/top", 3, 330, 1, 110);
        // /old lacks brick 3 of /mid.
        expectSpace(space.getDisks()[1], "/mid", 2, 410, 1, 200);
        // The oldest snapshot keeps nothing for anyone.
        expectSpace(space.getDisks()[2], "/old", 3, 930, 3, 930);
        EXPECT_EQ(space.getTotalBrickFiles(), 8);
        EXPECT_EQ(space.getTotalBytes(), 1670);
        EXPECT_EQ(space.getDiskSize(), kDiskSize);
    }
}

TEST_F(ChainSpaceTest, ADiskWithoutBricksHoldsAndFreesNothing)
{
    putBrickFile("/old", 5, 77);
    const CChainSpace space(fs.get(), CURI("/top"));
    ASSERT_EQ(space.getDisks().size(), 3u);
    expectSpace(space.getDisks()[0], "/top", 0, 0, 0, 0);
    expectSpace(space.getDisks()[1], "/mid", 0, 0, 0, 0);
    expectSpace(space.getDisks()[2], "/old", 1, 77, 1, 77);
    EXPECT_EQ(space.getTotalBytes(), 77);
}

} // namespace
