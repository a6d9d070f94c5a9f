// The file system over an object store, on an object store in memory: the
// round trips that its memory of folders and files saves, and what it does
// when the store changes behind its back. (The file-system contract runs
// over it in FileSystemContractTest.cpp.)
#include "objectstore/ObjectStoreFileSystem.h"
#include "support/MemoryObjectStore.h"
#include "zo/BufferStream.h"
#include "zo/FileSystemQueries.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace zo;
using testsupport::CMemoryObjectStore;

constexpr int waitMillis = 10000;
constexpr int folderMode = 0x1ff;

// Keeps the outcome of one operation.
class COutcome : public CBase, public IDoneListener {
public:
    void onDone(const CError* error) override
    {
        std::lock_guard lock(m_mutex);
        m_error = error ? error->clone() : P<CError>();
    }
    // The problem of the error; -1 for success.
    int problem()
    {
        std::lock_guard lock(m_mutex);
        return m_error ? CFileSystemError::getProblem(m_error->getProps()) : -1;
    }

private:
    std::mutex m_mutex;
    P<CError> m_error;
};

P<CObjectStoreFileSystem> makeFileSystem(CMemoryObjectStore* store, int threadCount = 2)
{
    return P<CObjectStoreFileSystem>(new CObjectStoreFileSystem(store, "memory", threadCount));
}

class ObjectStoreFileSystemTest : public ::testing::Test {
protected:
    static CURI path(const char* relative) { return CURI("memory://bucket") << CURI(relative); }
    static ObjectName object(const char* key) { return ObjectName{"bucket", key}; }

    // The problem of storing `bytes` as `file`; -1 for success.
    static int store(CObjectStoreFileSystem& fs, const CURI& file, const std::string& bytes, bool overwrite)
    {
        P<CBufferStream> source(new CBufferStream(nullptr, 2.0));
        source->write(bytes.data(), static_cast<int>(bytes.size()));
        source->seek(0);
        P<COutcome> outcome(new COutcome());
        EXPECT_TRUE(fs.beginStoreFile(file, static_cast<int>(bytes.size()), source.get(), overwrite, outcome.get())
                        ->waitDone(waitMillis));
        return outcome->problem();
    }
    // The problem of creating `folder`; -1 for success.
    static int createFolderAsync(CObjectStoreFileSystem& fs, const CURI& folder)
    {
        P<COutcome> outcome(new COutcome());
        EXPECT_TRUE(fs.beginCreateFolder(folder, folderMode, outcome.get())->waitDone(waitMillis));
        return outcome->problem();
    }
    static std::vector<std::string> names(const TList<String>& list)
    {
        std::vector<std::string> result;
        for (const String& name : list)
            result.push_back(name.toUTF8());
        return result;
    }
    // The calls that `action` makes.
    template <class Action>
    CMemoryObjectStore::Counts callsOf(Action action)
    {
        const CMemoryObjectStore::Counts before = objects->getCounts();
        action();
        const CMemoryObjectStore::Counts after = objects->getCounts();
        CMemoryObjectStore::Counts calls;
        calls.puts = after.puts - before.puts;
        calls.copies = after.copies - before.copies;
        calls.removes = after.removes - before.removes;
        calls.stats = after.stats - before.stats;
        calls.reads = after.reads - before.reads;
        calls.writes = after.writes - before.writes;
        calls.lists = after.lists - before.lists;
        calls.locks = after.locks - before.locks;
        calls.bytesFetched = after.bytesFetched - before.bytesFetched;
        return calls;
    }

    P<CMemoryObjectStore> objects{new CMemoryObjectStore()};
    P<CObjectStoreFileSystem> fs = makeFileSystem(objects.get());
};

TEST_F(ObjectStoreFileSystemTest, StoreIntoAFolderItCreatedCostsTheWriteAlone)
{
    fs->createFolder(path("disk/bricks/a00"), folderMode);
    const auto calls = callsOf([&] { EXPECT_EQ(store(*fs, path("disk/bricks/a00/b00.brick"), "brick", true), -1); });
    EXPECT_EQ(calls.puts, 1);
    EXPECT_EQ(calls.total(), 1);
    EXPECT_EQ(objects->read(object("disk/bricks/a00/b00.brick")), "brick");
}

TEST_F(ObjectStoreFileSystemTest, AMissingFileInAFolderItCreatedCostsOneStat)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    const auto calls = callsOf([&] {
        EXPECT_FALSE(fs->pathExists(path("disk/bricks/b00.brick")));
        EXPECT_FALSE(fs->getFileInfo(path("disk/bricks/b01.brick"), false)->exists());
    });
    EXPECT_EQ(calls.stats, 2);
    EXPECT_EQ(calls.total(), 2);
}

TEST_F(ObjectStoreFileSystemTest, AFileInAMissingFolderInsideAFolderItCreatedIsMissingWithoutAsking)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    const auto calls = callsOf([&] {
        EXPECT_FALSE(fs->pathExists(path("disk/bricks/a00/a01/b00.brick")));
        EXPECT_FALSE(fs->fileExists(path("disk/bricks/a00/b00.brick")));
        EXPECT_FALSE(fs->folderExists(path("disk/bricks/a00/a01")));
    });
    EXPECT_EQ(calls.total(), 0);
    fs->createFolder(path("disk/bricks/a00/a01"), folderMode);
    EXPECT_TRUE(fs->folderExists(path("disk/bricks/a00")));
    EXPECT_EQ(store(*fs, path("disk/bricks/a00/a01/b00.brick"), "brick", true), -1);
    EXPECT_TRUE(fs->pathExists(path("disk/bricks/a00/a01/b00.brick")));
}

TEST_F(ObjectStoreFileSystemTest, StoreIntoAMissingFolderInAFolderItCreatedFailsWithoutListing)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    const auto calls = callsOf(
        [&] { EXPECT_EQ(store(*fs, path("disk/bricks/a00/b00.brick"), "brick", true), CFileSystemError::NotFound); });
    EXPECT_EQ(calls.total(), 0);
}

TEST_F(ObjectStoreFileSystemTest, CreatingAFolderAsksOnlyForAFileInTheWayAndWritesTheMarker)
{
    fs->createFolder(path("disk"), folderMode);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    ASSERT_TRUE(other->folderExists(path("disk")));
    const auto calls = callsOf([&] { EXPECT_EQ(createFolderAsync(*other, path("disk/bricks")), -1); });
    EXPECT_EQ(calls.stats, 1);
    EXPECT_EQ(calls.puts, 1);
    EXPECT_EQ(calls.total(), 2);
    EXPECT_TRUE(objects->holds(object("disk/bricks/")));
}

TEST_F(ObjectStoreFileSystemTest, CreatingFoldersInsideAFolderMadeHereWritesTheirMarkersAlone)
{
    fs->createFolder(path("disk"), folderMode);
    const auto calls = callsOf([&] { fs->createFolder(path("disk/bricks/a00/b00"), folderMode); });
    EXPECT_EQ(calls.puts, 3);
    EXPECT_EQ(calls.total(), 3);
    EXPECT_TRUE(objects->holds(object("disk/bricks/a00/b00/")));
}

TEST_F(ObjectStoreFileSystemTest, AFileStoredHereIsStillInTheWayOfAFolder)
{
    fs->createFolder(path("disk"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/bricks"), "a file", true), -1);
    const auto calls =
        callsOf([&] { EXPECT_THROW(fs->createFolder(path("disk/bricks"), folderMode), CFileSystemError); });
    EXPECT_EQ(calls.puts, 0);
    EXPECT_FALSE(objects->holds(object("disk/bricks/")));
}

TEST_F(ObjectStoreFileSystemTest, ReplacingAFileItFoundCostsTheWriteAlone)
{
    fs->createFolder(path("disk"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/brick"), "old", true), -1);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    ASSERT_TRUE(other->fileExists(path("disk/brick")));
    ASSERT_TRUE(other->folderExists(path("disk")));
    const auto calls = callsOf([&] { EXPECT_EQ(store(*other, path("disk/brick"), "new", true), -1); });
    EXPECT_EQ(calls.total(), 1);
    EXPECT_EQ(objects->read(object("disk/brick")), "new");
}

TEST_F(ObjectStoreFileSystemTest, ReadingAFileCostsOneRead)
{
    fs->createFolder(path("disk"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/brick"), "bytes", true), -1);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    const auto calls = callsOf([&] {
        const P<IIOStream> stream = other->openStream(path("disk/brick"), IIOStream::AccessRead, IIOStream::OptionNone);
        EXPECT_EQ(stream->getSize(), 5);
    });
    EXPECT_EQ(calls.reads, 1);
    EXPECT_EQ(calls.total(), 1);
}

// A stream opened for ranges asks the store for the object's size at the
// open and fetches only the bytes each read asks for: the last 32 bytes of
// a file cost those 32 bytes, where a plain open fetches the whole file.
TEST_F(ObjectStoreFileSystemTest, AStreamOpenedForRangesFetchesOnlyTheBytesItReads)
{
    fs->createFolder(path("disk"), folderMode);
    std::string bytes;
    for (int i = 0; i < 4096; ++i)
        bytes.push_back(static_cast<char>(i * 7 % 251));
    ASSERT_EQ(store(*fs, path("disk/brick"), bytes, true), -1);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    std::string tail(32, '\0');
    const auto ranged = callsOf([&] {
        const P<IIOStream> stream =
            other->openStream(path("disk/brick"), IIOStream::AccessRead, IIOStream::OptionRanges);
        EXPECT_EQ(stream->getLength(), 4096);
        stream->seek(4096 - 32);
        stream->read(tail.data(), 32);
        EXPECT_TRUE(stream->isEndOfStream());
        EXPECT_EQ(stream->readLax(tail.data(), 1), 0);
    });
    EXPECT_EQ(tail, bytes.substr(4096 - 32));
    EXPECT_EQ(ranged.bytesFetched, 32);
    EXPECT_EQ(ranged.stats, 1);
    EXPECT_EQ(ranged.reads, 1);
    EXPECT_EQ(ranged.total(), 2);

    const auto whole = callsOf([&] {
        const P<IIOStream> stream = other->openStream(path("disk/brick"), IIOStream::AccessRead, IIOStream::OptionNone);
        stream->seek(4096 - 32);
        stream->read(tail.data(), 32);
    });
    EXPECT_EQ(whole.bytesFetched, 4096);
}

TEST_F(ObjectStoreFileSystemTest, AStreamOpenedForRangesRefusesWritesAndSaysWhatIsMissing)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/brick"), "bytes", true), -1);
    const P<IIOStream> stream = fs->openStream(path("disk/brick"), IIOStream::AccessRead, IIOStream::OptionRanges);
    try {
        stream->write("x", 1);
        ADD_FAILURE() << "a write went through";
    } catch (const CIOError& e) {
        EXPECT_EQ(e.getIOCode(), CIOError::ReadOnly);
    }
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    const auto problemOf = [&](const char* file) {
        try {
            other->openStream(path(file), IIOStream::AccessRead, IIOStream::OptionRanges);
            return -1;
        } catch (const CFileSystemError& e) {
            return static_cast<int>(e.getProblem());
        }
    };
    EXPECT_EQ(problemOf("disk/missing"), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf("disk/bricks"), CFileSystemError::IsAFolder);
}

TEST_F(ObjectStoreFileSystemTest, AFolderWhoseMarkerWasRemovedBehindItsBackTakesStoresAndExistsThroughThem)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    objects->removeBehindTheBack(object("disk/bricks/"));
    EXPECT_EQ(store(*fs, path("disk/bricks/b00.brick"), "brick", true), -1);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    EXPECT_TRUE(other->folderExists(path("disk/bricks")));
    EXPECT_EQ(names(other->listFolder(path("disk/bricks"))), std::vector<std::string>{"b00.brick"});
    EXPECT_EQ(names(other->listFolder(path("disk"))), std::vector<std::string>{"bricks"});
}

TEST_F(ObjectStoreFileSystemTest, AFolderAnotherFileSystemCreatesInAFolderFoundThereIsInTheWayOfAFile)
{
    fs->createFolder(path("disk"), folderMode);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    ASSERT_TRUE(other->folderExists(path("disk")));
    ASSERT_FALSE(other->pathExists(path("disk/name")));
    fs->createFolder(path("disk/name"), folderMode);
    EXPECT_EQ(store(*other, path("disk/name"), "x", true), CFileSystemError::IsAFolder);
    EXPECT_TRUE(other->pathExists(path("disk/name")));
}

TEST_F(ObjectStoreFileSystemTest, AFileDeletedAndReplacedByAFolderHereIsAFolder)
{
    fs->createFolder(path("disk"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/name"), "x", true), -1);
    fs->deleteFile(path("disk/name"), false);
    EXPECT_EQ(createFolderAsync(*fs, path("disk/name")), -1);
    EXPECT_EQ(store(*fs, path("disk/name"), "x", false), CFileSystemError::AlreadyExists);
    EXPECT_TRUE(fs->folderExists(path("disk/name")));
    EXPECT_FALSE(objects->holds(object("disk/name")));
}

TEST_F(ObjectStoreFileSystemTest, AFolderFoundWithoutMarkerIsOneForEveryQueryAboutFolders)
{
    objects->beginPut(object("copied/bricks/b00.brick"), "brick", false, [](const CError*) {});
    EXPECT_TRUE(fs->folderExists(path("copied/bricks")));
    EXPECT_EQ(store(*fs, path("copied/bricks/b01.brick"), "brick", true), -1);
    EXPECT_EQ(names(fs->listFolder(path("copied/bricks"))), (std::vector<std::string>{"b00.brick", "b01.brick"}));
}

// The problem of opening `file` to read; -1 when it opens.
int openToRead(CObjectStoreFileSystem& fs, const CURI& file)
{
    try {
        fs.openStream(file, IIOStream::AccessRead, IIOStream::OptionNone);
        return -1;
    } catch (const CFileSystemError& e) {
        return e.getProblem();
    }
}

TEST_F(ObjectStoreFileSystemTest, MissingFilesOfAFolderCostTheFirstReadAndOneListingThenNothing)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/bricks/b01.brick"), "brick", true), -1);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    const auto first =
        callsOf([&] { EXPECT_EQ(openToRead(*other, path("disk/bricks/b00.brick")), CFileSystemError::NotFound); });
    EXPECT_EQ(first.reads, 1);
    EXPECT_EQ(first.lists, 1);
    EXPECT_EQ(first.total(), 2);
    const auto later = callsOf([&] {
        for (const char* missing : {"disk/bricks/b00.brick", "disk/bricks/b02.brick", "disk/bricks/b03.brick"})
            EXPECT_EQ(openToRead(*other, path(missing)), CFileSystemError::NotFound);
    });
    EXPECT_EQ(later.total(), 0);
    const auto found = callsOf([&] { EXPECT_EQ(openToRead(*other, path("disk/bricks/b01.brick")), -1); });
    EXPECT_EQ(found.reads, 1);
    EXPECT_EQ(found.total(), 1);
}

TEST_F(ObjectStoreFileSystemTest, AMissingFileInAFolderItCreatedCostsNothingToOpen)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    const auto calls =
        callsOf([&] { EXPECT_EQ(openToRead(*fs, path("disk/bricks/b00.brick")), CFileSystemError::NotFound); });
    EXPECT_EQ(calls.total(), 0);
    ASSERT_EQ(store(*fs, path("disk/bricks/b00.brick"), "brick", true), -1);
    EXPECT_EQ(openToRead(*fs, path("disk/bricks/b00.brick")), -1);
}

TEST_F(ObjectStoreFileSystemTest, AFileCopiedOrMovedHereIntoAListedFolderOpens)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    fs->createFolder(path("child/bricks"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/bricks/b00.brick"), "brick", true), -1);
    P<COutcome> copied(new COutcome());
    ASSERT_TRUE(fs->beginCopyFile(path("disk/bricks/b00.brick"), path("child/bricks/b00.brick"), false, copied.get())
                    ->waitDone(waitMillis));
    ASSERT_EQ(copied->problem(), -1);
    P<COutcome> moved(new COutcome());
    ASSERT_TRUE(fs->beginMoveFile(path("disk/bricks/b00.brick"), path("child/bricks/b01.brick"), false, moved.get())
                    ->waitDone(waitMillis));
    ASSERT_EQ(moved->problem(), -1);
    EXPECT_EQ(openToRead(*fs, path("child/bricks/b00.brick")), -1);
    EXPECT_EQ(openToRead(*fs, path("child/bricks/b01.brick")), -1);
    EXPECT_EQ(openToRead(*fs, path("disk/bricks/b00.brick")), CFileSystemError::NotFound);
}

TEST_F(ObjectStoreFileSystemTest, AFileAnotherProgramStoresAfterTheListingIsFoundByAskingWhetherItExists)
{
    // A snapshot's reader looks at its own folder again after it read a
    // brick from the parent: that second look must see what the parent's
    // writer put into the snapshot meanwhile.
    fs->createFolder(path("disk/bricks"), folderMode);
    ASSERT_EQ(openToRead(*fs, path("disk/bricks/b00.brick")), CFileSystemError::NotFound);
    objects->putBehindTheBack(object("disk/bricks/b00.brick"), "old brick");
    EXPECT_EQ(openToRead(*fs, path("disk/bricks/b00.brick")), CFileSystemError::NotFound);
    EXPECT_TRUE(fs->fileExists(path("disk/bricks/b00.brick")));
    EXPECT_TRUE(fs->getFileInfo(path("disk/bricks/b00.brick"), true)->exists());
    EXPECT_EQ(openToRead(*fs, path("disk/bricks/b00.brick")), -1);
}

TEST_F(ObjectStoreFileSystemTest, AFolderInTheListingIsAFolderWhenOpenedAsAFile)
{
    objects->putBehindTheBack(object("disk/bricks/"), "");
    objects->putBehindTheBack(object("disk/other/b00.brick"), "brick");
    EXPECT_EQ(openToRead(*fs, path("disk/missing")), CFileSystemError::NotFound);
    const auto calls = callsOf([&] {
        EXPECT_EQ(openToRead(*fs, path("disk/bricks")), CFileSystemError::IsAFolder);
        EXPECT_EQ(openToRead(*fs, path("disk/other")), CFileSystemError::IsAFolder);
    });
    EXPECT_EQ(calls.stats, 0);
    EXPECT_EQ(calls.lists, 0);
}

TEST_F(ObjectStoreFileSystemTest, AFolderLongerThanOneListingLooksForAMarkerAtEachMissingFile)
{
    objects->setLevelPageSize(2);
    for (const char* key : {"disk/b00.brick", "disk/b01.brick", "disk/b02.brick"})
        objects->putBehindTheBack(object(key), "brick");
    for (int round = 0; round < 2; ++round) {
        const auto calls =
            callsOf([&] { EXPECT_EQ(openToRead(*fs, path("disk/b03.brick")), CFileSystemError::NotFound); });
        EXPECT_EQ(calls.reads, 1);
        EXPECT_EQ(calls.stats, 1) << "the marker of disk/b03.brick/";
    }
}

TEST_F(ObjectStoreFileSystemTest, AStoreWithoutLevelListingsLooksForAMarkerAtEachMissingFile)
{
    objects->setLevelPageSize(0);
    objects->putBehindTheBack(object("disk/b00.brick"), "brick");
    for (int round = 0; round < 2; ++round) {
        const auto calls =
            callsOf([&] { EXPECT_EQ(openToRead(*fs, path("disk/b01.brick")), CFileSystemError::NotFound); });
        EXPECT_EQ(calls.reads, 1);
        EXPECT_EQ(calls.stats, 1);
        EXPECT_EQ(calls.lists, 0);
    }
}

TEST_F(ObjectStoreFileSystemTest, AFileDeletedHereIsMissingAgain)
{
    fs->createFolder(path("disk"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/brick"), "x", true), -1);
    fs->deleteFile(path("disk/brick"), false);
    const auto calls = callsOf([&] {
        EXPECT_EQ(openToRead(*fs, path("disk/brick")), CFileSystemError::NotFound);
        EXPECT_FALSE(fs->fileExists(path("disk/brick")));
    });
    EXPECT_EQ(calls.reads, 0);
}

TEST_F(ObjectStoreFileSystemTest, AFolderThatAMissingFileWasLookedForInIsNotTakenForAFolderByItsEmptyListing)
{
    fs->createFolder(path("disk"), folderMode);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    EXPECT_EQ(openToRead(*other, path("disk/bricks/b00.brick")), CFileSystemError::NotFound);
    EXPECT_FALSE(other->folderExists(path("disk/bricks")));
    EXPECT_EQ(store(*other, path("disk/bricks/b00.brick"), "brick", true), CFileSystemError::NotFound);
    other->createFolder(path("disk/bricks"), folderMode);
    EXPECT_TRUE(objects->holds(object("disk/bricks/")));
    const auto calls = callsOf([&] { EXPECT_EQ(store(*other, path("disk/bricks/b00.brick"), "brick", true), -1); });
    EXPECT_EQ(calls.total(), 1);
}

TEST_F(ObjectStoreFileSystemTest, StoringAFileMissingFromAListedFolderCostsTheWriteAlone)
{
    fs->createFolder(path("disk/bricks"), folderMode);
    const P<CObjectStoreFileSystem> other = makeFileSystem(objects.get());
    EXPECT_EQ(openToRead(*other, path("disk/bricks/b00.brick")), CFileSystemError::NotFound);
    const auto calls = callsOf([&] { EXPECT_EQ(store(*other, path("disk/bricks/b01.brick"), "brick", true), -1); });
    EXPECT_EQ(calls.puts, 1);
    EXPECT_EQ(calls.total(), 1);
    EXPECT_EQ(openToRead(*other, path("disk/bricks/b01.brick")), -1);
}

TEST_F(ObjectStoreFileSystemTest, AListingTheStoreRefusesFallsBackToTheFolderMarker)
{
    objects->denyLevelListings(true);
    objects->putBehindTheBack(object("disk/bricks/"), "");
    for (int round = 0; round < 2; ++round) {
        const auto calls =
            callsOf([&] { EXPECT_EQ(openToRead(*fs, path("disk/b00.brick")), CFileSystemError::NotFound); });
        EXPECT_EQ(calls.reads, 1);
        EXPECT_EQ(calls.lists, round == 0 ? 1 : 0) << "a refused listing is not tried again";
        EXPECT_EQ(calls.stats, 1) << "the marker of disk/b00.brick/";
    }
    EXPECT_EQ(openToRead(*fs, path("disk/bricks")), CFileSystemError::IsAFolder);
}

// The store's listing tells each object's tag (here, as S3 gives it, the
// MD5 of its bytes): files of the same bytes share it, a file stored again
// with other bytes gets another one, folders have none.
TEST_F(ObjectStoreFileSystemTest, AListingWithInfoGivesEachFileTheStoresTagOfItsBytes)
{
    fs->createFolder(path("disk/bricks/a00"), folderMode);
    ASSERT_EQ(store(*fs, path("disk/bricks/b00.brick"), "hello", true), -1);
    ASSERT_EQ(store(*fs, path("disk/bricks/b01.brick"), "hello", true), -1);
    ASSERT_EQ(store(*fs, path("disk/bricks/b02.brick"), "other", true), -1);

    std::map<std::string, std::string> tags;
    for (const FolderEntry& entry : listFolderWithInfo(fs.get(), path("disk/bricks")))
        tags[entry.name.toUTF8()] = entry.contentTag.toUTF8();

    EXPECT_EQ(tags.at("b00.brick"), "5d41402abc4b2a76b9719d911017c592");
    EXPECT_EQ(tags.at("b01.brick"), tags.at("b00.brick"));
    EXPECT_NE(tags.at("b02.brick"), tags.at("b00.brick"));
    EXPECT_EQ(tags.at("a00"), "");
    ASSERT_EQ(store(*fs, path("disk/bricks/b00.brick"), "hellO", true), -1);
    for (const FolderEntry& entry : listFolderWithInfo(fs.get(), path("disk/bricks"))) {
        if (entry.name == String("b00.brick")) {
            EXPECT_NE(entry.contentTag.toUTF8(), "5d41402abc4b2a76b9719d911017c592");
        }
    }
}

TEST_F(ObjectStoreFileSystemTest, APathWhoseDotDotClimbsAboveItsContainerIsRefused)
{
    objects->putBehindTheBack(object("disk.brickdisk"), "outside");
    for (const char* escaping : {"memory://bucket/disk/../../disk.brickdisk", "memory://bucket/../disk.brickdisk",
                                 "memory://bucket/./a/../../disk.brickdisk"}) {
        SCOPED_TRACE(escaping);
        EXPECT_THROW(fs->toObjectName(CURI(escaping)), CInvalidArgError);
        EXPECT_THROW(fs->fileExists(CURI(escaping)), CInvalidArgError);
        EXPECT_THROW(fs->openStream(CURI(escaping), IIOStream::AccessRead, IIOStream::OptionNone), CInvalidArgError);
        EXPECT_THROW(fs->deleteFile(CURI(escaping), true), CInvalidArgError);
    }
    EXPECT_EQ(objects->read(object("disk.brickdisk")), "outside");
}

TEST_F(ObjectStoreFileSystemTest, DotDotInsideTheContainerNamesTheKeyItLeadsTo)
{
    EXPECT_EQ(fs->toObjectName(CURI("memory://bucket/chain/child/../parent/disk.brickdisk")).key,
              "chain/parent/disk.brickdisk");
    EXPECT_EQ(fs->toObjectName(CURI("memory://bucket/child/..")).key, "");
}

} // namespace
