// CBrickFileChecker: what `check` and `delete` learn of one brick file, with
// and without the disk's key.
#include "brick/chain/BrickFileChecker.h"
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickTree.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using brick::CBrickDisk;
using brick::CBrickFileChecker;
using brick::CBrickTree;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int64 kDiskSize = 8 * kBrickSize;
const char* const kPassword = "secret";

class BrickFileCheckerTest : public ::testing::Test {
protected:
    // Makes the disk in `folder` (authenticated, with the cipher `cipherID`,
    // or in the original format) and writes bricks 0 to 2.
    void makeDisk(bool authenticated, const char* cipherID = "aes256gcm")
    {
        fs = new CMemoryFileSystem();
        if (authenticated)
            CBrickDisk::createAuthenticated(fs.get(), folder, kDiskSize, 1, kPassword, "lz4", kBrickSize, kTestKdfCost,
                                            cipherID);
        else
            testsupport::createDisk(fs.get(), folder, kDiskSize, kPassword);
        const P<CBrickDisk> disk = open(IIOStream::AccessReadWrite);
        for (int i = 0; i < 3; ++i)
            testsupport::writeAt(*disk, int64(i) * kBrickSize, testsupport::patternBytes(kBrickSize, 40 + i));
        disk->flushChanges();
        ASSERT_TRUE(disk->getBackgroundErrorList().empty());
    }
    P<CBrickDisk> open(IIOStream::Access access = IIOStream::AccessRead)
    {
        return testsupport::openDisk(fs.get(), folder, kPassword, access);
    }
    CBrickTree::BrickFile brickFile(int64 index)
    {
        const CURI path = testsupport::brickFileOf(*open(), folder, index);
        const P<zo::TBuffer<zo::uint8>> bytes = fs->getFileData(path);
        return {index, path, bytes ? bytes->getUsed() : 0, zo::String()};
    }
    std::string checkWithoutKey(const CBrickTree::BrickFile& file)
    {
        return CBrickFileChecker(fs.get(), open()->getHeader(), nullptr).check(file).toUTF8();
    }
    std::string checkWithKey(const CBrickTree::BrickFile& file)
    {
        const P<CBrickDisk> disk = open();
        return CBrickFileChecker(fs.get(), disk->getHeader(), disk.get()).check(file).toUTF8();
    }
    // Changes one byte of the file of brick `index`.
    void flipByte(int64 index, int offset)
    {
        const CURI path = brickFile(index).path;
        P<zo::TBuffer<zo::uint8>> bytes = fs->getFileData(path);
        (*bytes)[offset] ^= 0x20;
        fs->setFileData(path, *bytes);
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem()};
    const CURI folder{"/disks/a"};
};

TEST_F(BrickFileCheckerTest, GoodBrickFilesPassWithAndWithoutTheKey)
{
    makeDisk(false);
    for (int64 index = 0; index < 3; ++index) {
        EXPECT_EQ(checkWithoutKey(brickFile(index)), "");
        EXPECT_EQ(checkWithKey(brickFile(index)), "");
    }
}

TEST_F(BrickFileCheckerTest, AChangedByteFailsTheOuterDigestWithoutTheKey)
{
    makeDisk(false);
    flipByte(1, 40);
    EXPECT_EQ(checkWithoutKey(brickFile(1)), "damaged: its outer digest does not match its content");
    EXPECT_EQ(checkWithoutKey(brickFile(0)), "");
}

TEST_F(BrickFileCheckerTest, AFileThatIsNoBrickFileSaysSo)
{
    makeDisk(false);
    flipByte(2, 0);
    EXPECT_EQ(checkWithoutKey(brickFile(2)), "is not a brick file (it does not start with BRICK)");
}

TEST_F(BrickFileCheckerTest, ACutOffFileIsTooShort)
{
    makeDisk(false);
    const CURI path = brickFile(0).path;
    fs->setFileData(path, testsupport::patternBytes(12, 1));
    EXPECT_EQ(checkWithoutKey(brickFile(0)), "too short to be a brick file (12 bytes)");
}

TEST_F(BrickFileCheckerTest, AFileThatCannotBeReadIsReportedNotThrown)
{
    makeDisk(false);
    const CBrickTree::BrickFile file = brickFile(0);
    fs->failStreamReads(file.path, CFileSystemError::AccessDenied);
    EXPECT_EQ(checkWithoutKey(file).rfind("cannot be read: ", 0), 0u);
}

TEST_F(BrickFileCheckerTest, KeyedDigestsAreCheckedOnlyWithTheKey)
{
    for (const char* cipherID : {"aes256gcm", "aes256cbc"}) {
        SCOPED_TRACE(cipherID);
        makeDisk(true, cipherID);
        flipByte(1, 60);
        // Without the key, a keyed digest or tag cannot be checked: only the framing is.
        EXPECT_EQ(checkWithoutKey(brickFile(1)), "");
        EXPECT_EQ(checkWithKey(brickFile(1)), "damaged: its keyed digest does not match its content");
        EXPECT_EQ(checkWithKey(brickFile(0)), "");
    }
}

TEST_F(BrickFileCheckerTest, ABrickFileCopiedToAnotherIndexNamesItsOwnIndex)
{
    for (const char* cipherID : {"aes256gcm", "aes256cbc"}) {
        SCOPED_TRACE(cipherID);
        makeDisk(true, cipherID);
        const CBrickTree::BrickFile source = brickFile(2);
        const CBrickTree::BrickFile target = brickFile(0);
        fs->setFileData(target.path, *fs->getFileData(source.path));
        EXPECT_EQ(checkWithKey(brickFile(0)),
                  "at the wrong index: it is the brick file of brick 2 (moved or copied here)");
    }
}

TEST_F(BrickFileCheckerTest, AnAuthenticatedCipherFileNeedsItsHeadAndTag)
{
    makeDisk(true);
    const CURI path = brickFile(0).path;
    // "BRICK", versions, index, salt and tag: 65 bytes.
    Bytes bytes = testsupport::patternBytes(64, 1);
    std::memcpy(bytes.getData(), "BRICK", 5);
    fs->setFileData(path, bytes);
    EXPECT_EQ(checkWithoutKey(brickFile(0)), "too short to be a brick file (64 bytes)");
    // One byte more (appended from a copy: the buffer may move as it grows).
    const zo::uint8 extra = bytes[0];
    bytes.append(&extra, 1);
    fs->setFileData(path, bytes);
    EXPECT_EQ(checkWithoutKey(brickFile(0)), "");
    EXPECT_EQ(checkWithKey(brickFile(0)), "damaged: its keyed digest does not match its content");
}

} // namespace
