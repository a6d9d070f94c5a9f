// Behaviour of the in-memory file system beyond the shared contract: injected
// failures, counters and the operation log, delayed completions, direct
// access to file contents, roots and relative paths.
#include "zo/MemoryFileSystem.h"
#include "zo/BufferStream.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace zo;
using Operation = CMemoryFileSystem::Operation;

namespace {

constexpr int waitMillis = 10000;
constexpr int folderMode = 0x1ff;

// Notes each completion: how often, with which error, on which thread, and
// appends its own tag to a shared order list.
class COutcomeListener : public CBase, public IDoneListener {
public:
    explicit COutcomeListener(std::string tag = std::string(), std::vector<std::string>* order = nullptr,
                              std::mutex* orderMutex = nullptr)
        : m_tag(std::move(tag)), m_order(order), m_orderMutex(orderMutex)
    {}
    void onDone(const CError* error) override
    {
        if (m_order) {
            std::lock_guard lock(*m_orderMutex);
            m_order->push_back(m_tag);
        }
        std::lock_guard lock(m_mutex);
        ++m_calls;
        m_error = error ? error->clone() : P<CError>();
        m_thread = std::this_thread::get_id();
    }
    int getCalls()
    {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }
    P<CError> getError()
    {
        std::lock_guard lock(m_mutex);
        return m_error;
    }
    std::thread::id getThread()
    {
        std::lock_guard lock(m_mutex);
        return m_thread;
    }

private:
    std::string m_tag;
    std::vector<std::string>* m_order;
    std::mutex* m_orderMutex;
    std::mutex m_mutex;
    int m_calls = 0;
    P<CError> m_error;
    std::thread::id m_thread;
};

P<IInStream> makeSource(const std::string& bytes)
{
    P<CBufferStream> stream(new CBufferStream(nullptr, 2.0));
    stream->write(bytes.data(), static_cast<int>(bytes.size()));
    stream->seek(0);
    return P<IInStream>(stream.get());
}

TBuffer<uint8> bufferOf(const std::string& bytes)
{
    return TBuffer<uint8>(reinterpret_cast<const uint8*>(bytes.data()), static_cast<int>(bytes.size()));
}

std::string textOf(const P<TBuffer<uint8>>& data)
{
    return data ? std::string(reinterpret_cast<const char*>(data->getData()), static_cast<size_t>(data->getUsed()))
                : "<none>";
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
    } catch (const CFileSystemError& e) {
        return e.getProblem();
    }
    return -1;
}

class MemoryFileSystemTest : public ::testing::Test {
protected:
    P<CError> finish(const P<IFileSystemOp>& op, COutcomeListener& listener)
    {
        EXPECT_TRUE(op->waitDone(waitMillis));
        EXPECT_EQ(listener.getCalls(), 1);
        return listener.getError();
    }
    P<CError> store(const CURI& file, const std::string& bytes, bool overwrite = true)
    {
        P<COutcomeListener> listener(new COutcomeListener());
        const P<IInStream> source = makeSource(bytes);
        return finish(fs->beginStoreFile(file, static_cast<int>(bytes.size()), source.get(), overwrite, listener.get()),
                      *listener);
    }
    P<CError> createFolderAsync(const CURI& folder)
    {
        P<COutcomeListener> listener(new COutcomeListener());
        return finish(fs->beginCreateFolder(folder, folderMode, listener.get()), *listener);
    }
    P<CError> move(const CURI& from, const CURI& to)
    {
        P<COutcomeListener> listener(new COutcomeListener());
        return finish(fs->beginMoveFile(from, to, false, listener.get()), *listener);
    }
    P<CError> deleteAsync(const CURI& file)
    {
        P<COutcomeListener> listener(new COutcomeListener());
        return finish(fs->beginDeleteFile(file, listener.get()), *listener);
    }
    std::vector<std::string> log()
    {
        std::vector<std::string> entries;
        for (const String& entry : fs->getOperationLog())
            entries.push_back(entry.toUTF8());
        return entries;
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem()};
};

// --- injected failures ---

TEST_F(MemoryFileSystemTest, FailOperationFailsOnlyTheNthOperationOnce)
{
    fs->failOperation(Operation::StoreFile, 2, CFileSystemError::NoSpace, false);
    EXPECT_FALSE(store("/a", "1"));
    EXPECT_EQ(problemOf(store("/b", "2")), CFileSystemError::NoSpace);
    EXPECT_FALSE(store("/c", "3"));
    EXPECT_FALSE(store("/d", "4"));
    EXPECT_FALSE(fs->getFileData("/b"));
    EXPECT_EQ(textOf(fs->getFileData("/c")), "3");
}

TEST_F(MemoryFileSystemTest, InjectedFailureIsTheErrorOfTheOperationsHandle)
{
    fs->failOperation(Operation::StoreFile, 2, CFileSystemError::NoSpace, false);
    const P<IFileSystemOp> first = fs->beginStoreFile("/a", 1, makeSource("1").get(), true, nullptr);
    const P<IFileSystemOp> second = fs->beginStoreFile("/b", 1, makeSource("2").get(), true, nullptr);
    EXPECT_NO_THROW(first->wait());
    EXPECT_EQ(thrownProblem([&] { second->wait(); }), CFileSystemError::NoSpace);
    const P<CError> error = second->getError();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProps().lookup("path"), "/b");
    EXPECT_FALSE(first->getError());
}

TEST_F(MemoryFileSystemTest, PersistentFailureFailsTheNthAndEveryLaterOperation)
{
    fs->failOperation(Operation::DeleteFile, 2, CFileSystemError::AccessDenied, true);
    EXPECT_FALSE(deleteAsync("/a"));
    EXPECT_EQ(problemOf(deleteAsync("/a")), CFileSystemError::AccessDenied);
    EXPECT_EQ(problemOf(deleteAsync("/a")), CFileSystemError::AccessDenied);
    EXPECT_EQ(problemOf(deleteAsync("/b")), CFileSystemError::AccessDenied);
}

TEST_F(MemoryFileSystemTest, FailureWithAPathPrefixCountsOnlyOperationsUnderIt)
{
    fs->createFolder("/d/bricks", folderMode);
    fs->createFolder("/other", folderMode);
    fs->failOperation(Operation::StoreFile, 2, CFileSystemError::Unclassified, false, "/d/bricks");
    EXPECT_FALSE(store("/d/bricks/00.brick", "1"));
    EXPECT_FALSE(store("/other/00.brick", "2"));
    const P<CError> error = store("/d/bricks/01.brick", "3");
    ASSERT_TRUE(error);
    EXPECT_EQ(problemOf(error), CFileSystemError::Unclassified);
    EXPECT_EQ(error->getProps().lookup("path"), "/d/bricks/01.brick");
    EXPECT_FALSE(store("/d/bricks/02.brick", "4"));
}

TEST_F(MemoryFileSystemTest, FailureWithAPathPrefixMatchesAMoveByEitherPath)
{
    fs->createFolder("/disk", folderMode);
    fs->createFolder("/child", folderMode);
    fs->failOperation(Operation::MoveFile, 1, CFileSystemError::AccessDenied, true, "/child");
    ASSERT_FALSE(store("/disk/a", "a"));
    ASSERT_FALSE(store("/child/b", "b"));
    EXPECT_EQ(problemOf(move("/disk/a", "/child/a")), CFileSystemError::AccessDenied);
    EXPECT_EQ(problemOf(move("/child/b", "/disk/b")), CFileSystemError::AccessDenied);
    EXPECT_FALSE(move("/disk/a", "/disk/c"));
}

TEST_F(MemoryFileSystemTest, InjectedAsynchronousFailuresReachTheListenerAndChangeNothing)
{
    fs->createFolder("/f", folderMode);
    ASSERT_FALSE(store("/f/a", "keep"));
    for (Operation kind : {Operation::StoreFile, Operation::CreateFolder, Operation::MoveFile, Operation::DeleteFile})
        fs->failOperation(kind, 1, CFileSystemError::NotFound, false);
    EXPECT_EQ(problemOf(store("/f/a", "replaced")), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(createFolderAsync("/g")), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(move("/f/a", "/f/b")), CFileSystemError::NotFound);
    EXPECT_EQ(problemOf(deleteAsync("/f/a")), CFileSystemError::NotFound);
    EXPECT_EQ(textOf(fs->getFileData("/f/a")), "keep");
    EXPECT_FALSE(fs->pathExists("/g"));
    EXPECT_FALSE(fs->pathExists("/f/b"));
}

TEST_F(MemoryFileSystemTest, InjectedSynchronousFailuresAreThrown)
{
    fs->setFileData("/f/a", bufferOf("x"));
    const std::vector<std::pair<Operation, std::function<void()>>> calls = {
        {Operation::GetFileInfo, [&] { fs->getFileInfo("/f/a", true); }},
        {Operation::OpenStream, [&] { fs->openStream("/f/a", IIOStream::AccessRead, IIOStream::OptionNone); }},
        {Operation::CreateFolderSync, [&] { fs->createFolder("/f/g", folderMode); }},
        {Operation::FileExists, [&] { fs->fileExists("/f/a"); }},
        {Operation::FolderExists, [&] { fs->folderExists("/f"); }},
        {Operation::PathExists, [&] { fs->pathExists("/f/a"); }},
        {Operation::DeleteFileSync, [&] { fs->deleteFile("/f/a", true); }},
        {Operation::ListFolder, [&] { fs->listFolder("/f"); }},
    };
    for (const auto& [kind, call] : calls) {
        fs->failOperation(kind, 1, CFileSystemError::AccessDenied, false);
        EXPECT_EQ(thrownProblem(call), CFileSystemError::AccessDenied) << CMemoryFileSystem::getOperationName(kind);
        EXPECT_EQ(thrownProblem(call), -1) << CMemoryFileSystem::getOperationName(kind) << " failed twice";
    }
    EXPECT_FALSE(fs->pathExists("/f/a")) << "the second deleteFile ran";
}

TEST_F(MemoryFileSystemTest, SeveralRulesCanBeActiveAndEachCountsItsOwnOperations)
{
    fs->failOperation(Operation::CreateFolder, 1, CFileSystemError::NotFound, false);
    fs->failOperation(Operation::CreateFolder, 3, CFileSystemError::AlreadyExists, false);
    fs->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, false);
    EXPECT_EQ(problemOf(createFolderAsync("/a")), CFileSystemError::NotFound);
    EXPECT_FALSE(createFolderAsync("/a"));
    EXPECT_EQ(problemOf(createFolderAsync("/b")), CFileSystemError::AlreadyExists);
    EXPECT_FALSE(fs->pathExists("/b"));
    EXPECT_EQ(problemOf(store("/a/x", "x")), CFileSystemError::NoSpace);
}

TEST_F(MemoryFileSystemTest, ClearFailuresEndsEveryRule)
{
    fs->setFileData("/a", bufferOf("abc"));
    fs->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true);
    fs->failStreamReads("/", CFileSystemError::AccessDenied);
    fs->clearFailures();
    EXPECT_FALSE(store("/b", "b"));
    P<IIOStream> stream = fs->openStream("/a", IIOStream::AccessRead, IIOStream::OptionNone);
    char bytes[3] = {};
    EXPECT_NO_THROW(stream->read(bytes, 3));
}

TEST_F(MemoryFileSystemTest, FailStreamReadsFailsReadsUnderThePrefixButNotOpening)
{
    fs->setFileData("/d/disk.brickdisk", bufferOf("header"));
    fs->setFileData("/d/fallback/disk.brickdisk", bufferOf("header"));
    fs->failStreamReads("/d/disk", CFileSystemError::Unclassified);
    P<IIOStream> broken = fs->openStream("/d/disk.brickdisk", IIOStream::AccessRead, IIOStream::OptionNone);
    EXPECT_EQ(broken->getSize(), 6);
    char bytes[6] = {};
    EXPECT_THROW(broken->read(bytes, 6), CFileSystemError);
    P<IIOStream> fallback = fs->openStream("/d/fallback/disk.brickdisk", IIOStream::AccessRead, IIOStream::OptionNone);
    fallback->read(bytes, 6);
    EXPECT_EQ(std::string(bytes, 6), "header");
}

// --- counters and the log ---

TEST_F(MemoryFileSystemTest, CountersAndTheLogFollowTheOperationsInTheOrderStarted)
{
    fs->createFolder("/d/bricks", folderMode);
    fs->failOperation(Operation::MoveFile, 1, CFileSystemError::NotFound, false);
    EXPECT_FALSE(store("/d/bricks/00.brick", "x"));
    EXPECT_EQ(problemOf(move("/d/bricks/00.brick", "/c/bricks/00.brick")), CFileSystemError::NotFound);
    EXPECT_FALSE(createFolderAsync("/d/bricks/a00"));
    EXPECT_FALSE(deleteAsync("/d/bricks/00.brick"));
    fs->fileExists("/d/disk.brickdisk");
    fs->pathExists("/d");
    fs->deleteFile("/d/x", true);
    EXPECT_EQ(log(),
              (std::vector<std::string>{
                  "createFolderSync /d/bricks",
                  "storeFile /d/bricks/00.brick",
                  "moveFile /d/bricks/00.brick -> /c/bricks/00.brick",
                  "createFolder /d/bricks/a00",
                  "deleteFile /d/bricks/00.brick",
                  "fileExists /d/disk.brickdisk",
                  "pathExists /d",
                  "deleteFileSync /d/x",
              }));
    EXPECT_EQ(fs->getOperationCount(Operation::StoreFile), 1);
    EXPECT_EQ(fs->getOperationCount(Operation::MoveFile), 1);
    EXPECT_EQ(fs->getOperationCount(Operation::CreateFolder), 1);
    EXPECT_EQ(fs->getOperationCount(Operation::CreateFolderSync), 1);
    EXPECT_EQ(fs->getOperationCount(Operation::ListFolder), 0);
    fs->resetCounters();
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(fs->getOperationCount(Operation::StoreFile), 0);
}

TEST_F(MemoryFileSystemTest, TestAccessToContentsIsNotCounted)
{
    fs->setFileData("/a", bufferOf("x"));
    fs->getFileData("/a");
    fs->waitUntilIdle();
    EXPECT_TRUE(log().empty());
}

// --- completions ---

TEST_F(MemoryFileSystemTest, CompletionDelayLetsALaterOperationCompleteFirst)
{
    std::vector<std::string> order;
    std::mutex orderMutex;
    fs->setCompletionDelay(300, 300);
    P<COutcomeListener> slow(new COutcomeListener("slow", &order, &orderMutex));
    fs->beginCreateFolder("/slow", folderMode, slow.get());
    fs->setCompletionDelay(0, 0);
    P<COutcomeListener> fast(new COutcomeListener("fast", &order, &orderMutex));
    fs->beginCreateFolder("/fast", folderMode, fast.get());
    fs->waitUntilIdle();
    EXPECT_EQ(order, (std::vector<std::string>{"fast", "slow"}));
}

TEST_F(MemoryFileSystemTest, DelayedOperationHasNeitherEffectNorCompletionBeforeItsDelay)
{
    fs->setCompletionDelay(500, 600);
    P<COutcomeListener> listener(new COutcomeListener());
    const P<IFileSystemOp> op = fs->beginCreateFolder("/late", folderMode, listener.get());
    EXPECT_FALSE(op->waitDone(0));
    EXPECT_EQ(listener->getCalls(), 0);
    EXPECT_FALSE(fs->folderExists("/late"));
    fs->waitUntilIdle();
    EXPECT_TRUE(op->waitDone(0));
    EXPECT_EQ(listener->getCalls(), 1);
    EXPECT_TRUE(fs->folderExists("/late"));
}

TEST_F(MemoryFileSystemTest, CompletionsNeverRunOnTheCallingThread)
{
    std::vector<P<COutcomeListener>> listeners;
    for (int i = 0; i < 20; ++i) {
        listeners.push_back(P<COutcomeListener>(new COutcomeListener()));
        fs->beginDeleteFile(CURI("/missing") << String(std::to_string(i)), listeners.back().get());
    }
    fs->waitUntilIdle();
    for (const auto& listener : listeners) {
        EXPECT_EQ(listener->getCalls(), 1);
        EXPECT_NE(listener->getThread(), std::this_thread::get_id());
    }
}

TEST_F(MemoryFileSystemTest, DestructionWaitsForDelayedCompletions)
{
    fs->setCompletionDelay(100, 200);
    std::vector<P<COutcomeListener>> listeners;
    for (int i = 0; i < 5; ++i) {
        listeners.push_back(P<COutcomeListener>(new COutcomeListener()));
        fs->beginCreateFolder(CURI(String("/f" + std::to_string(i))), folderMode, listeners.back().get());
    }
    fs.reset();
    for (const auto& listener : listeners) {
        EXPECT_EQ(listener->getCalls(), 1);
        EXPECT_FALSE(listener->getError());
    }
}

// --- contents, roots and paths ---

TEST_F(MemoryFileSystemTest, GetFileDataGivesACopyAndNullForAMissingFile)
{
    ASSERT_FALSE(store("/a", "abc"));
    const P<TBuffer<uint8>> copy = fs->getFileData("/a");
    ASSERT_TRUE(copy);
    (*copy)[0] = 'X';
    EXPECT_EQ(textOf(fs->getFileData("/a")), "abc");
    EXPECT_FALSE(fs->getFileData("/missing"));
    EXPECT_FALSE(fs->getFileData("/"));
}

TEST_F(MemoryFileSystemTest, SetFileDataCreatesTheFileAndItsFoldersAndReplacesContents)
{
    fs->setFileData("/d/bricks/a00/00.brick", bufferOf("good"));
    EXPECT_TRUE(fs->folderExists("/d/bricks/a00"));
    fs->setFileData("/d/bricks/a00/00.brick", bufferOf("damaged"));
    P<IIOStream> stream = fs->openStream("/d/bricks/a00/00.brick", IIOStream::AccessRead, IIOStream::OptionNone);
    char bytes[7] = {};
    stream->read(bytes, 7);
    EXPECT_EQ(std::string(bytes, 7), "damaged");
}

TEST_F(MemoryFileSystemTest, RootsAlwaysExistAsFolders)
{
    EXPECT_TRUE(fs->folderExists("/"));
    EXPECT_TRUE(fs->folderExists("mem://bucket/"));
    EXPECT_TRUE(fs->folderExists("."));
    EXPECT_EQ(problemOf(createFolderAsync("/")), CFileSystemError::AlreadyExists);
    EXPECT_FALSE(store("mem://bucket/a", "x"));
    EXPECT_EQ(fs->listFolder("mem://bucket"), TList<String>{"a"});
    EXPECT_EQ(fs->listFolder("/"), TList<String>{});
}

TEST_F(MemoryFileSystemTest, RelativePathsHaveARootOfTheirOwn)
{
    fs->createFolder("rel", folderMode);
    EXPECT_FALSE(store("rel/a", "relative"));
    EXPECT_EQ(textOf(fs->getFileData("rel/./a")), "relative");
    EXPECT_FALSE(fs->pathExists("/rel/a"));
    EXPECT_EQ(fs->listFolder("."), TList<String>{"rel"});
}

TEST_F(MemoryFileSystemTest, PathsAreComparedInNormalizedForm)
{
    fs->createFolder("/a/b", folderMode);
    EXPECT_FALSE(store("/a//b/../c", "x"));
    EXPECT_TRUE(fs->fileExists("/a/c"));
    EXPECT_EQ(fs->listFolder("/a/"), (TList<String>{"b", "c"}));
}

TEST_F(MemoryFileSystemTest, StoreUnderAFileFailsWithNotAFolder)
{
    ASSERT_FALSE(store("/file", "x"));
    EXPECT_EQ(problemOf(store("/file/a", "y")), CFileSystemError::NotAFolder);
}

TEST_F(MemoryFileSystemTest, StreamsCannotLockRanges)
{
    P<IIOStream> stream = fs->openStream("/a", IIOStream::AccessReadWrite, IIOStream::OptionReplace);
    EXPECT_EQ(thrownProblem([&] { stream->lockRange(0, 1, IStreamBase::SharedLock); }), CFileSystemError::NotSupported);
}

} // namespace
