#include "brick/chain/Brick.h"

#include "support/BrickTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrick;
using brick::CBrickStorer;
using testsupport::brickFile;
using testsupport::Bytes;
using testsupport::LogCapture;
using testsupport::SteppedFileSystem;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBrickSize = 4096;
constexpr int kWaitMillis = 10000;

class BrickTest : public ::testing::Test {
protected:
    BrickTest()
        : fs(new CMemoryFileSystem(2)), header(testsupport::makeBrickHeader(kBrickSize)),
          key(testsupport::makeBrickKey("aes256cbc"))
    {
        for (const char* folder : {"/disk", "/parent", "/grandparent"})
            fs->createFolder(CURI(folder), 0x1ff);
        fs->resetCounters();
    }

    P<CBrick> makeBrick(const char* disk = "/disk", const char* child = "", std::vector<const char*> parents = {},
                        int maxBackgroundOps = 4, zo::IFileSystem* target = nullptr)
    {
        return testsupport::makeBrickOver(target ? target : fs.get(), header, key, maxBackgroundOps, disk, child,
                                          parents);
    }

    Bytes readWhole(CBrick& object, int64 index)
    {
        object.seek(index, 0);
        Bytes bytes(kBrickSize);
        EXPECT_EQ(object.readLaxInsideBrick(bytes.getData(), kBrickSize), kBrickSize);
        return bytes;
    }
    void writeAt(CBrick& object, int64 index, int position, const Bytes& bytes)
    {
        object.seek(index, position);
        EXPECT_EQ(object.writeLaxInsideBrick(bytes.getData(), bytes.getUsed()), bytes.getUsed());
    }
    // Saves the current brick and waits for every save.
    void flush(CBrick& object)
    {
        object.backgroundSaveChanges();
        ASSERT_TRUE(object.waitUntilBackgroundSavesDone(kWaitMillis));
        fs->waitUntilIdle();
    }
    // Writes `plain` as brick `index` of `disk` and saves it.
    void storeBrick(const char* disk, int64 index, const Bytes& plain)
    {
        const P<CBrick> writer = makeBrick(disk, "", {}, 1);
        writeAt(*writer, index, 0, plain);
        flush(*writer);
        ASSERT_FALSE(writer->haveBackgroundErrors());
    }

    bool fileExists(const std::string& file) { return fs->getFileData(CURI(file.c_str())) != nullptr; }
    Bytes plainOfFile(const std::string& file)
    {
        const P<Bytes> data = fs->getFileData(CURI(file.c_str()));
        return data ? testsupport::unprepareBrick(header, key, *data) : Bytes();
    }
    std::vector<std::string> log() const { return testsupport::toStrings(fs->getOperationLog()); }

    P<CMemoryFileSystem> fs;
    brick::CBrickDiskHeader header;
    testsupport::Key key;
};

bool sameBytes(const Bytes& a, const Bytes& b)
{
    return testsupport::sameBytes(a, b);
}

// --- Reading and writing inside a brick ---------------------------------------

TEST_F(BrickTest, ReadsANeverWrittenBrickAsZerosAndCreatesNoFile)
{
    const P<CBrick> object = makeBrick("/disk", "", {"/parent"});

    EXPECT_TRUE(sameBytes(readWhole(*object, 5), testsupport::zeroBytes(kBrickSize)));
    object->seek(6, 0);
    flush(*object);

    EXPECT_EQ(
        log(),
        std::vector<std::string>({"openStream " + brickFile("/disk", 5), "openStream " + brickFile("/parent", 5)}));
    EXPECT_FALSE(fileExists(brickFile("/disk", 5)));
    EXPECT_EQ(object->getPositionInBrick(), 0);
}

TEST_F(BrickTest, ReadStopsAtTheEndOfTheBrick)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 4);
    storeBrick("/disk", 3, plain);
    const P<CBrick> object = makeBrick();

    object->seek(3, kBrickSize - 6);
    Bytes tail(100);
    EXPECT_EQ(object->readLaxInsideBrick(tail.getData(), 100), 6);
    EXPECT_EQ(std::memcmp(tail.getData(), plain.getData() + kBrickSize - 6, 6), 0);
    EXPECT_EQ(object->getPositionInBrick(), kBrickSize);
    EXPECT_EQ(object->readLaxInsideBrick(tail.getData(), 100), 0);
    EXPECT_EQ(object->getPositionInBrick(), kBrickSize);
}

TEST_F(BrickTest, WriteStopsAtTheEndOfTheBrick)
{
    const P<CBrick> object = makeBrick();
    const Bytes bytes = testsupport::patternBytes(200, 5);

    object->seek(3, kBrickSize - 96);
    EXPECT_EQ(object->writeLaxInsideBrick(bytes.getData(), 200), 96);
    EXPECT_EQ(object->getPositionInBrick(), kBrickSize);
    EXPECT_EQ(object->writeLaxInsideBrick(bytes.getData(), 200), 0);

    const Bytes whole = readWhole(*object, 3);
    EXPECT_EQ(std::memcmp(whole.getData() + kBrickSize - 96, bytes.getData(), 96), 0);
    EXPECT_TRUE(sameBytes(Bytes(whole.getData(), kBrickSize - 96), testsupport::zeroBytes(kBrickSize - 96)));
}

TEST_F(BrickTest, WritingAWholeBrickAtPositionZeroNeverReadsTheOldFile)
{
    fs->setFileData(CURI(brickFile("/disk", 5).c_str()), testsupport::patternBytes(300, 6));
    fs->failStreamReads(CURI("/disk"), CFileSystemError::AccessDenied);
    fs->resetCounters();
    const P<CBrick> object = makeBrick();
    const Bytes plain = testsupport::patternBytes(kBrickSize, 7);

    object->seek(5, 0);
    EXPECT_EQ(object->writeLaxInsideBrick(plain.getData(), kBrickSize), kBrickSize);
    EXPECT_EQ(object->getPositionInBrick(), kBrickSize);
    EXPECT_TRUE(sameBytes(readWhole(*object, 5), plain));
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);

    flush(*object);
    EXPECT_FALSE(object->haveBackgroundErrors());
    fs->clearFailures();
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/disk", 5)), plain));
}

TEST_F(BrickTest, PartialWriteLoadsTheBrickFirst)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 8);
    storeBrick("/disk", 2, plain);
    const P<CBrick> object = makeBrick();
    const Bytes patch = testsupport::patternBytes(10, 9);

    writeAt(*object, 2, 100, patch);
    object->seek(3, 0);
    flush(*object);

    Bytes expected(plain);
    std::memcpy(expected.getData() + 100, patch.getData(), 10);
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/disk", 2)), expected));
}

TEST_F(BrickTest, SeekToTheCurrentBrickKeepsUnsavedChanges)
{
    const P<CBrick> object = makeBrick();
    const Bytes patch = testsupport::patternBytes(10, 10);
    writeAt(*object, 4, 100, patch);
    fs->resetCounters();

    object->seek(4, 0);

    EXPECT_EQ(object->getPositionInBrick(), 0);
    EXPECT_EQ(object->getBackgroundSavesInProgress(), 0);
    const Bytes whole = readWhole(*object, 4);
    EXPECT_EQ(std::memcmp(whole.getData() + 100, patch.getData(), 10), 0);
    EXPECT_TRUE(log().empty()); // neither saved nor loaded again
}

TEST_F(BrickTest, LeavingAnUnchangedBrickSavesNothing)
{
    storeBrick("/disk", 1, testsupport::patternBytes(kBrickSize, 11));
    const P<CBrick> object = makeBrick();
    readWhole(*object, 1);
    const Bytes none;
    object->seek(1, kBrickSize);
    EXPECT_EQ(object->writeLaxInsideBrick(none.getData(), 0), 0);
    fs->resetCounters();

    object->seek(2, 0);
    flush(*object);

    EXPECT_TRUE(log().empty());
}

TEST_F(BrickTest, SavingKeepsTheChangedBrickLoaded)
{
    const P<CBrick> object = makeBrick();
    const Bytes patch = testsupport::patternBytes(10, 12);
    writeAt(*object, 4, 0, patch);

    flush(*object);
    fs->resetCounters();

    object->seek(4, 0);
    Bytes head(10);
    EXPECT_EQ(object->readLaxInsideBrick(head.getData(), 10), 10);
    EXPECT_TRUE(sameBytes(head, patch));
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);
    object->seek(5, 0);
    flush(*object);
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 0); // the save left it clean
}

// --- Loading ------------------------------------------------------------------

TEST_F(BrickTest, ReadsABrickWhoseSaveIsInFlightFromTheSave)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrick> object = makeBrick("/disk", "", {}, 4, stepped.get());
    const Bytes plain = testsupport::patternBytes(kBrickSize, 13);
    fs->createFolder(CURI("/disk/bricks/b000/a000"), 0x1ff);

    writeAt(*object, 2, 0, plain);
    object->seek(9, 0);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    fs->resetCounters();

    EXPECT_TRUE(sameBytes(readWhole(*object, 2), plain));
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);
    EXPECT_EQ(object->getBackgroundSavesInProgress(), 1);

    ASSERT_TRUE(stepped->deliverNext());
    EXPECT_TRUE(object->waitUntilBackgroundSavesDone(kWaitMillis));
    EXPECT_FALSE(object->haveBackgroundErrors());
}

TEST_F(BrickTest, ReadsAnAllZeroBrickWhoseDeleteIsInFlightAsZeros)
{
    storeBrick("/disk", 2, testsupport::patternBytes(kBrickSize, 14));
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrick> object = makeBrick("/disk", "", {}, 4, stepped.get());

    writeAt(*object, 2, 0, testsupport::zeroBytes(kBrickSize));
    object->seek(9, 0);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    fs->resetCounters();

    EXPECT_TRUE(sameBytes(readWhole(*object, 2), testsupport::zeroBytes(kBrickSize)));
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);

    ASSERT_TRUE(stepped->deliverNext());
    EXPECT_TRUE(object->waitUntilBackgroundSavesDone(kWaitMillis));
}

TEST_F(BrickTest, ReadsTheBytesBeingSavedNotTheOlderFile)
{
    storeBrick("/disk", 2, testsupport::patternBytes(kBrickSize, 15));
    const P<CBrick> object = makeBrick();
    const Bytes plain = testsupport::patternBytes(kBrickSize, 16);
    fs->setCompletionDelay(400, 400);

    writeAt(*object, 2, 0, plain);
    object->seek(9, 0);
    fs->resetCounters();
    const Bytes read = readWhole(*object, 2);
    ASSERT_EQ(object->getBackgroundSavesInProgress(), 1) << "the save ended before the read";

    EXPECT_TRUE(sameBytes(read, plain));
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);
    flush(*object);
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/disk", 2)), plain));
}

TEST_F(BrickTest, ReadsABrickFoundOnlyInAParentFolderFromThere)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 17);
    storeBrick("/parent", 4, plain);
    const P<CBrick> object = makeBrick("/disk", "", {"/parent"});
    fs->resetCounters();

    EXPECT_TRUE(sameBytes(readWhole(*object, 4), plain));
    // After the read from the parent the disk's own folder is looked at
    // again, in case a writer of the parent preserved the brick there meanwhile.
    EXPECT_EQ(log(),
              std::vector<std::string>({"openStream " + brickFile("/disk", 4), "openStream " + brickFile("/parent", 4),
                                        "fileExists " + brickFile("/disk", 4)}));
}

TEST_F(BrickTest, TellsWhetherAnyFolderStoresTheBrickWithTheOneLoad)
{
    storeBrick("/parent", 4, testsupport::patternBytes(kBrickSize, 18));
    const P<CBrick> object = makeBrick("/disk", "", {"/parent"});
    fs->resetCounters();

    object->seek(3, 0);
    EXPECT_FALSE(object->isStored());
    object->seek(4, 0);
    EXPECT_TRUE(object->isStored());
    const int looks = fs->getOperationCount(Op::OpenStream);
    EXPECT_TRUE(sameBytes(readWhole(*object, 4), testsupport::patternBytes(kBrickSize, 18)));
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), looks) << "the read uses what isStored loaded";
    writeAt(*object, 3, 0, testsupport::patternBytes(kBrickSize, 19));
    EXPECT_TRUE(object->isStored()) << "a whole brick written here";
}

TEST_F(BrickTest, IsStoredThrowsForADamagedBrickFile)
{
    storeBrick("/disk", 5, testsupport::patternBytes(kBrickSize, 24));
    const CURI file(brickFile("/disk", 5).c_str());
    Bytes damaged(*fs->getFileData(file));
    damaged[damaged.getUsed() / 2] ^= 0x40;
    fs->setFileData(file, damaged);
    const P<CBrick> object = makeBrick("/disk");
    LogCapture logCapture;

    object->seek(5, 0);
    EXPECT_THROW(object->isStored(), zo::CError);
}

TEST_F(BrickTest, SearchesTheParentFoldersInTheirOrder)
{
    const Bytes nearer = testsupport::patternBytes(kBrickSize, 18);
    storeBrick("/grandparent", 4, testsupport::patternBytes(kBrickSize, 19));
    storeBrick("/parent", 4, nearer);
    storeBrick("/grandparent", 5, testsupport::patternBytes(kBrickSize, 20));
    const P<CBrick> object = makeBrick("/disk", "", {"/parent", "/grandparent"});
    fs->resetCounters();

    EXPECT_TRUE(sameBytes(readWhole(*object, 4), nearer));
    readWhole(*object, 5);
    EXPECT_EQ(
        log(),
        std::vector<std::string>({"openStream " + brickFile("/disk", 4), "openStream " + brickFile("/parent", 4),
                                  "fileExists " + brickFile("/disk", 4), "openStream " + brickFile("/disk", 5),
                                  "openStream " + brickFile("/parent", 5), "openStream " + brickFile("/grandparent", 5),
                                  "fileExists " + brickFile("/disk", 5), "fileExists " + brickFile("/parent", 5)}));
}

TEST_F(BrickTest, StoresAChangedParentBrickInItsOwnFolderAndFindsItThereFirst)
{
    const Bytes parentPlain = testsupport::patternBytes(kBrickSize, 21);
    storeBrick("/parent", 4, parentPlain);
    const P<Bytes> parentFile = fs->getFileData(CURI(brickFile("/parent", 4).c_str()));
    const Bytes patch = testsupport::patternBytes(16, 22);
    {
        const P<CBrick> object = makeBrick("/disk", "", {"/parent"});
        writeAt(*object, 4, 1000, patch);
        object->seek(5, 0);
        flush(*object);
        EXPECT_FALSE(object->haveBackgroundErrors());
    }
    Bytes expected(parentPlain);
    std::memcpy(expected.getData() + 1000, patch.getData(), 16);
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/disk", 4)), expected));
    EXPECT_TRUE(sameBytes(*fs->getFileData(CURI(brickFile("/parent", 4).c_str())), *parentFile));

    const P<CBrick> reader = makeBrick("/disk", "", {"/parent"});
    fs->resetCounters();
    EXPECT_TRUE(sameBytes(readWhole(*reader, 4), expected));
    EXPECT_EQ(log(), std::vector<std::string>({"openStream " + brickFile("/disk", 4)}));
}

TEST_F(BrickTest, DamagedBrickFileFailsTheLoadLogsItAndStaysNotLoaded)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 23);
    storeBrick("/disk", 5, plain);
    const CURI file(brickFile("/disk", 5).c_str());
    const P<Bytes> good = fs->getFileData(file);
    Bytes damaged(*good);
    damaged[damaged.getUsed() / 2] ^= 0x40;
    fs->setFileData(file, damaged);
    const P<CBrick> object = makeBrick("/disk", "", {"/parent"});
    LogCapture logCapture;
    fs->resetCounters();

    object->seek(5, 0);
    Bytes bytes(kBrickSize);
    EXPECT_THROW(object->readLaxInsideBrick(bytes.getData(), kBrickSize), zo::CError);
    const std::string message = "Error loading brick payload (diskFolder:/disk, brickIndex:5). Letting through.";
    EXPECT_EQ(logCapture.countContaining(message), 1);
    // Not loaded: the next access tries the file again.
    EXPECT_THROW(object->readLaxInsideBrick(bytes.getData(), kBrickSize), zo::CError);
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 2);
    EXPECT_EQ(logCapture.countContaining("Letting through."), 2);

    fs->setFileData(file, *good);
    EXPECT_EQ(object->readLaxInsideBrick(bytes.getData(), kBrickSize), kBrickSize);
    EXPECT_TRUE(sameBytes(bytes, plain));
}

TEST_F(BrickTest, PartialWriteToABrickThatCannotBeLoadedThrowsAndSavesNothing)
{
    fs->setFileData(CURI(brickFile("/disk", 5).c_str()), testsupport::patternBytes(500, 24));
    const P<CBrick> object = makeBrick();
    LogCapture logCapture;
    const Bytes patch = testsupport::patternBytes(10, 25);

    object->seek(5, 10);
    EXPECT_THROW(object->writeLaxInsideBrick(patch.getData(), 10), zo::CError);
    fs->resetCounters();
    object->seek(6, 0);
    flush(*object);

    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 0);
    EXPECT_FALSE(object->haveBackgroundErrors());
}

TEST_F(BrickTest, ReadFailureOtherThanAMissingFileFailsTheLoad)
{
    storeBrick("/disk", 5, testsupport::patternBytes(kBrickSize, 26));
    storeBrick("/parent", 5, testsupport::patternBytes(kBrickSize, 27));
    fs->failStreamReads(CURI("/disk"), CFileSystemError::AccessDenied);
    const P<CBrick> object = makeBrick("/disk", "", {"/parent"});
    LogCapture logCapture;

    object->seek(5, 0);
    Bytes bytes(kBrickSize);
    try {
        object->readLaxInsideBrick(bytes.getData(), kBrickSize);
        FAIL() << "an unreadable brick file was passed over";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::AccessDenied);
    }
    EXPECT_EQ(logCapture.countContaining("Letting through."), 1);
}

TEST_F(BrickTest, ReadFailureThatSaysNotFoundMovesOnToTheNextFolder)
{
    const Bytes parentPlain = testsupport::patternBytes(kBrickSize, 28);
    storeBrick("/disk", 5, testsupport::patternBytes(kBrickSize, 29));
    storeBrick("/parent", 5, parentPlain);
    fs->failStreamReads(CURI("/disk"), CFileSystemError::NotFound);
    const P<CBrick> object = makeBrick("/disk", "", {"/parent"});

    EXPECT_TRUE(sameBytes(readWhole(*object, 5), parentPlain));
}

TEST_F(BrickTest, BrickWrittenWithAnotherKeyFailsToLoad)
{
    testsupport::Key otherKey(key);
    otherKey[0] ^= 1;
    fs->setFileData(CURI(brickFile("/disk", 5).c_str()),
                    testsupport::prepareBrick(header, otherKey, testsupport::patternBytes(kBrickSize, 30)));
    const P<CBrick> object = makeBrick();
    LogCapture logCapture;

    object->seek(5, 0);
    Bytes bytes(kBrickSize);
    EXPECT_THROW(object->readLaxInsideBrick(bytes.getData(), kBrickSize), std::exception);
    EXPECT_EQ(logCapture.countContaining("Letting through."), 1);
}

// --- Background saves -----------------------------------------------------------

TEST_F(BrickTest, SecondSaveWaitsForTheFirstWhenOnlyOneMayRun)
{
    fs->createFolder(CURI("/disk/bricks/b000/a000"), 0x1ff);
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrick> object = makeBrick("/disk", "", {}, 1, stepped.get());
    writeAt(*object, 0, 0, testsupport::patternBytes(kBrickSize, 31));
    object->seek(1, 0);
    writeAt(*object, 1, 0, testsupport::patternBytes(kBrickSize, 32));

    int storesWhileTheFirstRan = -1;
    std::thread deliverer([&] {
        if (!stepped->waitForHeld(kWaitMillis))
            return;
        // Give a second save every chance to start too early.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        storesWhileTheFirstRan = fs->getOperationCount(Op::StoreFile);
        stepped->deliverNext();
        if (stepped->waitForHeld(kWaitMillis))
            stepped->deliverNext();
    });
    object->seek(2, 0); // saves brick 1, after brick 0's save has ended
    deliverer.join();

    EXPECT_EQ(storesWhileTheFirstRan, 1);
    EXPECT_TRUE(object->waitUntilBackgroundSavesDone(kWaitMillis));
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 2);
    EXPECT_TRUE(fileExists(brickFile("/disk", 0)));
    EXPECT_TRUE(fileExists(brickFile("/disk", 1)));
    EXPECT_FALSE(object->haveBackgroundErrors());
}

TEST_F(BrickTest, WaitForAFreeSlotGivesUpAtItsTimeLimit)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrick> object = makeBrick("/disk", "", {}, 1, stepped.get());
    EXPECT_TRUE(object->waitForFreeBackgroundOpSlot(0));
    writeAt(*object, 0, 0, testsupport::patternBytes(kBrickSize, 33));
    object->seek(1, 0);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));

    EXPECT_FALSE(object->waitForFreeBackgroundOpSlot(0));

    for (int attempt = 0; attempt < 100 && !object->waitForFreeBackgroundOpSlot(0); ++attempt) {
        if (stepped->waitForHeld(100))
            stepped->deliverNext();
    }
    EXPECT_TRUE(object->waitForFreeBackgroundOpSlot(0));
    EXPECT_EQ(object->getBackgroundSavesInProgress(), 0);
}

TEST_F(BrickTest, SavingTheSameBrickTwiceKeepsTheSecondData)
{
    const Bytes first = testsupport::patternBytes(kBrickSize, 34);
    const Bytes second = testsupport::patternBytes(kBrickSize, 35);
    const P<CBrick> object = makeBrick("/disk", "", {}, 8);

    // The first save is slow and the second fast: only waiting for the first
    // to end lets the second land last.
    fs->setCompletionDelay(300, 300);
    writeAt(*object, 0, 0, first);
    object->seek(1, 0);
    fs->setCompletionDelay(0, 0);
    writeAt(*object, 0, 0, second);
    object->seek(1, 0);
    flush(*object);

    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/disk", 0)), second));
    EXPECT_FALSE(object->haveBackgroundErrors());
}

TEST_F(BrickTest, WaitUntilSavesAreDoneWithNoTimeOnlyTests)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrick> object = makeBrick("/disk", "", {}, 4, stepped.get());
    EXPECT_TRUE(object->waitUntilBackgroundSavesDone(0));

    writeAt(*object, 0, 0, testsupport::patternBytes(kBrickSize, 36));
    object->seek(1, 0);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_FALSE(object->waitUntilBackgroundSavesDone(0));
    EXPECT_FALSE(object->waitUntilBackgroundSavesDone(20));

    while (stepped->waitForHeld(200))
        stepped->deliverNext();
    EXPECT_TRUE(object->waitUntilBackgroundSavesDone(0));
    EXPECT_FALSE(object->haveBackgroundErrors());
}

TEST_F(BrickTest, SavesAnAllZeroChangedBrickByDeletingItsFile)
{
    const Bytes head = testsupport::patternBytes(10, 37);
    {
        const P<CBrick> writer = makeBrick();
        writeAt(*writer, 3, 0, head);
        flush(*writer);
    }
    ASSERT_TRUE(fileExists(brickFile("/disk", 3)));
    const P<CBrick> object = makeBrick();
    writeAt(*object, 3, 0, testsupport::zeroBytes(10));
    fs->resetCounters();

    object->seek(4, 0);
    flush(*object);

    EXPECT_EQ(log(), std::vector<std::string>({"deleteFile " + brickFile("/disk", 3)}));
    EXPECT_FALSE(fileExists(brickFile("/disk", 3)));
    const P<CBrick> reader = makeBrick();
    EXPECT_TRUE(sameBytes(readWhole(*reader, 3), testsupport::zeroBytes(kBrickSize)));
}

TEST_F(BrickTest, StoresAnAllZeroBrickAsAFileWhenAParentHoldsTheBrick)
{
    storeBrick("/parent", 3, testsupport::patternBytes(kBrickSize, 39));
    {
        const P<CBrick> object = makeBrick("/disk", "", {"/parent"});
        writeAt(*object, 3, 0, testsupport::zeroBytes(kBrickSize));
        object->seek(4, 0);
        flush(*object);
        EXPECT_FALSE(object->haveBackgroundErrors());
    }
    EXPECT_TRUE(fileExists(brickFile("/disk", 3)));
    const P<CBrick> reader = makeBrick("/disk", "", {"/parent"});
    EXPECT_TRUE(sameBytes(readWhole(*reader, 3), testsupport::zeroBytes(kBrickSize)));
}

TEST_F(BrickTest, BackgroundSavesInProgressNeverCountsEndedSaves)
{
    const P<CBrick> object = makeBrick();
    writeAt(*object, 0, 0, testsupport::patternBytes(kBrickSize, 38));
    object->seek(1, 0);
    writeAt(*object, 1, 0, testsupport::patternBytes(kBrickSize, 39));
    object->seek(2, 0);

    fs->waitUntilIdle(); // both storers have ended, neither has been reaped

    EXPECT_EQ(object->getBackgroundSavesInProgress(), 0);
}

TEST_F(BrickTest, FailedSaveLeavesExactlyOneErrorForThatBrick)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::AccessDenied, true);
    const P<CBrick> object = makeBrick();
    LogCapture logCapture;

    EXPECT_NO_THROW({
        writeAt(*object, 7, 0, testsupport::patternBytes(kBrickSize, 40));
        object->seek(8, 0);
    });
    fs->waitUntilIdle();

    EXPECT_TRUE(object->haveBackgroundErrors());
    const auto& errors = object->getBackgroundErrorList();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors.front().brickIndex, 7);
    ASSERT_NE(errors.front().error, nullptr);
    EXPECT_EQ(CFileSystemError::getProblem(errors.front().error->getProps()), CFileSystemError::AccessDenied);
    EXPECT_EQ(logCapture.countContaining("Error during background brick storing operation."), 1);
    EXPECT_EQ(object->getBackgroundErrorList().size(), 1u);
}

TEST_F(BrickTest, FailureToStartASaveIsLoggedAndRecordedButNotThrown)
{
    const P<SteppedFileSystem> refusing(new SteppedFileSystem(fs.get(), false));
    refusing->throwOnStart(Op::StoreFile, 1, CFileSystemError::AccessDenied);
    const P<CBrick> object = makeBrick("/disk", "", {}, 4, refusing.get());
    LogCapture logCapture;

    EXPECT_NO_THROW({
        writeAt(*object, 7, 0, testsupport::patternBytes(kBrickSize, 41));
        object->seek(8, 0);
    });

    const auto& errors = object->getBackgroundErrorList();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors.front().brickIndex, 7);
    EXPECT_STREQ(errors.front().error->what(), "Refused to start the operation.");
    EXPECT_EQ(logCapture.countContaining("Error initiating background brick storing operation."), 1);
    EXPECT_EQ(object->getBackgroundSavesInProgress(), 0);
}

TEST_F(BrickTest, ChangeWhoseSaveCannotStartStaysInMemoryButNotDirty)
{
    const P<SteppedFileSystem> refusing(new SteppedFileSystem(fs.get(), false));
    refusing->throwOnStart(Op::StoreFile, 1, CFileSystemError::AccessDenied);
    const P<CBrick> object = makeBrick("/disk", "", {}, 4, refusing.get());
    LogCapture logCapture;
    const Bytes plain = testsupport::patternBytes(kBrickSize, 42);

    writeAt(*object, 7, 0, plain);
    object->backgroundSaveChanges();
    object->backgroundSaveChanges();

    EXPECT_EQ(object->getBackgroundErrorList().size(), 1u);
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 0);
    EXPECT_TRUE(sameBytes(readWhole(*object, 7), plain));
}

TEST_F(BrickTest, DestroyingTheBrickSavesChangesAndWaitsForThem)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 43);
    fs->setCompletionDelay(30, 60);
    {
        const P<CBrick> object = makeBrick();
        writeAt(*object, 6, 0, plain);
    }
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/disk", 6)), plain));
}

TEST_F(BrickTest, WritePreparedBrickStoresTheGivenBytesAndReadsThemBackWhileInFlight)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 44);
    const P<Bytes> prepared = testsupport::countedCopy(testsupport::prepareBrick(header, key, plain));
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrick> object = makeBrick("/disk", "", {}, 4, stepped.get());
    const P<testsupport::CountingListener> listener(new testsupport::CountingListener());
    writeAt(*object, 3, 0, testsupport::patternBytes(10, 45)); // replaced by the prepared brick

    object->seek(3, 0);
    const P<CBrickStorer> storer = object->writePreparedBrick(prepared.get(), listener.get());
    ASSERT_NE(storer, nullptr);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    fs->resetCounters();
    EXPECT_TRUE(sameBytes(readWhole(*object, 3), plain));
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);

    while (!storer->waitFinished(0)) {
        ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
        stepped->deliverNext();
    }
    EXPECT_TRUE(object->waitUntilBackgroundSavesDone(kWaitMillis));
    EXPECT_EQ(listener->getCallCount(), 1);
    EXPECT_TRUE(sameBytes(*fs->getFileData(CURI(brickFile("/disk", 3).c_str())), *prepared));
}

TEST_F(BrickTest, WritePreparedBrickWithoutDataDeletesTheFile)
{
    storeBrick("/disk", 3, testsupport::patternBytes(kBrickSize, 46));
    const P<CBrick> object = makeBrick();

    object->seek(3, 0);
    const P<CBrickStorer> storer = object->writePreparedBrick(nullptr, nullptr);
    ASSERT_TRUE(storer->waitFinished(kWaitMillis));
    EXPECT_EQ(storer->getError(), nullptr);

    EXPECT_FALSE(fileExists(brickFile("/disk", 3)));
    EXPECT_TRUE(sameBytes(readWhole(*object, 3), testsupport::zeroBytes(kBrickSize)));
}

// --- With a child disk --------------------------------------------------------

TEST_F(BrickTest, HandsTheOldBrickToTheChildOnTheFirstChangeOnly)
{
    const Bytes old = testsupport::patternBytes(kBrickSize, 47);
    storeBrick("/disk", 3, old);
    fs->createFolder(CURI("/child"), 0x1ff);
    const Bytes firstPatch = testsupport::patternBytes(8, 48);
    const Bytes secondPatch = testsupport::patternBytes(8, 49);
    {
        const P<CBrick> object = makeBrick("/disk", "/child");
        writeAt(*object, 3, 0, firstPatch);
        writeAt(*object, 4, 0, firstPatch); // a brick the disk never held
        flush(*object);
        writeAt(*object, 3, 100, secondPatch);
        flush(*object);
        EXPECT_FALSE(object->haveBackgroundErrors());
    }

    Bytes current(old);
    std::memcpy(current.getData(), firstPatch.getData(), 8);
    std::memcpy(current.getData() + 100, secondPatch.getData(), 8);
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/disk", 3)), current));
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/child", 3)), old));
    EXPECT_TRUE(sameBytes(plainOfFile(brickFile("/child", 4)), testsupport::zeroBytes(kBrickSize)));

    // The child, which reads through to this disk, still sees the old bricks.
    const P<CBrick> childView = makeBrick("/child", "", {"/disk"});
    EXPECT_TRUE(sameBytes(readWhole(*childView, 3), old));
    EXPECT_TRUE(sameBytes(readWhole(*childView, 4), testsupport::zeroBytes(kBrickSize)));
}

} // namespace
