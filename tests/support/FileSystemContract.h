// The behaviour that every IFileSystem of the system shares, as a suite of
// tests over a type that sets up one file system. Each test program that
// checks a file system includes this once and instantiates the suite with
// its environments (see tests/zo/FileSystemContractTest.cpp): a type with
// `static P<FS> make(int threadCount)`, `CURI root() const` (an empty folder
// for the test) and the member `P<FS> fs`, where FS has waitUntilIdle().
#pragma once

#include "zo/BufferStream.h"
#include "zo/FileSystem.h"
#include "zo/FileSystemQueries.h"
#include "zo/Signal.h"
#include "zo/StagedStore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace zo;

namespace {

constexpr int waitMillis = 10000;
constexpr int folderMode = 0x1ff;

// What a listener saw; outlives the listener so that tests can drop it.
struct ListenerRecord {
    std::mutex mutex;
    int calls = 0;
    P<CError> error;
    std::thread::id thread;
    std::atomic<bool> destroyed{false};
    CSignal called;

    int getCalls()
    {
        std::lock_guard lock(mutex);
        return calls;
    }
    P<CError> getError()
    {
        std::lock_guard lock(mutex);
        return error;
    }
    std::thread::id getThread()
    {
        std::lock_guard lock(mutex);
        return thread;
    }
};

class CRecordingListener : public CBase, public IDoneListener {
public:
    explicit CRecordingListener(std::shared_ptr<ListenerRecord> record = std::make_shared<ListenerRecord>())
        : m_record(std::move(record))
    {}
    ~CRecordingListener() override { m_record->destroyed = true; }

    void onDone(const CError* error) override
    {
        {
            std::lock_guard lock(m_record->mutex);
            ++m_record->calls;
            m_record->error = error ? error->clone() : P<CError>();
            m_record->thread = std::this_thread::get_id();
        }
        m_record->called.set();
    }
    const std::shared_ptr<ListenerRecord>& record() const { return m_record; }

private:
    std::shared_ptr<ListenerRecord> m_record;
};

// A listener that blocks in onDone until it is let go.
class CBlockingListener : public CRecordingListener {
public:
    void onDone(const CError* error) override
    {
        entered.set();
        mayReturn.wait(-1);
        CRecordingListener::onDone(error);
    }
    CSignal entered;
    CSignal mayReturn;
};

// A source stream over fixed bytes that notes its own destruction.
class CTrackedSource : public CBufferStream {
public:
    CTrackedSource(const std::string& bytes, std::shared_ptr<std::atomic<bool>> destroyed)
        : CBufferStream(nullptr, 2.0), m_destroyed(std::move(destroyed))
    {
        write(bytes.data(), static_cast<int>(bytes.size()));
        seek(0);
    }
    ~CTrackedSource() override { *m_destroyed = true; }

private:
    std::shared_ptr<std::atomic<bool>> m_destroyed;
};

P<IInStream> makeSource(const std::string& bytes)
{
    P<CBufferStream> stream(new CBufferStream(nullptr, 2.0));
    stream->write(bytes.data(), static_cast<int>(bytes.size()));
    stream->seek(0);
    return P<IInStream>(stream.get());
}

int problemOf(const P<CError>& error)
{
    return error ? CFileSystemError::getProblem(error->getProps()) : -1;
}

template <class Call>
int thrownProblem(Call call)
{
    try {
        call();
    } catch (const CError& e) {
        return CFileSystemError::getProblem(e.getProps());
    }
    return -1;
}

template <class Call>
int64 thrownIOCode(Call call)
{
    try {
        call();
    } catch (const CIOError& e) {
        return e.getCode();
    }
    return -1;
}

template <class Environment>
class FileSystemContractTest : public ::testing::Test {
protected:
    IFileSystem& fs() { return *env.fs; }
    CURI path(const char* relative) const { return env.root() << CURI(relative); }

    // Waits for `op` and gives the error its listener heard, after checking
    // that the handle gives the same one.
    static P<CError> finish(const P<IFileSystemOp>& op, CRecordingListener& listener)
    {
        EXPECT_TRUE(op->waitDone(waitMillis));
        EXPECT_EQ(listener.record()->getCalls(), 1);
        const P<CError> heard = listener.record()->getError();
        const P<CError> kept = op->getError();
        EXPECT_EQ(problemOf(kept), problemOf(heard));
        if (heard && kept) {
            EXPECT_EQ(kept->toString(), heard->toString());
        }
        return heard;
    }
    P<CError> store(const CURI& file, const std::string& bytes, bool overwrite, int size = -1)
    {
        P<CRecordingListener> listener(new CRecordingListener());
        const P<IInStream> source = makeSource(bytes);
        const int count = size < 0 ? static_cast<int>(bytes.size()) : size;
        return finish(fs().beginStoreFile(file, count, source.get(), overwrite, listener.get()), *listener);
    }
    P<CError> storeBatched(const CURI& file, const std::string& bytes, bool overwrite)
    {
        P<CRecordingListener> listener(new CRecordingListener());
        const P<IInStream> source = makeSource(bytes);
        return finish(
            fs().beginStoreFileBatched(file, static_cast<int>(bytes.size()), source.get(), overwrite, listener.get()),
            *listener);
    }
    P<CError> createFolderAsync(const CURI& folder)
    {
        P<CRecordingListener> listener(new CRecordingListener());
        return finish(fs().beginCreateFolder(folder, folderMode, listener.get()), *listener);
    }
    P<CError> move(const CURI& from, const CURI& to, bool overwrite)
    {
        P<CRecordingListener> listener(new CRecordingListener());
        return finish(fs().beginMoveFile(from, to, overwrite, listener.get()), *listener);
    }
    P<CError> copy(const CURI& from, const CURI& to, bool overwrite)
    {
        P<CRecordingListener> listener(new CRecordingListener());
        return finish(fs().beginCopyFile(from, to, overwrite, listener.get()), *listener);
    }
    P<CError> deleteAsync(const CURI& file)
    {
        P<CRecordingListener> listener(new CRecordingListener());
        return finish(fs().beginDeleteFile(file, listener.get()), *listener);
    }
    void writeFile(const CURI& file, const std::string& bytes)
    {
        P<IIOStream> stream = fs().openStream(file, IIOStream::AccessReadWrite, IIOStream::OptionReplace);
        stream->write(bytes.data(), static_cast<int>(bytes.size()));
    }
    std::string readFile(const CURI& file)
    {
        P<IIOStream> stream = fs().openStream(file, IIOStream::AccessRead, IIOStream::OptionNone);
        std::string bytes(static_cast<size_t>(stream->getSize()), '\0');
        stream->read(bytes.data(), static_cast<int>(bytes.size()));
        return bytes;
    }
    std::vector<std::string> list(const CURI& folder)
    {
        std::vector<std::string> names;
        for (const String& name : fs().listFolder(folder))
            names.push_back(name.toUTF8());
        return names;
    }

    Environment env;
};

TYPED_TEST_SUITE_P(FileSystemContractTest);

// --- beginStoreFile ---

TYPED_TEST_P(FileSystemContractTest, StoreFileCreatesFileWithTheSourceBytes)
{
    EXPECT_FALSE(this->store(this->path("a.bin"), "brick bytes", false));
    EXPECT_EQ(this->readFile(this->path("a.bin")), "brick bytes");
}

TYPED_TEST_P(FileSystemContractTest, StoreFileTakesOnlySizeBytesFromALongerSource)
{
    EXPECT_FALSE(this->store(this->path("a.bin"), "0123456789", true, 4));
    EXPECT_EQ(this->readFile(this->path("a.bin")), "0123");
}

TYPED_TEST_P(FileSystemContractTest, StoreFileOfZeroBytesCreatesAnEmptyFile)
{
    EXPECT_FALSE(this->store(this->path("empty"), "", false));
    EXPECT_TRUE(this->fs().fileExists(this->path("empty")));
    EXPECT_EQ(this->fs().getFileInfo(this->path("empty"), true)->getSize(), 0);
}

TYPED_TEST_P(FileSystemContractTest, StoreFileWithoutOverwriteFailsWithAlreadyExistsAndKeepsTheOldFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "old", false));
    EXPECT_EQ(problemOf(this->store(this->path("a"), "new", false)), CFileSystemError::AlreadyExists);
    EXPECT_EQ(this->readFile(this->path("a")), "old");
}

TYPED_TEST_P(FileSystemContractTest, StoreFileWithOverwriteReplacesTheOldFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "old contents", false));
    EXPECT_FALSE(this->store(this->path("a"), "new", true));
    EXPECT_EQ(this->readFile(this->path("a")), "new");
}

TYPED_TEST_P(FileSystemContractTest, StoreFileIntoMissingFolderFailsWithNotFound)
{
    EXPECT_EQ(problemOf(this->store(this->path("missing/deeper/a"), "x", true)), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(this->store(this->path("missing/a"), "x", false)), CFileSystemError::NotFound);
    EXPECT_FALSE(this->fs().pathExists(this->path("missing")));
}

TYPED_TEST_P(FileSystemContractTest, StoreFileFromAShortSourceFailsAndKeepsTheOldFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "old", false));
    const P<CError> error = this->store(this->path("a"), "12345", true, 10);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::EndOfData);
    EXPECT_EQ(this->readFile(this->path("a")), "old");
    EXPECT_TRUE(this->store(this->path("b"), "12345", false, 10));
    EXPECT_FALSE(this->fs().pathExists(this->path("b")));
}

TYPED_TEST_P(FileSystemContractTest, StoreFileOntoAFolderWithoutOverwriteFailsWithAlreadyExists)
{
    this->fs().createFolder(this->path("folder"), folderMode);
    EXPECT_EQ(problemOf(this->store(this->path("folder"), "x", false)), CFileSystemError::AlreadyExists);
    EXPECT_TRUE(this->fs().folderExists(this->path("folder")));
}

TYPED_TEST_P(FileSystemContractTest, StoreFileOntoAFolderWithOverwriteFailsWithIsAFolder)
{
    this->fs().createFolder(this->path("folder"), folderMode);
    EXPECT_EQ(problemOf(this->store(this->path("folder"), "x", true)), CFileSystemError::IsAFolder);
    EXPECT_TRUE(this->fs().folderExists(this->path("folder")));
}

TYPED_TEST_P(FileSystemContractTest, StoreFileLeavesReadersOfTheOldFileWithTheOldBytes)
{
    ASSERT_FALSE(this->store(this->path("a"), "old-old-old", false));
    P<IIOStream> reader = this->fs().openStream(this->path("a"), IIOStream::AccessRead, IIOStream::OptionNone);
    char head[4] = {};
    reader->read(head, 4);
    ASSERT_FALSE(this->store(this->path("a"), "NEW", true));
    char rest[7] = {};
    reader->read(rest, 7);
    EXPECT_EQ(std::string(head, 4) + std::string(rest, 7), "old-old-old");
    EXPECT_EQ(this->readFile(this->path("a")), "NEW");
}

TYPED_TEST_P(FileSystemContractTest, BeginStoreFileRefusesANegativeSizeOrNoSource)
{
    const P<IInStream> source = makeSource("x");
    EXPECT_THROW(this->fs().beginStoreFile(this->path("a"), -1, source.get(), true, nullptr), CInvalidArgError);
    EXPECT_THROW(this->fs().beginStoreFile(this->path("a"), 1, nullptr, true, nullptr), CInvalidArgError);
}

// --- beginStoreFileBatched, syncBatch ---

TYPED_TEST_P(FileSystemContractTest, BatchedStoreFileStoresAsStoreFileDoesAndSyncBatchKeepsTheFiles)
{
    ASSERT_FALSE(this->store(this->path("a"), "old", false));
    EXPECT_EQ(problemOf(this->storeBatched(this->path("a"), "new", false)), CFileSystemError::AlreadyExists);
    EXPECT_EQ(this->readFile(this->path("a")), "old");
    EXPECT_FALSE(this->storeBatched(this->path("a"), "new", true));
    EXPECT_FALSE(this->storeBatched(this->path("b"), "other", false));
    EXPECT_EQ(problemOf(this->storeBatched(this->path("missing/a"), "x", true)), CFileSystemError::NotFound);
    EXPECT_FALSE(this->createFolderAsync(this->path("made")));
    EXPECT_FALSE(this->storeBatched(this->path("made/c"), "in a new folder", false));
    EXPECT_FALSE(this->deleteAsync(this->path("b")));
    this->fs().syncBatch();
    EXPECT_EQ(this->readFile(this->path("a")), "new");
    EXPECT_EQ(this->readFile(this->path("made/c")), "in a new folder");
    EXPECT_FALSE(this->fs().pathExists(this->path("b")));
    this->fs().syncBatch();
}

// --- beginCreateFolder ---

TYPED_TEST_P(FileSystemContractTest, BeginCreateFolderCreatesTheFolder)
{
    EXPECT_FALSE(this->createFolderAsync(this->path("f")));
    EXPECT_TRUE(this->fs().folderExists(this->path("f")));
}

TYPED_TEST_P(FileSystemContractTest, BeginCreateFolderOfAnExistingFolderFailsWithAlreadyExists)
{
    ASSERT_FALSE(this->createFolderAsync(this->path("f")));
    EXPECT_EQ(problemOf(this->createFolderAsync(this->path("f"))), CFileSystemError::AlreadyExists);
}

TYPED_TEST_P(FileSystemContractTest, BeginCreateFolderWithAMissingParentFailsWithNotFound)
{
    EXPECT_EQ(problemOf(this->createFolderAsync(this->path("missing/f"))), CFileSystemError::NotFound);
    EXPECT_FALSE(this->fs().pathExists(this->path("missing")));
}

// --- beginMoveFile ---

TYPED_TEST_P(FileSystemContractTest, MoveFileMovesTheBytesAndRemovesTheSource)
{
    this->fs().createFolder(this->path("child"), folderMode);
    ASSERT_FALSE(this->store(this->path("a"), "payload", false));
    EXPECT_FALSE(this->move(this->path("a"), this->path("child/a"), false));
    EXPECT_FALSE(this->fs().pathExists(this->path("a")));
    EXPECT_EQ(this->readFile(this->path("child/a")), "payload");
}

TYPED_TEST_P(FileSystemContractTest, MoveFileWithoutOverwriteFailsWithAlreadyExistsAndTouchesNeitherFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "source", false));
    ASSERT_FALSE(this->store(this->path("b"), "target", false));
    EXPECT_EQ(problemOf(this->move(this->path("a"), this->path("b"), false)), CFileSystemError::AlreadyExists);
    EXPECT_EQ(this->readFile(this->path("a")), "source");
    EXPECT_EQ(this->readFile(this->path("b")), "target");
}

TYPED_TEST_P(FileSystemContractTest, MoveFileWithOverwriteReplacesTheTarget)
{
    ASSERT_FALSE(this->store(this->path("a"), "source", false));
    ASSERT_FALSE(this->store(this->path("b"), "target", false));
    EXPECT_FALSE(this->move(this->path("a"), this->path("b"), true));
    EXPECT_FALSE(this->fs().pathExists(this->path("a")));
    EXPECT_EQ(this->readFile(this->path("b")), "source");
}

TYPED_TEST_P(FileSystemContractTest, MoveFileOfAMissingSourceFailsWithNotFound)
{
    EXPECT_EQ(problemOf(this->move(this->path("missing"), this->path("b"), false)), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(this->move(this->path("missing"), this->path("b"), true)), CFileSystemError::NotFound);
    EXPECT_FALSE(this->fs().pathExists(this->path("b")));
}

TYPED_TEST_P(FileSystemContractTest, MoveFileIntoAMissingFolderFailsWithNotFoundAndKeepsTheSource)
{
    ASSERT_FALSE(this->store(this->path("a"), "source", false));
    EXPECT_EQ(problemOf(this->move(this->path("a"), this->path("missing/a"), false)), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(this->move(this->path("a"), this->path("missing/a"), true)), CFileSystemError::NotFound);
    EXPECT_EQ(this->readFile(this->path("a")), "source");
}

// --- beginCopyFile ---

TYPED_TEST_P(FileSystemContractTest, CopyFileCopiesTheBytesAndKeepsTheSource)
{
    this->fs().createFolder(this->path("child"), folderMode);
    ASSERT_FALSE(this->store(this->path("a"), "payload", false));
    EXPECT_FALSE(this->copy(this->path("a"), this->path("child/a"), false));
    EXPECT_EQ(this->readFile(this->path("a")), "payload");
    EXPECT_EQ(this->readFile(this->path("child/a")), "payload");
}

TYPED_TEST_P(FileSystemContractTest, CopyFileKeepsItsBytesWhenTheSourceIsReplacedLater)
{
    ASSERT_FALSE(this->store(this->path("a"), "old", false));
    ASSERT_FALSE(this->copy(this->path("a"), this->path("b"), false));
    ASSERT_FALSE(this->store(this->path("a"), "new", true));
    EXPECT_EQ(this->readFile(this->path("b")), "old");
    EXPECT_FALSE(this->deleteAsync(this->path("a")));
    EXPECT_EQ(this->readFile(this->path("b")), "old");
}

TYPED_TEST_P(FileSystemContractTest, CopyFileWithoutOverwriteFailsWithAlreadyExistsAndTouchesNeitherFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "source", false));
    ASSERT_FALSE(this->store(this->path("b"), "target", false));
    EXPECT_EQ(problemOf(this->copy(this->path("a"), this->path("b"), false)), CFileSystemError::AlreadyExists);
    EXPECT_EQ(this->readFile(this->path("a")), "source");
    EXPECT_EQ(this->readFile(this->path("b")), "target");
}

TYPED_TEST_P(FileSystemContractTest, CopyFileWithOverwriteReplacesTheTargetAndLeavesNoTemporaryFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "source", false));
    ASSERT_FALSE(this->store(this->path("b"), "target", false));
    EXPECT_FALSE(this->copy(this->path("a"), this->path("b"), true));
    EXPECT_EQ(this->readFile(this->path("a")), "source");
    EXPECT_EQ(this->readFile(this->path("b")), "source");
    EXPECT_EQ(this->list(this->env.root()), std::vector<std::string>({"a", "b"}));
}

TYPED_TEST_P(FileSystemContractTest, CopyFileOfAMissingSourceFailsWithNotFound)
{
    EXPECT_EQ(problemOf(this->copy(this->path("missing"), this->path("b"), false)), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(this->copy(this->path("missing"), this->path("b"), true)), CFileSystemError::NotFound);
    EXPECT_FALSE(this->fs().pathExists(this->path("b")));
}

TYPED_TEST_P(FileSystemContractTest, CopyFileIntoAMissingFolderFailsWithNotFoundAndKeepsTheSource)
{
    ASSERT_FALSE(this->store(this->path("a"), "source", false));
    EXPECT_EQ(problemOf(this->copy(this->path("a"), this->path("missing/a"), false)), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(this->copy(this->path("a"), this->path("missing/a"), true)), CFileSystemError::NotFound);
    EXPECT_EQ(this->readFile(this->path("a")), "source");
}

// --- lockFolder ---

TYPED_TEST_P(FileSystemContractTest, SharedLocksOfAFolderGoTogether)
{
    const P<zo::IFileSystemLock> first = this->fs().lockFolder(this->env.root(), false);
    const P<zo::IFileSystemLock> second = this->fs().lockFolder(this->env.root(), false);
    EXPECT_FALSE(first->isExclusive());
    EXPECT_FALSE(second->isExclusive());
    EXPECT_EQ(thrownProblem([&] { this->fs().lockFolder(this->env.root(), true); }), CFileSystemError::Locked);
}

TYPED_TEST_P(FileSystemContractTest, AnExclusiveLockKeepsOutEveryOtherLockUntilItIsDropped)
{
    P<zo::IFileSystemLock> exclusive = this->fs().lockFolder(this->env.root(), true);
    EXPECT_TRUE(exclusive->isExclusive());
    EXPECT_EQ(thrownProblem([&] { this->fs().lockFolder(this->env.root(), true); }), CFileSystemError::Locked);
    EXPECT_EQ(thrownProblem([&] { this->fs().lockFolder(this->env.root(), false); }), CFileSystemError::Locked);
    exclusive.reset();
    EXPECT_TRUE(this->fs().lockFolder(this->env.root(), true));
}

TYPED_TEST_P(FileSystemContractTest, LocksOfDifferentFoldersDoNotConflict)
{
    this->fs().createFolder(this->path("other"), folderMode);
    const P<zo::IFileSystemLock> first = this->fs().lockFolder(this->env.root(), true);
    EXPECT_TRUE(this->fs().lockFolder(this->path("other"), true));
}

TYPED_TEST_P(FileSystemContractTest, LockOfAMissingFolderFailsWithNotFound)
{
    EXPECT_EQ(thrownProblem([&] { this->fs().lockFolder(this->path("missing"), false); }), CFileSystemError::NotFound);
}

// --- beginDeleteFile ---

TYPED_TEST_P(FileSystemContractTest, BeginDeleteFileRemovesTheFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "x", false));
    EXPECT_FALSE(this->deleteAsync(this->path("a")));
    EXPECT_FALSE(this->fs().pathExists(this->path("a")));
}

TYPED_TEST_P(FileSystemContractTest, BeginDeleteFileOfAMissingFileSucceeds)
{
    EXPECT_FALSE(this->deleteAsync(this->path("missing")));
    EXPECT_FALSE(this->deleteAsync(this->path("missing-folder/missing")));
}

// --- getFileInfo ---

TYPED_TEST_P(FileSystemContractTest, GetFileInfoGivesTheLengthOfAFile)
{
    ASSERT_FALSE(this->store(this->path("a"), "12345", false));
    const P<IFileInfo> info = this->fs().getFileInfo(this->path("a"), true);
    EXPECT_TRUE(info->exists());
    EXPECT_FALSE(info->isFolder());
    EXPECT_EQ(info->getSize(), 5);
}

TYPED_TEST_P(FileSystemContractTest, GetFileInfoReportsAFolder)
{
    const P<IFileInfo> info = this->fs().getFileInfo(this->env.root(), true);
    EXPECT_TRUE(info->exists());
    EXPECT_TRUE(info->isFolder());
}

TYPED_TEST_P(FileSystemContractTest, GetFileInfoOfAMissingPathThrowsNotFoundOnlyWhenAsked)
{
    EXPECT_EQ(thrownProblem([&] { this->fs().getFileInfo(this->path("missing"), true); }), CFileSystemError::NotFound);
    const P<IFileInfo> info = this->fs().getFileInfo(this->path("missing"), false);
    EXPECT_FALSE(info->exists());
}

// --- openStream and its streams ---

TYPED_TEST_P(FileSystemContractTest, OpenStreamForReplaceCreatesTheFileAndAReaderGetsItsBytesAndLength)
{
    {
        P<IIOStream> writer =
            this->fs().openStream(this->path("aux"), IIOStream::AccessReadWrite, IIOStream::OptionReplace);
        writer->write("header", 6, nullptr);
        writer->write("+digest", 7, nullptr);
    }
    P<IIOStream> reader = this->fs().openStream(this->path("aux"), IIOStream::AccessRead, IIOStream::OptionNone);
    EXPECT_EQ(reader->getSize(), 13);
    char bytes[13] = {};
    reader->read(bytes, 13);
    EXPECT_EQ(std::string(bytes, 13), "header+digest");
    EXPECT_TRUE(reader->isEndOfStream());
}

TYPED_TEST_P(FileSystemContractTest, OpenStreamForReplaceEmptiesAnExistingFile)
{
    this->writeFile(this->path("aux"), "a long old record");
    this->writeFile(this->path("aux"), "short");
    EXPECT_EQ(this->readFile(this->path("aux")), "short");
}

TYPED_TEST_P(FileSystemContractTest, OpenStreamForReadingAMissingFileThrowsNotFound)
{
    EXPECT_EQ(thrownProblem(
                  [&] { this->fs().openStream(this->path("missing"), IIOStream::AccessRead, IIOStream::OptionNone); }),
              CFileSystemError::NotFound);
}

TYPED_TEST_P(FileSystemContractTest, OpenStreamForReplaceInAMissingFolderThrowsNotFound)
{
    EXPECT_EQ(thrownProblem([&] {
                  this->fs().openStream(this->path("missing/aux"), IIOStream::AccessReadWrite,
                                        IIOStream::OptionReplace);
              }),
              CFileSystemError::NotFound);
}

TYPED_TEST_P(FileSystemContractTest, OpenStreamForWritingWithoutReplaceWritesIntoTheExistingFileOnly)
{
    EXPECT_EQ(thrownProblem(
                  [&] { this->fs().openStream(this->path("missing"), IIOStream::AccessWrite, IIOStream::OptionNone); }),
              CFileSystemError::NotFound);
    this->writeFile(this->path("a"), "abcdef");
    {
        P<IIOStream> stream = this->fs().openStream(this->path("a"), IIOStream::AccessWrite, IIOStream::OptionNone);
        stream->seek(2);
        stream->write("XY", 2, nullptr);
    }
    EXPECT_EQ(this->readFile(this->path("a")), "abXYef");
}

TYPED_TEST_P(FileSystemContractTest, OpenStreamOfAFolderThrowsIsAFolder)
{
    EXPECT_EQ(
        thrownProblem([&] { this->fs().openStream(this->env.root(), IIOStream::AccessRead, IIOStream::OptionNone); }),
        CFileSystemError::IsAFolder);
}

TYPED_TEST_P(FileSystemContractTest, StreamReadPastTheEndThrowsEndOfDataAndReadLaxStopsThere)
{
    this->writeFile(this->path("a"), "abc");
    P<IIOStream> stream = this->fs().openStream(this->path("a"), IIOStream::AccessRead, IIOStream::OptionNone);
    char bytes[8] = {};
    EXPECT_EQ(thrownIOCode([&] { stream->read(bytes, 8); }), CIOError::EndOfData);
    stream->seek(1);
    EXPECT_EQ(stream->readLax(bytes, 8), 2);
    EXPECT_EQ(std::string(bytes, 2), "bc");
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(stream->readAvailable(bytes, 8), 0);
}

TYPED_TEST_P(FileSystemContractTest, StreamSeekMovesThePositionAndRefusesPositionsOutsideTheFile)
{
    this->writeFile(this->path("a"), "0123456789");
    P<IIOStream> stream = this->fs().openStream(this->path("a"), IIOStream::AccessRead, IIOStream::OptionNone);
    stream->seek(7);
    EXPECT_EQ(stream->getPosition(), 7);
    char digit = 0;
    stream->read(&digit, 1);
    EXPECT_EQ(digit, '7');
    EXPECT_EQ(stream->getPosition(), 8);
    stream->seek(10);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(thrownIOCode([&] { stream->seek(11); }), CIOError::SeekOutOfRange);
    EXPECT_EQ(thrownIOCode([&] { stream->seek(-1); }), CIOError::SeekOutOfRange);
}

TYPED_TEST_P(FileSystemContractTest, StreamSetLengthTruncatesAndExtendsWithZeros)
{
    P<IIOStream> stream = this->fs().openStream(this->path("a"), IIOStream::AccessReadWrite, IIOStream::OptionReplace);
    stream->write("abcdef", 6, nullptr);
    stream->setLength(2);
    EXPECT_EQ(stream->getLength(), 2);
    EXPECT_EQ(stream->getPosition(), 2);
    stream->setLength(4);
    stream->flush();
    EXPECT_EQ(this->readFile(this->path("a")), std::string("ab\0\0", 4));
}

TYPED_TEST_P(FileSystemContractTest, StreamOpenForReadingRefusesWrites)
{
    this->writeFile(this->path("a"), "abc");
    P<IIOStream> stream = this->fs().openStream(this->path("a"), IIOStream::AccessRead, IIOStream::OptionNone);
    EXPECT_EQ(thrownIOCode([&] { stream->write("x", 1, nullptr); }), CIOError::ReadOnly);
    EXPECT_EQ(this->readFile(this->path("a")), "abc");
}

TYPED_TEST_P(FileSystemContractTest, ClosedStreamRefusesReads)
{
    this->writeFile(this->path("a"), "abc");
    P<IIOStream> stream = this->fs().openStream(this->path("a"), IIOStream::AccessRead, IIOStream::OptionNone);
    stream->close();
    char byte = 0;
    EXPECT_EQ(thrownIOCode([&] { stream->read(&byte, 1); }), CIOError::StreamClosed);
}

TYPED_TEST_P(FileSystemContractTest, StreamWritesAreVisibleToLaterOpensWhileTheWriterIsOpen)
{
    P<IIOStream> writer = this->fs().openStream(this->path("a"), IIOStream::AccessWrite, IIOStream::OptionReplace);
    writer->write("first", 5, nullptr);
    EXPECT_EQ(this->readFile(this->path("a")), "first");
    EXPECT_EQ(writer->getURI(), this->path("a"));
}

// --- createFolder ---

TYPED_TEST_P(FileSystemContractTest, CreateFolderCreatesMissingParents)
{
    this->fs().createFolder(this->path("d/bricks/a00"), folderMode);
    EXPECT_TRUE(this->fs().folderExists(this->path("d")));
    EXPECT_TRUE(this->fs().folderExists(this->path("d/bricks")));
    EXPECT_TRUE(this->fs().folderExists(this->path("d/bricks/a00")));
}

TYPED_TEST_P(FileSystemContractTest, CreateFolderOfAnExistingFolderSucceeds)
{
    this->fs().createFolder(this->path("d/fallback"), folderMode);
    EXPECT_NO_THROW(this->fs().createFolder(this->path("d/fallback"), folderMode));
    EXPECT_TRUE(this->fs().folderExists(this->path("d/fallback")));
}

TYPED_TEST_P(FileSystemContractTest, CreateFolderWhereAFileIsFailsWithAlreadyExists)
{
    this->writeFile(this->path("a"), "x");
    EXPECT_EQ(thrownProblem([&] { this->fs().createFolder(this->path("a"), folderMode); }),
              CFileSystemError::AlreadyExists);
    EXPECT_TRUE(this->fs().fileExists(this->path("a")));
}

// --- the existence queries ---

TYPED_TEST_P(FileSystemContractTest, ExistenceQueriesTellFilesFoldersAndMissingPathsApart)
{
    this->writeFile(this->path("file"), "x");
    this->fs().createFolder(this->path("folder"), folderMode);
    EXPECT_TRUE(this->fs().fileExists(this->path("file")));
    EXPECT_FALSE(this->fs().folderExists(this->path("file")));
    EXPECT_TRUE(this->fs().pathExists(this->path("file")));
    EXPECT_FALSE(this->fs().fileExists(this->path("folder")));
    EXPECT_TRUE(this->fs().folderExists(this->path("folder")));
    EXPECT_TRUE(this->fs().pathExists(this->path("folder")));
    EXPECT_FALSE(this->fs().fileExists(this->path("missing")));
    EXPECT_FALSE(this->fs().folderExists(this->path("missing")));
    EXPECT_FALSE(this->fs().pathExists(this->path("missing")));
    EXPECT_FALSE(this->fs().pathExists(this->path("missing/deeper")));
}

// --- deleteFile ---

TYPED_TEST_P(FileSystemContractTest, DeleteFileRemovesTheFile)
{
    this->writeFile(this->path("a"), "x");
    this->fs().deleteFile(this->path("a"), false);
    EXPECT_FALSE(this->fs().pathExists(this->path("a")));
}

TYPED_TEST_P(FileSystemContractTest, DeleteFileOfAMissingFileSucceedsOnlyWhenMissingIsIgnored)
{
    EXPECT_NO_THROW(this->fs().deleteFile(this->path("missing"), true));
    EXPECT_EQ(thrownProblem([&] { this->fs().deleteFile(this->path("missing"), false); }), CFileSystemError::NotFound);
}

// --- listFolder ---

TYPED_TEST_P(FileSystemContractTest, ListFolderGivesTheSortedNamesOfItsFilesAndFolders)
{
    this->fs().createFolder(this->path("list/c/grandchild"), folderMode);
    this->writeFile(this->path("list/b.brick"), "");
    this->writeFile(this->path("list/a.brick"), "");
    this->writeFile(this->path("list/c/deep.brick"), "");
    EXPECT_EQ(this->list(this->path("list")), (std::vector<std::string>{"a.brick", "b.brick", "c"}));
}

TYPED_TEST_P(FileSystemContractTest, ListFolderOfAnEmptyFolderIsEmpty)
{
    this->fs().createFolder(this->path("empty"), folderMode);
    EXPECT_TRUE(this->list(this->path("empty")).empty());
}

TYPED_TEST_P(FileSystemContractTest, ListFolderOfAMissingFolderThrowsNotFound)
{
    EXPECT_EQ(thrownProblem([&] { this->fs().listFolder(this->path("missing")); }), CFileSystemError::NotFound);
}

TYPED_TEST_P(FileSystemContractTest, ListFolderOfAFileThrowsNotAFolder)
{
    this->writeFile(this->path("a"), "x");
    EXPECT_EQ(thrownProblem([&] { this->fs().listFolder(this->path("a")); }), CFileSystemError::NotAFolder);
}

TYPED_TEST_P(FileSystemContractTest, ListFolderWithInfoGivesTheSortedEntriesWithTheirKindsAndSizes)
{
    this->fs().createFolder(this->path("list/c/grandchild"), folderMode);
    this->fs().createFolder(this->path("list/empty"), folderMode);
    this->writeFile(this->path("list/b.brick"), "bytes");
    this->writeFile(this->path("list/a.brick"), "");
    this->writeFile(this->path("list/c/deep.brick"), "deep");
    const std::vector<FolderEntry> entries = zo::listFolderWithInfo(&this->fs(), this->path("list"));
    ASSERT_EQ(entries.size(), 4u);
    const std::vector<std::string> names{"a.brick", "b.brick", "c", "empty"};
    const std::vector<bool> folders{false, false, true, true};
    const std::vector<int64> sizes{0, 5, 0, 0};
    for (size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].name.toUTF8(), names[i]);
        EXPECT_EQ(entries[i].isFolder, folders[i]) << names[i];
        EXPECT_EQ(entries[i].size, sizes[i]) << names[i];
    }
    EXPECT_TRUE(zo::listFolderWithInfo(&this->fs(), this->path("list/empty")).empty());
    EXPECT_EQ(thrownProblem([&] { zo::listFolderWithInfo(&this->fs(), this->path("missing")); }),
              CFileSystemError::NotFound);
    EXPECT_EQ(thrownProblem([&] { zo::listFolderWithInfo(&this->fs(), this->path("list/b.brick")); }),
              CFileSystemError::NotAFolder);
}

// A content tag, where the file system's listing gives one, stands for the
// bytes: a file stored again with other bytes gets another; a folder has
// none.
TYPED_TEST_P(FileSystemContractTest, ListFolderWithInfoGivesAFileStoredWithOtherBytesAnotherContentTag)
{
    this->fs().createFolder(this->path("tags/sub"), folderMode);
    this->writeFile(this->path("tags/a"), "first bytes");
    const auto tagOf = [&](const std::string& name) {
        for (const FolderEntry& entry : zo::listFolderWithInfo(&this->fs(), this->path("tags")))
            if (entry.name.toUTF8() == name)
                return entry.contentTag.toUTF8();
        return std::string("no such entry");
    };
    EXPECT_EQ(tagOf("sub"), "");
    const std::string first = tagOf("a");
    this->writeFile(this->path("tags/a"), "other bytes");
    const std::string other = tagOf("a");
    ASSERT_NE(first, "no such entry");
    if (!first.empty() || !other.empty()) {
        EXPECT_NE(first, other);
    }
}

TYPED_TEST_P(FileSystemContractTest, StagedStoreIsInPlaceOnceTheBatchIsSynced)
{
    this->writeFile(this->path("s"), "old bytes");
    const auto stage = [&](const CURI& file, const std::string& bytes) {
        const P<IInStream> source = makeSource(bytes);
        return zo::beginStoreFileStaged(&this->fs(), file, static_cast<int>(bytes.size()), source.get(), nullptr);
    };
    stage(this->path("s"), "new")->wait();
    stage(this->path("t"), "made")->wait();
    this->fs().syncBatch();
    EXPECT_EQ(this->readFile(this->path("s")), "new");
    EXPECT_EQ(this->readFile(this->path("t")), "made");
    const P<IFileSystemOp> failed = stage(this->path("missing/u"), "x");
    failed->waitDone(-1);
    EXPECT_EQ(problemOf(failed->getError()), CFileSystemError::NotFound);
}

TYPED_TEST_P(FileSystemContractTest, ReadRangeReadsTheBytesOfTheRangeOrThrowsEndOfData)
{
    this->writeFile(this->path("r"), "0123456789");
    char bytes[4] = {};
    zo::readFileRange(&this->fs(), this->path("r"), 6, bytes, 4);
    EXPECT_EQ(std::string(bytes, 4), "6789");
    zo::readFileRange(&this->fs(), this->path("r"), 0, bytes, 2);
    EXPECT_EQ(std::string(bytes, 2), "01");
    EXPECT_EQ(thrownIOCode([&] { zo::readFileRange(&this->fs(), this->path("r"), 8, bytes, 4); }), CIOError::EndOfData);
    EXPECT_EQ(thrownProblem([&] { zo::readFileRange(&this->fs(), this->path("missing"), 0, bytes, 4); }),
              CFileSystemError::NotFound);
}

// --- completions ---

TYPED_TEST_P(FileSystemContractTest, EveryListenerIsCalledExactlyOnce)
{
    this->fs().createFolder(this->path("d"), folderMode);
    std::vector<std::shared_ptr<ListenerRecord>> records;
    for (int i = 0; i < 40; ++i) {
        P<CRecordingListener> listener(new CRecordingListener());
        records.push_back(listener->record());
        const CURI file = this->path("d") << String(std::to_string(i % 10));
        const P<IInStream> source = makeSource(std::string(100, static_cast<char>('a' + i % 26)));
        switch (i % 4) {
        case 0:
            this->fs().beginStoreFile(file, 100, source.get(), i % 8 == 0, listener.get());
            break;
        case 1:
            this->fs().beginCreateFolder(this->path("missing/f"), folderMode, listener.get());
            break;
        case 2:
            this->fs().beginMoveFile(file, this->path("d") << "moved", true, listener.get());
            break;
        default:
            this->fs().beginDeleteFile(file, listener.get());
            break;
        }
    }
    this->env.fs->waitUntilIdle();
    for (const auto& record : records) {
        EXPECT_EQ(record->getCalls(), 1);
        EXPECT_TRUE(record->destroyed);
    }
}

TYPED_TEST_P(FileSystemContractTest, WaitDoneTurnsTrueOnlyOnceTheListenerHasReturned)
{
    P<CBlockingListener> listener(new CBlockingListener());
    const P<IFileSystemOp> op = this->fs().beginCreateFolder(this->path("f"), folderMode, listener.get());
    EXPECT_TRUE(listener->entered.wait(waitMillis));
    EXPECT_FALSE(op->waitDone(0));
    listener->mayReturn.set();
    EXPECT_TRUE(op->waitDone(waitMillis));
    EXPECT_EQ(listener->record()->getCalls(), 1);
    EXPECT_TRUE(op->waitDone(0));
}

TYPED_TEST_P(FileSystemContractTest, ListenerIsCalledOnAThreadOfTheFileSystem)
{
    P<CRecordingListener> listener(new CRecordingListener());
    EXPECT_FALSE(this->finish(this->fs().beginCreateFolder(this->path("f"), folderMode, listener.get()), *listener));
    EXPECT_NE(listener->record()->getThread(), std::this_thread::get_id());
}

TYPED_TEST_P(FileSystemContractTest, ListenerAndSourceAreHeldUntilTheOperationEnds)
{
    const auto sourceDestroyed = std::make_shared<std::atomic<bool>>(false);
    const auto record = std::make_shared<ListenerRecord>();
    P<IFileSystemOp> op;
    {
        P<CRecordingListener> listener(new CRecordingListener(record));
        P<CTrackedSource> source(new CTrackedSource("kept alive", sourceDestroyed));
        op = this->fs().beginStoreFile(this->path("a"), 10, source.get(), false, listener.get());
    }
    ASSERT_TRUE(op->waitDone(waitMillis));
    EXPECT_EQ(record->getCalls(), 1);
    EXPECT_FALSE(record->getError());
    EXPECT_EQ(this->readFile(this->path("a")), "kept alive");
    EXPECT_TRUE(record->destroyed);
    EXPECT_TRUE(*sourceDestroyed);
}

TYPED_TEST_P(FileSystemContractTest, OperationWithoutListenerCompletesItsHandle)
{
    const P<IFileSystemOp> op = this->fs().beginCreateFolder(this->path("f"), folderMode, nullptr);
    EXPECT_TRUE(op->waitDone(waitMillis));
    EXPECT_TRUE(this->fs().folderExists(this->path("f")));
}

TYPED_TEST_P(FileSystemContractTest, HandleOfASuccessGivesNoErrorAndWaitReturns)
{
    const P<IFileSystemOp> op = this->fs().beginCreateFolder(this->path("f"), folderMode, nullptr);
    op->wait();
    EXPECT_TRUE(op->waitDone(0));
    EXPECT_FALSE(op->getError());
    EXPECT_TRUE(this->fs().folderExists(this->path("f")));
}

TYPED_TEST_P(FileSystemContractTest, HandleOfAFailureGivesItsErrorAndWaitThrowsIt)
{
    ASSERT_FALSE(this->store(this->path("a"), "old", false));
    const P<IInStream> source = makeSource("new");
    const P<IFileSystemOp> op = this->fs().beginStoreFile(this->path("a"), 3, source.get(), false, nullptr);
    EXPECT_EQ(thrownProblem([&] { op->wait(); }), CFileSystemError::AlreadyExists);
    EXPECT_EQ(problemOf(op->getError()), CFileSystemError::AlreadyExists);
    EXPECT_THROW(op->wait(), CFileSystemError);
    EXPECT_EQ(this->readFile(this->path("a")), "old");
}

TYPED_TEST_P(FileSystemContractTest, WaitWithAToleratedProblemThrowsOnlyOtherProblems)
{
    ASSERT_FALSE(this->store(this->path("a"), "source", false));
    ASSERT_FALSE(this->store(this->path("b"), "target", false));
    const P<IFileSystemOp> exists = this->fs().beginCopyFile(this->path("a"), this->path("b"), false, nullptr);
    EXPECT_NO_THROW(exists->wait(CFileSystemError::AlreadyExists));
    EXPECT_EQ(problemOf(exists->getError()), CFileSystemError::AlreadyExists);
    const P<IFileSystemOp> missing = this->fs().beginCopyFile(this->path("none"), this->path("c"), false, nullptr);
    EXPECT_EQ(thrownProblem([&] { missing->wait(CFileSystemError::AlreadyExists); }), CFileSystemError::NotFound);
}

// A listener that holds the only reference to its file system and drops it.
class CFileSystemOwningListener : public CRecordingListener {
public:
    explicit CFileSystemOwningListener(IFileSystem* fs) : m_fs(fs) {}
    void onDone(const CError* error) override
    {
        m_fs.reset();
        CRecordingListener::onDone(error);
    }

private:
    P<IFileSystem> m_fs;
};

TYPED_TEST_P(FileSystemContractTest, DroppingTheLastReferenceInAListenerStillCompletesQueuedOperations)
{
    auto fs = TypeParam::make(1);
    fs->createFolder(this->path("own"), folderMode);
    P<CRecordingListener> owning(new CFileSystemOwningListener(fs.get()));
    P<CBlockingListener> first(new CBlockingListener());
    fs->beginCreateFolder(this->path("own/first"), folderMode, first.get());
    EXPECT_TRUE(first->entered.wait(waitMillis));
    fs->beginCreateFolder(this->path("own/second"), folderMode, owning.get());
    std::vector<P<CRecordingListener>> queued;
    for (int i = 0; i < 5; ++i) {
        queued.push_back(P<CRecordingListener>(new CRecordingListener()));
        fs->beginCreateFolder(this->path("own") << String("queued" + std::to_string(i)), folderMode,
                              queued.back().get());
    }
    fs.reset();
    first->mayReturn.set();
    ASSERT_TRUE(owning->record()->called.wait(waitMillis));
    for (const auto& listener : queued)
        EXPECT_TRUE(listener->record()->called.wait(waitMillis));
    for (const auto& listener : queued)
        EXPECT_EQ(listener->record()->getCalls(), 1);
}

TYPED_TEST_P(FileSystemContractTest, DestroyingTheFileSystemWaitsForQueuedOperations)
{
    auto fs = TypeParam::make(1);
    fs->createFolder(this->path("queue"), folderMode);
    std::vector<P<CRecordingListener>> listeners;
    for (int i = 0; i < 10; ++i) {
        listeners.push_back(P<CRecordingListener>(new CRecordingListener()));
        const P<IInStream> source = makeSource("queued");
        fs->beginStoreFile(this->path("queue") << String(std::to_string(i)), 6, source.get(), true,
                           listeners.back().get());
    }
    fs.reset();
    for (const auto& listener : listeners)
        EXPECT_EQ(listener->record()->getCalls(), 1);
}

REGISTER_TYPED_TEST_SUITE_P(
    FileSystemContractTest, BatchedStoreFileStoresAsStoreFileDoesAndSyncBatchKeepsTheFiles,
    StoreFileCreatesFileWithTheSourceBytes, StoreFileTakesOnlySizeBytesFromALongerSource,
    StoreFileOfZeroBytesCreatesAnEmptyFile, StoreFileWithoutOverwriteFailsWithAlreadyExistsAndKeepsTheOldFile,
    StoreFileWithOverwriteReplacesTheOldFile, StoreFileIntoMissingFolderFailsWithNotFound,
    StoreFileFromAShortSourceFailsAndKeepsTheOldFile, StoreFileOntoAFolderWithoutOverwriteFailsWithAlreadyExists,
    StoreFileOntoAFolderWithOverwriteFailsWithIsAFolder, StoreFileLeavesReadersOfTheOldFileWithTheOldBytes,
    BeginStoreFileRefusesANegativeSizeOrNoSource, BeginCreateFolderCreatesTheFolder,
    BeginCreateFolderOfAnExistingFolderFailsWithAlreadyExists, BeginCreateFolderWithAMissingParentFailsWithNotFound,
    MoveFileMovesTheBytesAndRemovesTheSource, MoveFileWithoutOverwriteFailsWithAlreadyExistsAndTouchesNeitherFile,
    MoveFileWithOverwriteReplacesTheTarget, MoveFileOfAMissingSourceFailsWithNotFound,
    MoveFileIntoAMissingFolderFailsWithNotFoundAndKeepsTheSource, CopyFileCopiesTheBytesAndKeepsTheSource,
    CopyFileKeepsItsBytesWhenTheSourceIsReplacedLater,
    CopyFileWithoutOverwriteFailsWithAlreadyExistsAndTouchesNeitherFile,
    CopyFileWithOverwriteReplacesTheTargetAndLeavesNoTemporaryFile, CopyFileOfAMissingSourceFailsWithNotFound,
    CopyFileIntoAMissingFolderFailsWithNotFoundAndKeepsTheSource, SharedLocksOfAFolderGoTogether,
    AnExclusiveLockKeepsOutEveryOtherLockUntilItIsDropped, LocksOfDifferentFoldersDoNotConflict,
    LockOfAMissingFolderFailsWithNotFound, BeginDeleteFileRemovesTheFile, BeginDeleteFileOfAMissingFileSucceeds,
    GetFileInfoGivesTheLengthOfAFile, GetFileInfoReportsAFolder, GetFileInfoOfAMissingPathThrowsNotFoundOnlyWhenAsked,
    OpenStreamForReplaceCreatesTheFileAndAReaderGetsItsBytesAndLength, OpenStreamForReplaceEmptiesAnExistingFile,
    OpenStreamForReadingAMissingFileThrowsNotFound, OpenStreamForReplaceInAMissingFolderThrowsNotFound,
    OpenStreamForWritingWithoutReplaceWritesIntoTheExistingFileOnly, OpenStreamOfAFolderThrowsIsAFolder,
    StreamReadPastTheEndThrowsEndOfDataAndReadLaxStopsThere,
    StreamSeekMovesThePositionAndRefusesPositionsOutsideTheFile, StreamSetLengthTruncatesAndExtendsWithZeros,
    StreamOpenForReadingRefusesWrites, ClosedStreamRefusesReads, StreamWritesAreVisibleToLaterOpensWhileTheWriterIsOpen,
    CreateFolderCreatesMissingParents, CreateFolderOfAnExistingFolderSucceeds,
    CreateFolderWhereAFileIsFailsWithAlreadyExists, ExistenceQueriesTellFilesFoldersAndMissingPathsApart,
    DeleteFileRemovesTheFile, DeleteFileOfAMissingFileSucceedsOnlyWhenMissingIsIgnored,
    ListFolderGivesTheSortedNamesOfItsFilesAndFolders, ListFolderOfAnEmptyFolderIsEmpty,
    ListFolderOfAMissingFolderThrowsNotFound, ListFolderOfAFileThrowsNotAFolder,
    ListFolderWithInfoGivesTheSortedEntriesWithTheirKindsAndSizes,
    ListFolderWithInfoGivesAFileStoredWithOtherBytesAnotherContentTag,
    ReadRangeReadsTheBytesOfTheRangeOrThrowsEndOfData, StagedStoreIsInPlaceOnceTheBatchIsSynced,
    EveryListenerIsCalledExactlyOnce, WaitDoneTurnsTrueOnlyOnceTheListenerHasReturned,
    ListenerIsCalledOnAThreadOfTheFileSystem, ListenerAndSourceAreHeldUntilTheOperationEnds,
    OperationWithoutListenerCompletesItsHandle, HandleOfASuccessGivesNoErrorAndWaitReturns,
    HandleOfAFailureGivesItsErrorAndWaitThrowsIt, WaitWithAToleratedProblemThrowsOnlyOtherProblems,
    DroppingTheLastReferenceInAListenerStillCompletesQueuedOperations, DestroyingTheFileSystemWaitsForQueuedOperations);

} // namespace
