#include "brick/chain/BrickStorer.h"

#include "brick/chain/Brick.h"

#include "support/BrickTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace {

using brick::CBrickStorer;
using testsupport::Bytes;
using testsupport::CountingListener;
using testsupport::SteppedFileSystem;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;
using Lines = std::vector<std::string>;

constexpr int kBrickSize = 4096;
constexpr int kWaitMillis = 10000;

// The brick 0x12345 of a tree of 3 levels with 256 entries each.
const CURI kRelative("bricks/b001/a023/045.brick");
const std::string kDiskFile = "/disk/bricks/b001/a023/045.brick";
const std::string kChildFile = "/child/bricks/b001/a023/045.brick";

std::string diskFolder(const char* sub)
{
    return std::string("/disk/") + sub;
}

std::string childFolder(const char* sub)
{
    return std::string("/child/") + sub;
}

class BrickStorerTest : public ::testing::Test {
protected:
    BrickStorerTest()
        : fs(new CMemoryFileSystem(2)), header(testsupport::makeBrickHeader(kBrickSize)),
          key(testsupport::makeBrickKey("aes256cbc")),
          newPrepared(testsupport::prepareBrick(header, key, testsupport::patternBytes(kBrickSize, 1))),
          oldPrepared(testsupport::prepareBrick(header, key, testsupport::patternBytes(kBrickSize, 2))),
          childOwnPrepared(testsupport::prepareBrick(header, key, testsupport::patternBytes(kBrickSize, 3))),
          zeroPrepared(testsupport::prepareBrick(header, key, testsupport::zeroBytes(kBrickSize)))
    {}

    // Stores a counted copy of `data` (null: an all-zero brick) as the brick 0x12345 of "/disk".
    P<CBrickStorer> start(zo::IFileSystem* target, bool withChild, const Bytes* data, zo::IDoneListener* listener)
    {
        const P<Bytes> counted = data ? testsupport::countedCopy(*data) : P<Bytes>();
        return CBrickStorer::start(target, CURI("/disk"), kRelative, withChild ? CURI("/child") : CURI(),
                                   withChild ? kRelative : CURI(), counted.get(),
                                   testsupport::countedCopy(zeroPrepared).get(), listener);
    }
    P<CBrickStorer> start(bool withChild, const Bytes* data, zo::IDoneListener* listener = nullptr)
    {
        return start(fs.get(), withChild, data, listener);
    }

    // Waits for the end of the storer and of every operation it started.
    void finish(CBrickStorer& storer)
    {
        ASSERT_TRUE(storer.waitFinished(kWaitMillis));
        fs->waitUntilIdle();
    }

    void makeFolder(const std::string& folder) { fs->createFolder(CURI(folder.c_str()), 0x1ff); }
    void putFile(const std::string& file, const Bytes& bytes) { fs->setFileData(CURI(file.c_str()), bytes); }
    // The file's bytes; empty and `exists` false when there is none.
    bool fileHolds(const std::string& file, const Bytes& expected)
    {
        const P<Bytes> data = fs->getFileData(CURI(file.c_str()));
        return data && testsupport::sameBytes(*data, expected);
    }
    bool fileExists(const std::string& file) { return fs->getFileData(CURI(file.c_str())) != nullptr; }

    // Runs from here on count from zero in the log.
    void startLogging() { fs->resetCounters(); }
    Lines log() const { return testsupport::toStrings(fs->getOperationLog()); }

    P<CMemoryFileSystem> fs;
    brick::CBrickDiskHeader header;
    testsupport::Key key;
    Bytes newPrepared;
    Bytes oldPrepared;
    Bytes childOwnPrepared;
    Bytes zeroPrepared;
};

// --- Without a child folder -------------------------------------------------

TEST_F(BrickStorerTest, StoresWithOneOperationWhenTheBrickFolderExists)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    startLogging();
    const P<CountingListener> listener(new CountingListener());

    const P<CBrickStorer> storer = start(false, &newPrepared, listener.get());
    finish(*storer);

    EXPECT_EQ(log(), Lines({"storeFile " + kDiskFile}));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_EQ(storer->getProgress(), 1.0);
    EXPECT_EQ(storer->getState(), CBrickStorer::end);
    EXPECT_EQ(listener->getCallCount(), 1);
    EXPECT_EQ(listener->getLastError(), nullptr);
}

TEST_F(BrickStorerTest, ReplacesAnExistingBrickFileWithoutAChild)
{
    putFile(kDiskFile, oldPrepared);
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(log(), Lines({"storeFile " + kDiskFile}));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, DeletesTheFileOfAnAllZeroBrickWithOneOperation)
{
    putFile(kDiskFile, oldPrepared);
    startLogging();

    const P<CBrickStorer> storer = start(false, nullptr);
    finish(*storer);

    EXPECT_EQ(log(), Lines({"deleteFile " + kDiskFile}));
    EXPECT_FALSE(fileExists(kDiskFile));
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_EQ(storer->getBrickData(), nullptr);
    EXPECT_EQ(storer->getProgress(), 1.0);
}

TEST_F(BrickStorerTest, CreatesMissingFoldersFromTheDeepestUpToBricksAndBackDown)
{
    makeFolder("/disk");
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(log(),
              Lines({"storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"),
                     "createFolder " + diskFolder("bricks/b001"), "createFolder " + diskFolder("bricks"),
                     "createFolder " + diskFolder("bricks/b001"), "createFolder " + diskFolder("bricks/b001/a023"),
                     "storeFile " + kDiskFile}));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, ClimbsOnlyUpToTheFirstFolderThatExists)
{
    makeFolder("/disk/bricks");
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(log(),
              Lines({"storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"),
                     "createFolder " + diskFolder("bricks/b001"), "createFolder " + diskFolder("bricks/b001/a023"),
                     "storeFile " + kDiskFile}));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
}

TEST_F(BrickStorerTest, CountsAFolderThatAlreadyExistsAsCreated)
{
    // The store says a folder is missing, but another party has just made it.
    makeFolder(diskFolder("bricks/b001/a023"));
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NotFound, false);
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(
        log(),
        Lines({"storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"), "storeFile " + kDiskFile}));
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
}

TEST_F(BrickStorerTest, CreatesFoldersAfterAnUnclassifiedStoreFailure)
{
    makeFolder("/disk/bricks/b001");
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::Unclassified, false);
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(
        log(),
        Lines({"storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"), "storeFile " + kDiskFile}));
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, EndsWhenAFolderIsMissingAfterOneWasCreated)
{
    makeFolder("/disk");
    // The fourth creation comes back down to bricks/b001 after making "bricks".
    fs->failOperation(Op::CreateFolder, 4, CFileSystemError::NotFound, false);
    startLogging();
    const P<CountingListener> listener(new CountingListener());

    const P<CBrickStorer> storer = start(false, &newPrepared, listener.get());
    finish(*storer);

    EXPECT_EQ(log(),
              Lines({"storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"),
                     "createFolder " + diskFolder("bricks/b001"), "createFolder " + diskFolder("bricks"),
                     "createFolder " + diskFolder("bricks/b001")}));
    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_EQ(CFileSystemError::getProblem(storer->getError()->getProps()), CFileSystemError::NotFound);
    EXPECT_EQ(listener->getCallCount(), 1);
    EXPECT_FALSE(fileExists(kDiskFile));
}

TEST_F(BrickStorerTest, EndsWhenTheDiskFolderItselfIsMissing)
{
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(log(),
              Lines({"storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"),
                     "createFolder " + diskFolder("bricks/b001"), "createFolder " + diskFolder("bricks")}));
    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_EQ(CFileSystemError::getProblem(storer->getError()->getProps()), CFileSystemError::NotFound);
    EXPECT_EQ(storer->getProgress(), 1.0);
}

TEST_F(BrickStorerTest, RetriesTheStoreOnlyOnceAfterCreatingFolders)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NotFound, true);
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(
        log(),
        Lines({"storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"), "storeFile " + kDiskFile}));
    ASSERT_NE(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, EndsAtOnceWhenTheStoreFailsForAnotherReason)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::AccessDenied, false);
    startLogging();

    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    EXPECT_EQ(log(), Lines({"storeFile " + kDiskFile}));
    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_EQ(CFileSystemError::getProblem(storer->getError()->getProps()), CFileSystemError::AccessDenied);
    EXPECT_NE(std::string(storer->getError()->what()).find("Injected failure of storeFile."), std::string::npos);
}

TEST_F(BrickStorerTest, StoresABrickThatLiesDirectlyInTheDiskFolder)
{
    // With no tree levels the brick file is "bricks" itself; there is no
    // folder to create, so a missing disk folder ends the storer.
    const P<CBrickStorer> storer = CBrickStorer::start(fs.get(), CURI("/disk"), CURI("bricks"), CURI(), CURI(),
                                                       testsupport::countedCopy(newPrepared).get(),
                                                       testsupport::countedCopy(zeroPrepared).get(), nullptr);
    finish(*storer);
    EXPECT_EQ(log(), Lines({"storeFile /disk/bricks", "storeFile /disk/bricks"}));
    EXPECT_NE(storer->getError(), nullptr);

    makeFolder("/disk");
    makeFolder("/child");
    startLogging();
    const P<CBrickStorer> second = CBrickStorer::start(fs.get(), CURI("/disk"), CURI("bricks"), CURI("/child"),
                                                       CURI("bricks"), testsupport::countedCopy(newPrepared).get(),
                                                       testsupport::countedCopy(zeroPrepared).get(), nullptr);
    finish(*second);
    EXPECT_EQ(log(),
              Lines({"copyFile /disk/bricks -> /child/bricks", "copyFile /disk/bricks -> /child/bricks",
                     "storeFile /child/bricks", "storeFile /disk/bricks"}));
    EXPECT_EQ(second->getError(), nullptr);
    EXPECT_TRUE(fileHolds("/disk/bricks", newPrepared));
    EXPECT_TRUE(fileHolds("/child/bricks", zeroPrepared));
}

// --- With a child folder ----------------------------------------------------

TEST_F(BrickStorerTest, CopiesTheOldBrickIntoTheChildAndThenReplacesIt)
{
    putFile(kDiskFile, oldPrepared);
    makeFolder(childFolder("bricks/b001/a023"));
    startLogging();
    const P<SteppedFileSystem> recorder(new SteppedFileSystem(fs.get(), false));

    const P<CBrickStorer> storer = start(recorder.get(), true, &newPrepared, nullptr);
    finish(*storer);

    EXPECT_EQ(log(), Lines({"copyFile " + kDiskFile + " -> " + kChildFile, "storeFile " + kDiskFile}));
    ASSERT_EQ(recorder->getCopies().size(), 1u);
    EXPECT_FALSE(recorder->getCopies()[0].overwrite);
    ASSERT_EQ(recorder->getStores().size(), 1u);
    EXPECT_TRUE(recorder->getStores()[0].overwrite);
    EXPECT_TRUE(fileHolds(kChildFile, oldPrepared));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_EQ(storer->getProgress(), 1.0);
}

TEST_F(BrickStorerTest, CreatesTheChildFoldersWhenTheCopyFindsThemMissing)
{
    putFile(kDiskFile, oldPrepared);
    makeFolder("/child");
    startLogging();

    const P<CBrickStorer> storer = start(true, &newPrepared);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(
        log(),
        Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), "createFolder " + childFolder("bricks/b001"),
               "createFolder " + childFolder("bricks"), "createFolder " + childFolder("bricks/b001"),
               "createFolder " + childFolder("bricks/b001/a023"), copy, "storeFile " + kDiskFile}));
    EXPECT_TRUE(fileHolds(kChildFile, oldPrepared));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, StoresAZeroBrickInTheChildWhenThisDiskHasNoFile)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    makeFolder("/child");
    startLogging();
    const P<SteppedFileSystem> recorder(new SteppedFileSystem(fs.get(), false));

    const P<CBrickStorer> storer = start(recorder.get(), true, &newPrepared, nullptr);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"),
                     "createFolder " + childFolder("bricks/b001"), "createFolder " + childFolder("bricks"),
                     "createFolder " + childFolder("bricks/b001"), "createFolder " + childFolder("bricks/b001/a023"),
                     copy, "storeFile " + kChildFile, "storeFile " + kDiskFile}));
    const auto stores = recorder->getStores();
    ASSERT_EQ(stores.size(), 2u);
    EXPECT_FALSE(stores[0].overwrite);
    EXPECT_FALSE(stores[1].overwrite);
    EXPECT_TRUE(fileHolds(kChildFile, zeroPrepared));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, OverwritesThisDisksFileWhenTheChildAlreadyHoldsTheBrick)
{
    putFile(kDiskFile, oldPrepared);
    putFile(kChildFile, childOwnPrepared);
    startLogging();
    const P<SteppedFileSystem> recorder(new SteppedFileSystem(fs.get(), false));

    const P<CBrickStorer> storer = start(recorder.get(), true, &newPrepared, nullptr);
    finish(*storer);

    EXPECT_EQ(log(), Lines({"copyFile " + kDiskFile + " -> " + kChildFile, "storeFile " + kDiskFile}));
    ASSERT_EQ(recorder->getStores().size(), 1u);
    EXPECT_TRUE(recorder->getStores()[0].overwrite);
    EXPECT_TRUE(fileHolds(kChildFile, childOwnPrepared));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, StoresNothingInTheChildForAnAllZeroBrickWithoutOldFile)
{
    makeFolder("/disk");
    makeFolder("/child");
    startLogging();

    const P<CBrickStorer> storer = start(true, nullptr);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(
        log(),
        Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), "createFolder " + childFolder("bricks/b001"),
               "createFolder " + childFolder("bricks"), "createFolder " + childFolder("bricks/b001"),
               "createFolder " + childFolder("bricks/b001/a023"), copy, "deleteFile " + kDiskFile}));
    EXPECT_FALSE(fileExists(kChildFile));
    EXPECT_FALSE(fileExists(kDiskFile));
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_EQ(storer->getProgress(), 1.0);
}

TEST_F(BrickStorerTest, CopiesTheOldBrickIntoTheChildBeforeDeletingForAnAllZeroBrick)
{
    putFile(kDiskFile, oldPrepared);
    makeFolder(childFolder("bricks/b001/a023"));
    startLogging();

    const P<CBrickStorer> storer = start(true, nullptr);
    finish(*storer);

    EXPECT_EQ(log(), Lines({"copyFile " + kDiskFile + " -> " + kChildFile, "deleteFile " + kDiskFile}));
    EXPECT_TRUE(fileHolds(kChildFile, oldPrepared));
    EXPECT_FALSE(fileExists(kDiskFile));
}

TEST_F(BrickStorerTest, CreatesThisDisksFoldersAfterStoringTheZeroBrickInTheChild)
{
    makeFolder("/disk");
    makeFolder(childFolder("bricks/b001/a023"));
    startLogging();

    const P<CBrickStorer> storer = start(true, &newPrepared);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "storeFile " + kChildFile,
                     "storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"),
                     "createFolder " + diskFolder("bricks/b001"), "createFolder " + diskFolder("bricks"),
                     "createFolder " + diskFolder("bricks/b001"), "createFolder " + diskFolder("bricks/b001/a023"),
                     "storeFile " + kDiskFile}));
    EXPECT_TRUE(fileHolds(kChildFile, zeroPrepared));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
}

TEST_F(BrickStorerTest, EndsWithTheCopyErrorWhenOnlyThisDiskHoldsTheFileAndTheCopyKeepsFailing)
{
    putFile(kDiskFile, oldPrepared);
    makeFolder(childFolder("bricks/b001/a023"));
    fs->failOperation(Op::CopyFile, 1, CFileSystemError::AccessDenied, true);
    startLogging();
    const P<CountingListener> listener(new CountingListener());

    const P<CBrickStorer> storer = start(true, &newPrepared, listener.get());
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "pathExists " + kChildFile,
                     "pathExists " + kDiskFile}));
    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_EQ(CFileSystemError::getProblem(storer->getError()->getProps()), CFileSystemError::AccessDenied);
    EXPECT_EQ(listener->getCallCount(), 1);
    EXPECT_TRUE(fileHolds(kDiskFile, oldPrepared));
    EXPECT_FALSE(fileExists(kChildFile));
}

TEST_F(BrickStorerTest, OverwritesWhenTheCopyKeepsFailingButTheChildHoldsTheBrick)
{
    putFile(kDiskFile, oldPrepared);
    putFile(kChildFile, childOwnPrepared);
    fs->failOperation(Op::CopyFile, 1, CFileSystemError::AccessDenied, true);
    startLogging();
    const P<SteppedFileSystem> recorder(new SteppedFileSystem(fs.get(), false));

    const P<CBrickStorer> storer = start(recorder.get(), true, &newPrepared, nullptr);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "pathExists " + kChildFile,
                     "storeFile " + kDiskFile}));
    ASSERT_EQ(recorder->getStores().size(), 1u);
    EXPECT_TRUE(recorder->getStores()[0].overwrite);
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
    EXPECT_TRUE(fileHolds(kChildFile, childOwnPrepared));
}

TEST_F(BrickStorerTest, StoresTheZeroBrickWhenTheCopyKeepsFailingAndNeitherDiskHoldsTheBrick)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    makeFolder(childFolder("bricks/b001/a023"));
    fs->failOperation(Op::CopyFile, 1, CFileSystemError::AccessDenied, true);
    startLogging();

    const P<CBrickStorer> storer = start(true, &newPrepared);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "pathExists " + kChildFile,
                     "pathExists " + kDiskFile, "storeFile " + kChildFile, "storeFile " + kDiskFile}));
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_TRUE(fileHolds(kChildFile, zeroPrepared));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
}

TEST_F(BrickStorerTest, TakesAnUnclassifiedZeroBrickFailureAsAlreadyThereWhenTheChildHasTheFile)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    putFile(kChildFile, childOwnPrepared);
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::Unclassified, false, CURI("/child"));
    startLogging();

    const P<CBrickStorer> storer = start(true, &newPrepared);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "storeFile " + kChildFile,
                     "fileExists " + kChildFile, "storeFile " + kDiskFile}));
    EXPECT_EQ(storer->getError(), nullptr);
    EXPECT_TRUE(fileHolds(kChildFile, childOwnPrepared));
    EXPECT_TRUE(fileHolds(kDiskFile, newPrepared));
}

TEST_F(BrickStorerTest, EndsWhenTheZeroBrickCannotBeStoredInTheChild)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    makeFolder(childFolder("bricks/b001/a023"));
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::Unclassified, false, CURI("/child"));
    startLogging();

    const P<CBrickStorer> storer = start(true, &newPrepared);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "storeFile " + kChildFile,
                     "fileExists " + kChildFile}));
    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_FALSE(fileExists(kDiskFile));
    EXPECT_FALSE(fileExists(kChildFile));
}

TEST_F(BrickStorerTest, RemovesTheChildsZeroBrickWhenTheFinalStoreFails)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    makeFolder(childFolder("bricks/b001/a023"));
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::AccessDenied, true, CURI("/disk"));
    startLogging();
    const P<CountingListener> listener(new CountingListener());

    const P<CBrickStorer> storer = start(true, &newPrepared, listener.get());
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "storeFile " + kChildFile,
                     "storeFile " + kDiskFile, "deleteFileSync " + kChildFile}));
    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_EQ(CFileSystemError::getProblem(storer->getError()->getProps()), CFileSystemError::AccessDenied);
    EXPECT_FALSE(fileExists(kChildFile));
    EXPECT_FALSE(fileExists(kDiskFile));
    EXPECT_EQ(listener->getCallCount(), 1);
}

TEST_F(BrickStorerTest, RemovesTheChildsZeroBrickWhenTheStoreStillFailsAfterMakingFolders)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    makeFolder(childFolder("bricks/b001/a023"));
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NotFound, true, CURI("/disk"));
    startLogging();

    const P<CBrickStorer> storer = start(true, &newPrepared);
    finish(*storer);

    const std::string copy = "copyFile " + kDiskFile + " -> " + kChildFile;
    EXPECT_EQ(log(),
              Lines({copy, "createFolder " + childFolder("bricks/b001/a023"), copy, "storeFile " + kChildFile,
                     "storeFile " + kDiskFile, "createFolder " + diskFolder("bricks/b001/a023"),
                     "storeFile " + kDiskFile, "deleteFileSync " + kChildFile}));
    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_FALSE(fileExists(kChildFile));
}

TEST_F(BrickStorerTest, KeepsTheStoreErrorWhenTheChildsZeroBrickCannotBeRemoved)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    makeFolder(childFolder("bricks/b001/a023"));
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::AccessDenied, true, CURI("/disk"));
    fs->failOperation(Op::DeleteFileSync, 1, CFileSystemError::AccessDenied, true);
    const P<CountingListener> listener(new CountingListener());

    const P<CBrickStorer> storer = start(true, &newPrepared, listener.get());
    ASSERT_TRUE(storer->waitFinished(kWaitMillis));
    fs->waitUntilIdle();

    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_NE(std::string(storer->getError()->what()).find("Injected failure of storeFile."), std::string::npos);
    EXPECT_EQ(listener->getCallCount(), 1);
}

TEST_F(BrickStorerTest, EndsWithTheErrorWhenTheFileSystemCannotTellWhetherAPathExists)
{
    putFile(kDiskFile, oldPrepared);
    makeFolder(childFolder("bricks/b001/a023"));
    fs->failOperation(Op::CopyFile, 1, CFileSystemError::AccessDenied, true);
    fs->failOperation(Op::PathExists, 1, CFileSystemError::AccessDenied, true);
    const P<CountingListener> listener(new CountingListener());

    const P<CBrickStorer> storer = start(true, &newPrepared, listener.get());
    ASSERT_TRUE(storer->waitFinished(kWaitMillis));
    fs->waitUntilIdle();

    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_NE(std::string(storer->getError()->what()).find("Injected failure of pathExists."), std::string::npos);
    EXPECT_EQ(listener->getCallCount(), 1);
    EXPECT_EQ(storer->getProgress(), 1.0);
}

TEST_F(BrickStorerTest, EndsWithTheErrorWhenALaterOperationCannotBeStarted)
{
    makeFolder("/disk");
    const P<SteppedFileSystem> refusing(new SteppedFileSystem(fs.get(), false));
    refusing->throwOnStart(Op::CreateFolder, 2, CFileSystemError::AccessDenied);
    const P<CountingListener> listener(new CountingListener());

    const P<CBrickStorer> storer = start(refusing.get(), false, &newPrepared, listener.get());
    ASSERT_TRUE(storer->waitFinished(kWaitMillis));
    fs->waitUntilIdle();

    ASSERT_NE(storer->getError(), nullptr);
    EXPECT_STREQ(storer->getError()->what(), "Refused to start the operation.");
    EXPECT_EQ(CFileSystemError::getProblem(storer->getError()->getProps()), CFileSystemError::AccessDenied);
    EXPECT_EQ(listener->getCallCount(), 1);
}

TEST_F(BrickStorerTest, ThrowsFromStartWhenTheFirstOperationCannotBeStarted)
{
    const P<SteppedFileSystem> refusing(new SteppedFileSystem(fs.get(), false));
    refusing->throwOnStart(Op::CopyFile, 1, CFileSystemError::AccessDenied);
    const P<CountingListener> listener(new CountingListener());

    EXPECT_THROW(start(refusing.get(), true, &newPrepared, listener.get()), CFileSystemError);
    fs->waitUntilIdle();
    EXPECT_EQ(listener->getCallCount(), 0);
}

TEST_F(BrickStorerTest, ThrowsAnInternalErrorWhenCalledAfterItEnded)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    try {
        storer->onDone(nullptr);
        FAIL() << "a completion after the end was accepted";
    } catch (const zo::CError& e) {
        EXPECT_STREQ(e.what(), "INTERNAL ERROR: Unknown state in CBrickStorer::onDone: 5");
        EXPECT_EQ(e.getCode(), -1);
    }
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, KeepsItsErrorStableAfterTheEnd)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::AccessDenied, false);
    const P<CBrickStorer> storer = start(false, &newPrepared);
    finish(*storer);

    const zo::PC<zo::CError> first = storer->getError();
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(storer->waitFinished(0));
    EXPECT_EQ(storer->getError(), first);
}

// --- Progress ---------------------------------------------------------------

// The progress figure for the given counters: operations weigh 0.15 of 51200 bytes.
double expectedProgress(double doneBytes, int doneOps, double totalBytes, int totalOps)
{
    const double total = totalBytes / 51200.0 + totalOps * 0.15;
    return std::clamp((doneBytes / 51200.0 + doneOps * 0.15) / total, 0.0, 0.99);
}

TEST_F(BrickStorerTest, ReportsTheProgressOfEveryStepAndOneAtTheEnd)
{
    makeFolder("/disk/bricks");
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const double size = newPrepared.getUsed();

    const P<CBrickStorer> storer = start(stepped.get(), false, &newPrepared, nullptr);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_EQ(storer->getProgress(), 0.0); // the store failed before reading a byte

    ASSERT_TRUE(stepped->deliverNext()); // store fails: create a023
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_DOUBLE_EQ(storer->getProgress(), expectedProgress(0, 1, size, 3));

    ASSERT_TRUE(stepped->deliverNext()); // a023 has no parent: climb to b001
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_DOUBLE_EQ(storer->getProgress(), expectedProgress(0, 2, size, 5));

    ASSERT_TRUE(stepped->deliverNext()); // b001 made: back down to a023
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_DOUBLE_EQ(storer->getProgress(), expectedProgress(0, 3, size, 5));

    ASSERT_TRUE(stepped->deliverNext()); // a023 made: store again, which reads the whole buffer
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_DOUBLE_EQ(storer->getProgress(), expectedProgress(size, 4, size, 5));
    EXPECT_LE(storer->getProgress(), 0.99);
    EXPECT_FALSE(storer->waitFinished(0));

    ASSERT_TRUE(stepped->deliverNext());
    EXPECT_TRUE(storer->waitFinished(0));
    EXPECT_EQ(storer->getProgress(), 1.0);
    EXPECT_EQ(stepped->getHeldCount(), 0);
}

TEST_F(BrickStorerTest, ReportsZeroProgressBeforeAnyOperationHasFinished)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));

    const P<CBrickStorer> storer = start(stepped.get(), true, nullptr, nullptr);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_EQ(storer->getProgress(), 0.0);
    EXPECT_FALSE(storer->waitFinished(0));
    EXPECT_EQ(storer->getError(), nullptr);

    while (!storer->waitFinished(0)) {
        ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
        ASSERT_TRUE(stepped->deliverNext());
    }
    EXPECT_EQ(storer->getProgress(), 1.0);
}

TEST_F(BrickStorerTest, ProgressStaysWithinZeroAndNinetyNineHundredthsWhileRunning)
{
    makeFolder("/disk");
    makeFolder("/child");
    fs->setCompletionDelay(5, 15);

    const P<CBrickStorer> storer = start(true, &newPrepared);
    std::vector<double> seen;
    while (!storer->waitFinished(1))
        seen.push_back(storer->getProgress());
    fs->waitUntilIdle();

    EXPECT_FALSE(seen.empty());
    for (const double progress : seen) {
        EXPECT_GE(progress, 0.0);
        EXPECT_LE(progress, 0.99);
    }
    EXPECT_EQ(storer->getProgress(), 1.0);
    EXPECT_EQ(storer->getError(), nullptr);
}

TEST_F(BrickStorerTest, ReportsTheUploadWhileTheFileSystemReadsTheBrick)
{
    makeFolder(diskFolder("bricks/b001/a023"));
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const double size = newPrepared.getUsed();

    const P<CBrickStorer> storer = start(stepped.get(), false, &newPrepared, nullptr);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    // Every byte has been read, the store's own completion is still to come.
    EXPECT_DOUBLE_EQ(storer->getProgress(), expectedProgress(size, 0, size, 1));

    ASSERT_TRUE(stepped->deliverNext());
    EXPECT_EQ(storer->getProgress(), 1.0);
}

// --- A failure of any one operation ----------------------------------------

// One path through the storer: the files and folders before the save, and
// whether the disk has a child and the new brick is all zero.
struct StorePath {
    const char* name;
    bool withChild;
    bool allZero;
    bool oldFileInDisk;
    bool childHoldsBrick;
    std::vector<std::string> folders;
};

std::ostream& operator<<(std::ostream& out, const StorePath& path)
{
    return out << path.name;
}

const std::map<std::string, Op> kOperationByName = {
    {"storeFile", Op::StoreFile},          {"createFolder", Op::CreateFolder}, {"copyFile", Op::CopyFile},
    {"deleteFile", Op::DeleteFile},        {"pathExists", Op::PathExists},     {"fileExists", Op::FileExists},
    {"deleteFileSync", Op::DeleteFileSync}};

// The kind of the operation that a log line names, and how many operations
// of that kind the log holds up to and including it.
std::pair<Op, int> operationAt(const Lines& log, size_t index)
{
    const auto nameOf = [](const std::string& line) { return line.substr(0, line.find(' ')); };
    const std::string name = nameOf(log[index]);
    int ordinal = 0;
    for (size_t i = 0; i <= index; ++i)
        ordinal += nameOf(log[i]) == name ? 1 : 0;
    return {kOperationByName.at(name), ordinal};
}

struct InjectedFailure {
    size_t index;
    bool persistent;
    CFileSystemError::Problem problem;
};

std::string describe(const InjectedFailure& failure, const Lines& cleanLog)
{
    return "operation " + std::to_string(failure.index + 1) + " (" + cleanLog[failure.index] + ") failing " +
        (failure.persistent ? "persistently" : "once") + " with problem " + std::to_string(failure.problem);
}

class BrickStorerFailureTest : public BrickStorerTest, public ::testing::WithParamInterface<StorePath> {
protected:
    static constexpr zo::int64 kBrickIndex = 0x12345;

    // A fresh file system laid out as the path asks, counting from zero.
    void prepareFileSystem()
    {
        fs = P<CMemoryFileSystem>(new CMemoryFileSystem(2));
        const StorePath& path = GetParam();
        for (const std::string& folder : path.folders)
            makeFolder(folder);
        if (path.oldFileInDisk)
            putFile(kDiskFile, oldPrepared);
        if (path.childHoldsBrick)
            putFile(kChildFile, childOwnPrepared);
        startLogging();
    }

    void inject(const InjectedFailure& failure, const Lines& cleanLog)
    {
        const auto [kind, ordinal] = operationAt(cleanLog, failure.index);
        fs->failOperation(kind, ordinal, failure.problem, failure.persistent);
    }

    const Bytes* newData() const { return GetParam().allZero ? nullptr : &newPrepared; }

    // What the child should hold once the save went through: the brick this
    // disk held before, or a zero brick, or nothing when the new brick is all
    // zero too.
    const Bytes* expectedChildAfterSuccess() const
    {
        const StorePath& path = GetParam();
        if (path.childHoldsBrick)
            return &childOwnPrepared;
        if (path.oldFileInDisk)
            return &oldPrepared;
        return path.allZero ? nullptr : &zeroPrepared;
    }

    void expectFile(const std::string& file, const Bytes* expected, const std::string& context)
    {
        if (expected) {
            EXPECT_TRUE(fileHolds(file, *expected)) << file << " after " << context;
        } else {
            EXPECT_FALSE(fileExists(file)) << file << " after " << context;
        }
    }

    void expectSuccessfulOutcome(const std::string& context)
    {
        expectFile(kDiskFile, newData(), context);
        if (GetParam().withChild)
            expectFile(kChildFile, expectedChildAfterSuccess(), context);
    }

    // A failed save leaves the brick's old content in this disk, and the
    // child either still without the brick or with its copy of it.
    void expectFailedOutcome(const std::string& context)
    {
        const StorePath& path = GetParam();
        if (!path.withChild) {
            expectFile(kDiskFile, path.oldFileInDisk ? &oldPrepared : nullptr, context);
            return;
        }
        if (path.childHoldsBrick) {
            expectFile(kChildFile, &childOwnPrepared, context);
        } else if (path.oldFileInDisk) {
            expectFile(kDiskFile, &oldPrepared, context);
            expectFile(kChildFile, fileExists(kChildFile) ? &oldPrepared : nullptr, context);
        } else {
            // A zero brick may stay in the child when this disk's folders
            // could not be made; it reads as this disk's missing file does.
            expectFile(kChildFile, fileExists(kChildFile) ? &zeroPrepared : nullptr, context);
            expectFile(kDiskFile, nullptr, context);
        }
    }

    // Runs one storer with its own listener; returns whether it failed.
    bool runStorer(const InjectedFailure& failure, const Lines& cleanLog)
    {
        const std::string context = describe(failure, cleanLog);
        prepareFileSystem();
        inject(failure, cleanLog);
        const P<CountingListener> listener(new CountingListener());

        const P<CBrickStorer> storer = start(GetParam().withChild, newData(), listener.get());
        EXPECT_TRUE(storer->waitFinished(kWaitMillis)) << context;
        fs->waitUntilIdle();

        EXPECT_EQ(listener->getCallCount(), 1) << context;
        EXPECT_EQ(storer->getProgress(), 1.0) << context;
        const zo::PC<zo::CError> error = storer->getError();
        EXPECT_EQ(storer->getError(), error) << context;
        const P<zo::CError> heard = listener->getLastError();
        EXPECT_EQ(heard == nullptr, error == nullptr) << context;
        if (!error) {
            expectSuccessfulOutcome(context);
            return false;
        }
        EXPECT_EQ(std::string(error->what()).rfind("Injected failure of ", 0), 0u) << context << ": " << error->what();
        if (heard) {
            EXPECT_STREQ(heard->what(), error->what()) << context;
        }
        expectFailedOutcome(context);
        return true;
    }

    // Saves the same brick through a brick object; returns the errors it recorded.
    std::vector<brick::CBrick::Error> runThroughBrick(const InjectedFailure& failure, const Lines& cleanLog)
    {
        const std::string context = describe(failure, cleanLog);
        prepareFileSystem();
        inject(failure, cleanLog);
        std::vector<brick::CBrick::Error> errors;
        {
            const P<brick::CBrick> object(new brick::CBrick(
                fs.get(), CURI("/disk"), GetParam().withChild ? CURI("/child") : CURI(), {}, header, key, 1));
            const Bytes plain =
                GetParam().allZero ? testsupport::zeroBytes(kBrickSize) : testsupport::patternBytes(kBrickSize, 1);
            EXPECT_NO_THROW({
                object->seek(kBrickIndex, 0);
                EXPECT_EQ(object->writeLaxInsideBrick(plain.getData(), kBrickSize), kBrickSize);
                object->seek(kBrickIndex + 1, 0);
                object->backgroundSaveChanges();
            }) << context;
            EXPECT_TRUE(object->waitUntilBackgroundSavesDone(kWaitMillis)) << context;
            const auto& list = object->getBackgroundErrorList();
            errors.assign(list.begin(), list.end());
            EXPECT_EQ(object->getBackgroundSavesInProgress(), 0) << context;
        }
        fs->waitUntilIdle();
        return errors;
    }
};

TEST_P(BrickStorerFailureTest, EndsOnceAndIsRecordedOnceWhicheverOperationFails)
{
    prepareFileSystem();
    {
        const P<CBrickStorer> clean = start(GetParam().withChild, newData());
        finish(*clean);
        ASSERT_EQ(clean->getError(), nullptr);
        expectSuccessfulOutcome("a run without failures");
    }
    const Lines cleanLog = log();
    ASSERT_FALSE(cleanLog.empty());

    testsupport::LogCapture logCapture;
    int failedRuns = 0;
    for (size_t index = 0; index < cleanLog.size(); ++index) {
        for (const bool persistent : {false, true}) {
            for (const auto problem : {CFileSystemError::AccessDenied, CFileSystemError::Unclassified}) {
                const InjectedFailure failure{index, persistent, problem};
                const bool failed = runStorer(failure, cleanLog);
                const auto errors = runThroughBrick(failure, cleanLog);
                ASSERT_EQ(errors.size(), failed ? 1u : 0u) << describe(failure, cleanLog);
                if (failed) {
                    ++failedRuns;
                    EXPECT_EQ(errors[0].brickIndex, kBrickIndex);
                    ASSERT_NE(errors[0].error, nullptr);
                    EXPECT_EQ(std::string(errors[0].error->what()).rfind("Injected failure of ", 0), 0u);
                }
            }
        }
    }
    // Every operation of a path is needed: failing it for good ends the save
    // with an error, except where the file system's own answers lead around it.
    EXPECT_GT(failedRuns, 0);
    EXPECT_EQ(logCapture.countContaining("Error during background brick storing operation."), failedRuns);
}

INSTANTIATE_TEST_SUITE_P(
    StorePaths, BrickStorerFailureTest,
    ::testing::Values(StorePath{"NoChildFolderExists", false, false, false, false, {"/disk/bricks/b001/a023"}},
                      StorePath{"NoChildFoldersMissing", false, false, false, false, {"/disk"}},
                      StorePath{"NoChildAllZero", false, true, true, false, {}},
                      StorePath{"ChildCopiesOldFile", true, false, true, false, {"/child"}},
                      StorePath{"ChildGetsZeroBrick", true, false, false, false, {"/disk/bricks/b001/a023", "/child"}},
                      StorePath{"ChildHoldsBrick", true, false, true, true, {}},
                      StorePath{"ChildAllZeroWithoutOldFile", true, true, false, false, {"/disk", "/child"}},
                      StorePath{"ChildAllZeroCopiesOldFile", true, true, true, false, {"/child/bricks/b001/a023"}},
                      StorePath{"EverythingMissing", true, false, false, false, {"/disk", "/child"}}),
    [](const ::testing::TestParamInfo<StorePath>& info) { return std::string(info.param.name); });

} // namespace
