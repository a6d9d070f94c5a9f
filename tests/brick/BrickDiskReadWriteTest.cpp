#include "brick/chain/BrickDisk.h"

#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskHeader;
using brick::CBrickStorer;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::messageOf;
using testsupport::propsOf;
using testsupport::readAt;
using testsupport::writeAt;
using zo::CError;
using zo::CIOError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Props = std::vector<std::pair<std::string, std::string>>;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
// Ten whole bricks and a short last one.
constexpr int64 kDiskSize = 10 * kBrickSize + 1000;
const char* const kFolder = "/disks/a";

Bytes filled(int size, zo::uint8 value)
{
    Bytes bytes(size);
    std::memset(bytes.getData(), value, static_cast<size_t>(size));
    return bytes;
}

std::string str(int64 value)
{
    return std::to_string(value);
}

class BrickDiskReadWriteTest : public ::testing::Test {
protected:
    BrickDiskReadWriteTest()
    {
        testsupport::createDisk(fs.get(), CURI(kFolder), kDiskSize, "secret");
        disk = open();
    }

    P<CBrickDisk> open(IIOStream::Access access = IIOStream::AccessReadWrite, const char* folder = kFolder)
    {
        return testsupport::openDisk(fs.get(), CURI(folder), "secret", access);
    }
    // Closes the disk (saving everything) and opens it again.
    void reopen(IIOStream::Access access = IIOStream::AccessReadWrite)
    {
        disk.reset();
        disk = open(access);
    }
    // A linked child of the disk, opened for writing.
    P<CBrickDisk> makeChild()
    {
        disk->flushChanges();
        CBrickDisk::createChild(fs.get(), CURI("/disks/child"), CURI(kFolder), CBrickDisk::linkedChild);
        return open(IIOStream::AccessReadWrite, "/disks/child");
    }
    P<Bytes> prepared(const Bytes& plain)
    {
        const P<Bytes> result(new Bytes());
        disk->createDataPreparer()->prepareData(plain, *result);
        return result;
    }
    std::vector<std::string> openedFiles()
    {
        std::vector<std::string> files;
        for (const std::string& entry : testsupport::toStrings(fs->getOperationLog())) {
            if (entry.rfind("openStream ", 0) == 0)
                files.push_back(entry.substr(11));
        }
        return files;
    }
    std::string brickFile(int64 index, const char* folder = kFolder)
    {
        return testsupport::brickFileOf(*disk, CURI(folder), index).toString(true).toUTF8();
    }
    bool hasBrickFile(int64 index, const char* folder = kFolder)
    {
        return fs->getFileData(CURI(brickFile(index, folder).c_str())) != nullptr;
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
    P<CBrickDisk> disk;
};

// --- Seeking ----------------------------------------------------------------

TEST_F(BrickDiskReadWriteTest, SeekToTheDiskSizeIsAccepted)
{
    disk->seek(kDiskSize);

    EXPECT_EQ(disk->getPosition(), kDiskSize);
}

TEST_F(BrickDiskReadWriteTest, SeekBeforeTheStartFailsWithCode7AndKeepsThePosition)
{
    disk->seek(100);

    const auto error = errorOf<CIOError>([&] { disk->seek(-1); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::SeekOutOfRange);
    EXPECT_EQ(messageOf(*error), "");
    EXPECT_EQ(propsOf(*error), Props({{"pos", "-1"}, {"size", str(kDiskSize)}, {"uri", kFolder}}));
    EXPECT_EQ(disk->getPosition(), 100);
}

TEST_F(BrickDiskReadWriteTest, SeekPastTheEndFailsWithCode7AndKeepsThePosition)
{
    disk->seek(100);

    const auto error = errorOf<CIOError>([&] { disk->seek(kDiskSize + 1); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::SeekOutOfRange);
    EXPECT_EQ(propsOf(*error), Props({{"pos", str(kDiskSize + 1)}, {"size", str(kDiskSize)}, {"uri", kFolder}}));
    EXPECT_EQ(disk->getPosition(), 100);
}

// --- Reading ------------------------------------------------------------------

TEST_F(BrickDiskReadWriteTest, NeverWrittenBytesReadAsZeros)
{
    EXPECT_EQ(readAt(*disk, 0, static_cast<int>(kDiskSize)), testsupport::zeroBytes(static_cast<int>(kDiskSize)));
    EXPECT_EQ(disk->getPosition(), kDiskSize);
}

TEST_F(BrickDiskReadWriteTest, ReadOfZeroOrNegativeCountDoesNothingEvenAtTheEnd)
{
    Bytes buffer = filled(4, 0xaa);
    disk->seek(kDiskSize);

    disk->read(buffer.getData(), 0);
    disk->read(buffer.getData(), -5);

    EXPECT_EQ(disk->getPosition(), kDiskSize);
    EXPECT_EQ(buffer, filled(4, 0xaa));
}

TEST_F(BrickDiskReadWriteTest, ReadPastTheEndCopiesWhatIsLeftThenFailsWithCode4)
{
    const Bytes tail = testsupport::patternBytes(4, 9);
    writeAt(*disk, kDiskSize - 4, tail);
    Bytes buffer = filled(10, 0xaa);
    disk->seek(kDiskSize - 4);

    const auto error = errorOf<CIOError>([&] { disk->read(buffer.getData(), 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::EndOfData);
    EXPECT_EQ(messageOf(*error), "");
    EXPECT_EQ(propsOf(*error), Props({{"uri", kFolder}}));
    EXPECT_EQ(disk->getPosition(), kDiskSize);
    EXPECT_EQ(Bytes(buffer.getData(), 4), tail);
    EXPECT_EQ(Bytes(buffer.getData() + 4, 6), filled(6, 0xaa));
}

TEST_F(BrickDiskReadWriteTest, ReadAtTheEndFailsWithCode4)
{
    Bytes buffer(1);
    disk->seek(kDiskSize);

    const auto error = errorOf<CIOError>([&] { disk->read(buffer.getData(), 1); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::EndOfData);
    EXPECT_EQ(propsOf(*error), Props({{"uri", kFolder}}));
}

TEST_F(BrickDiskReadWriteTest, ReadAndWriteAdvanceThePositionByTheirCount)
{
    disk->seek(kBrickSize - 10);
    const Bytes bytes = testsupport::patternBytes(30, 4);

    disk->write(bytes.getData(), 30);
    EXPECT_EQ(disk->getPosition(), kBrickSize + 20);
    disk->seek(kBrickSize - 10);
    Bytes read(30);
    disk->read(read.getData(), 30);

    EXPECT_EQ(disk->getPosition(), kBrickSize + 20);
    EXPECT_EQ(read, bytes);
}

TEST_F(BrickDiskReadWriteTest, WholeDiskRoundTripsIncludingTheShortLastBrick)
{
    const Bytes bytes = testsupport::patternBytes(static_cast<int>(kDiskSize), 17);
    writeAt(*disk, 0, bytes);
    EXPECT_EQ(disk->getPosition(), kDiskSize);

    reopen(IIOStream::AccessRead);

    EXPECT_EQ(testsupport::readWholeDisk(*disk), bytes);
    for (int64 index = 0; index <= 10; ++index)
        EXPECT_TRUE(hasBrickFile(index)) << "brick " << index;
    EXPECT_FALSE(hasBrickFile(11));
}

TEST_F(BrickDiskReadWriteTest, ReadCrossingABrickBorderReadsEachBrickOnce)
{
    const Bytes bytes = testsupport::patternBytes(100, 5);
    writeAt(*disk, kBrickSize - 50, bytes);
    reopen(IIOStream::AccessRead);
    fs->resetCounters();

    EXPECT_EQ(readAt(*disk, kBrickSize - 50, 100), bytes);

    EXPECT_EQ(openedFiles(), std::vector<std::string>({brickFile(0), brickFile(1)}));
}

// --- Writing ------------------------------------------------------------------

TEST_F(BrickDiskReadWriteTest, WriteCrossingABrickBorderStoresExactlyTheTwoBricks)
{
    writeAt(*disk, kBrickSize - 50, testsupport::patternBytes(100, 5));
    disk->flushChanges();

    EXPECT_TRUE(hasBrickFile(0));
    EXPECT_TRUE(hasBrickFile(1));
    EXPECT_FALSE(hasBrickFile(2));
    EXPECT_TRUE(disk->getBackgroundErrorList().empty());
}

TEST_F(BrickDiskReadWriteTest, WritePastTheEndFailsWithCode4AndWritesNothing)
{
    const Bytes tail = testsupport::patternBytes(4, 9);
    writeAt(*disk, kDiskSize - 4, tail);
    disk->seek(kDiskSize - 4);
    const Bytes bytes = testsupport::patternBytes(10, 10);

    const auto error = errorOf<CIOError>([&] { disk->write(bytes.getData(), 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::EndOfData);
    EXPECT_EQ(messageOf(*error), "");
    EXPECT_EQ(propsOf(*error), Props({{"uri", kFolder}}));
    EXPECT_EQ(disk->getPosition(), kDiskSize - 4);
    reopen(IIOStream::AccessRead);
    EXPECT_EQ(readAt(*disk, kDiskSize - 4, 4), tail);
}

TEST_F(BrickDiskReadWriteTest, WriteOfNothingAtTheEndIsAccepted)
{
    disk->seek(kDiskSize);
    Bytes nothing(1);

    disk->write(nothing.getData(), 0);

    EXPECT_EQ(disk->getPosition(), kDiskSize);
}

TEST_F(BrickDiskReadWriteTest, WriteToADiskOpenedForReadingFails)
{
    reopen(IIOStream::AccessRead);
    const Bytes bytes = testsupport::patternBytes(10, 1);

    const auto error = errorOf<CError>([&] { disk->write(bytes.getData(), 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error),
              "Internal error: CBrickDisk::write was called, but the disk was not opened for writing.");
    EXPECT_EQ(error->getDomain(), "");
    EXPECT_EQ(error->getCode(), -1);
    EXPECT_TRUE(error->getProps().isEmpty());
    EXPECT_EQ(disk->getPosition(), 0);
}

TEST_F(BrickDiskReadWriteTest, WriteToADiskWithAParentFailsUnlessAllowed)
{
    const P<CBrickDisk> child = makeChild();
    const Bytes bytes = testsupport::patternBytes(10, 1);

    const auto error = errorOf<CError>([&] { child->write(bytes.getData(), 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Cannot write to brick disk that has a parent disk attached.");
    EXPECT_EQ(error->getDomain(), "");
    EXPECT_EQ(error->getCode(), -1);
    EXPECT_EQ(propsOf(*error), Props({{"diskFolder", "/disks/child"}}));
    EXPECT_EQ(child->getPosition(), 0);

    child->setAllowWritingWithParentDisk(true);
    child->write(bytes.getData(), 10);
    EXPECT_EQ(readAt(*child, 0, 10), bytes);
}

TEST_F(BrickDiskReadWriteTest, AccessIsCheckedBeforeTheParent)
{
    makeChild();
    const P<CBrickDisk> child = open(IIOStream::AccessRead, "/disks/child");
    const Bytes bytes = testsupport::patternBytes(10, 1);

    const auto error = errorOf<CError>([&] { child->write(bytes.getData(), 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error),
              "Internal error: CBrickDisk::write was called, but the disk was not opened for writing.");
}

TEST_F(BrickDiskReadWriteTest, ParentIsCheckedBeforeTheSize)
{
    const P<CBrickDisk> child = makeChild();
    child->seek(kDiskSize);
    const Bytes bytes = testsupport::patternBytes(10, 1);

    const auto error = errorOf<CError>([&] { child->write(bytes.getData(), 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Cannot write to brick disk that has a parent disk attached.");
}

// --- Writing prepared bricks ----------------------------------------------------

TEST_F(BrickDiskReadWriteTest, PreparedBrickIsStoredAndReadsBackAsItsContent)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 31);
    const P<testsupport::CountingListener> listener(new testsupport::CountingListener());
    disk->seek(2 * kBrickSize);

    const P<CBrickStorer> storer = disk->writePreparedBrickData(prepared(plain).get(), listener.get());

    ASSERT_TRUE(storer);
    EXPECT_EQ(disk->getPosition(), 3 * kBrickSize);
    EXPECT_EQ(readAt(*disk, 2 * kBrickSize, kBrickSize), plain);
    ASSERT_TRUE(listener->waitCalled(10000));
    EXPECT_TRUE(storer->waitFinished(0));
    EXPECT_FALSE(listener->getLastError());
    EXPECT_TRUE(hasBrickFile(2));
    reopen(IIOStream::AccessRead);
    EXPECT_EQ(readAt(*disk, 2 * kBrickSize, kBrickSize), plain);
}

TEST_F(BrickDiskReadWriteTest, PreparedBrickReplacesUnsavedChangesOfTheSameBrick)
{
    writeAt(*disk, kBrickSize + 5, testsupport::patternBytes(10, 1));
    const Bytes plain = testsupport::patternBytes(kBrickSize, 32);
    disk->seek(kBrickSize);

    disk->writePreparedBrickData(prepared(plain).get(), nullptr);

    EXPECT_EQ(readAt(*disk, kBrickSize, kBrickSize), plain);
    reopen(IIOStream::AccessRead);
    EXPECT_EQ(readAt(*disk, kBrickSize, kBrickSize), plain);
}

TEST_F(BrickDiskReadWriteTest, UnsavedChangesOfTheCurrentBrickAreSavedWhenAPreparedBrickGoesElsewhere)
{
    const Bytes other = testsupport::patternBytes(10, 1);
    writeAt(*disk, 5, other);
    disk->seek(kBrickSize);

    disk->writePreparedBrickData(prepared(testsupport::patternBytes(kBrickSize, 2)).get(), nullptr);

    reopen(IIOStream::AccessRead);
    EXPECT_EQ(readAt(*disk, 5, 10), other);
}

TEST_F(BrickDiskReadWriteTest, NullPreparedDataStoresAnAllZeroBrick)
{
    writeAt(*disk, kBrickSize, testsupport::patternBytes(kBrickSize, 3));
    disk->flushChanges();
    ASSERT_TRUE(hasBrickFile(1));
    disk->seek(kBrickSize);

    disk->writePreparedBrickData(nullptr, nullptr);
    disk->flushChanges();

    EXPECT_FALSE(hasBrickFile(1));
    EXPECT_EQ(readAt(*disk, kBrickSize, kBrickSize), testsupport::zeroBytes(kBrickSize));
}

TEST_F(BrickDiskReadWriteTest, PreparedShortLastBrickLeavesThePositionAtTheEnd)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 33);
    disk->seek(10 * kBrickSize);

    disk->writePreparedBrickData(prepared(plain).get(), nullptr);

    EXPECT_EQ(disk->getPosition(), kDiskSize);
    EXPECT_EQ(readAt(*disk, 10 * kBrickSize, 1000), Bytes(plain.getData(), 1000));
}

TEST_F(BrickDiskReadWriteTest, PreparedBrickOffABoundaryFailsWithCode11)
{
    disk->seek(1);

    const auto error = errorOf<CIOError>([&] { disk->writePreparedBrickData(nullptr, nullptr); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::NotOnBoundary);
    EXPECT_EQ(messageOf(*error), "Prepared brick write in brick disk can only be done on a brick boundary.");
    EXPECT_EQ(propsOf(*error), Props({{"diskFolder", kFolder}, {"position", "1"}, {"brickSize", str(kBrickSize)}}));
    EXPECT_EQ(disk->getPosition(), 1);
}

TEST_F(BrickDiskReadWriteTest, PreparedBrickAtTheEndFailsWithCode3BeforeTheBoundaryCheck)
{
    disk->seek(kDiskSize);

    const auto error = errorOf<CIOError>([&] { disk->writePreparedBrickData(nullptr, nullptr); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::WriteBeyondSize);
    EXPECT_EQ(messageOf(*error), "Prepared brick write exceeds disk size.");
    EXPECT_EQ(propsOf(*error),
              Props({{"diskFolder", kFolder}, {"position", str(kDiskSize)}, {"diskSize", str(kDiskSize)}}));
}

TEST_F(BrickDiskReadWriteTest, PreparedBrickAtTheEndOfADiskOfWholeBricksFailsWithCode3)
{
    testsupport::createDisk(fs.get(), CURI("/disks/whole"), 4 * kBrickSize, "");
    const P<CBrickDisk> whole = testsupport::openDisk(fs.get(), CURI("/disks/whole"), "");
    whole->seek(4 * kBrickSize);

    const auto error = errorOf<CIOError>([&] { whole->writePreparedBrickData(nullptr, nullptr); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::WriteBeyondSize);
}

TEST_F(BrickDiskReadWriteTest, PreparedBrickOnADiskOpenedForReadingFailsAfterThePositionChecks)
{
    reopen(IIOStream::AccessRead);
    disk->seek(1);
    const auto offBoundary = errorOf<CIOError>([&] { disk->writePreparedBrickData(nullptr, nullptr); });
    disk->seek(0);

    const auto error = errorOf<CError>([&] { disk->writePreparedBrickData(nullptr, nullptr); });

    ASSERT_TRUE(offBoundary && error);
    EXPECT_EQ(offBoundary->getCode(), CIOError::NotOnBoundary);
    EXPECT_EQ(messageOf(*error),
              "Internal error: CBrickDisk::writePreparedBrickData was called, but the disk "
              "was not opened for writing.");
    EXPECT_EQ(error->getCode(), -1);
    EXPECT_TRUE(error->getProps().isEmpty());
    EXPECT_EQ(disk->getPosition(), 0);
}

TEST_F(BrickDiskReadWriteTest, PreparedBrickNeedsNoPermissionOnADiskWithAParent)
{
    const P<CBrickDisk> child = makeChild();
    const Bytes plain = testsupport::patternBytes(kBrickSize, 34);
    const P<Bytes> data = prepared(plain);

    child->writePreparedBrickData(data.get(), nullptr);
    child->flushChanges();

    EXPECT_TRUE(child->getBackgroundErrorList().empty());
    EXPECT_EQ(readAt(*child, 0, kBrickSize), plain);
    EXPECT_TRUE(hasBrickFile(0, "/disks/child"));
    EXPECT_FALSE(hasBrickFile(0));
}

// --- Bricks shorter than the disk expects ----------------------------------------

TEST_F(BrickDiskReadWriteTest, ReadingABrickThatHoldsFewerBytesFailsWithCode5AfterItsBytes)
{
    const Bytes shortPlain = testsupport::patternBytes(1000, 35);
    disk->seek(kBrickSize);
    disk->writePreparedBrickData(prepared(shortPlain).get(), nullptr);
    disk->flushChanges();
    Bytes buffer = filled(kBrickSize, 0xaa);
    disk->seek(kBrickSize);

    const auto error = errorOf<CIOError>([&] { disk->read(buffer.getData(), kBrickSize); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::InvalidData);
    EXPECT_EQ(messageOf(*error), "Brick holds fewer bytes than the disk expects.");
    EXPECT_EQ(propsOf(*error),
              Props({{"diskFolder", kFolder}, {"brickIndex", "1"}, {"position", str(kBrickSize + 1000)}}));
    EXPECT_EQ(disk->getPosition(), kBrickSize + 1000);
    EXPECT_EQ(Bytes(buffer.getData(), 1000), shortPlain);
}

TEST_F(BrickDiskReadWriteTest, WritingBeyondTheBytesOfAShortBrickFailsWithCode5)
{
    disk->seek(kBrickSize);
    disk->writePreparedBrickData(prepared(testsupport::patternBytes(1000, 36)).get(), nullptr);
    disk->seek(kBrickSize + 2000);
    const Bytes bytes = testsupport::patternBytes(10, 1);

    const auto error = errorOf<CIOError>([&] { disk->write(bytes.getData(), 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::InvalidData);
    EXPECT_EQ(disk->getPosition(), kBrickSize + 2000);
}

// --- Sizes that a header may not hold ------------------------------------------

// A header edited to a brick size of 0 or a disk size of -1 is refused when
// it is opened, naming the field, before any read could divide by the brick
// size or find the disk empty.
TEST_F(BrickDiskReadWriteTest, HeaderWithBricksOfNoBytesOrANegativeDiskSizeDoesNotOpen)
{
    testsupport::createDisk(fs.get(), CURI("/disks/edited"), 8 * kBrickSize, "");
    CBrickDiskHeader header;
    header.load(fs.get(), CURI("/disks/edited"));
    using Edit = std::function<void(CBrickDiskHeader&)>;
    for (const auto& [field, edit] :
         std::vector<std::pair<std::string, Edit>>{{"brickSize", [](CBrickDiskHeader& h) { h.setBrickSize(0); }},
                                                   {"diskSize", [](CBrickDiskHeader& h) { h.setDiskSize(-1); }}}) {
        SCOPED_TRACE(field);
        CBrickDiskHeader edited(header);
        edit(edited);
        edited.store(fs.get(), CURI("/disks/edited"));

        const auto error = errorOf<CError>([&] { testsupport::openDisk(fs.get(), CURI("/disks/edited"), ""); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->getProps().lookup("field").toUTF8(), field);
    }
}

} // namespace
