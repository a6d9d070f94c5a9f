// Eight threads using one file system at once, on files of their own and on
// files they share, against both the local and the in-memory file system.
#include "support/TempFolder.h"
#include "zo/BufferStream.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace zo;

namespace {

constexpr int threadCount = 8;
constexpr int filesPerThread = 16;
constexpr int sharedFileCount = 4;
constexpr int waitMillis = 30000;
constexpr int folderMode = 0x1ff;

class COutcomeListener : public CBase, public IDoneListener {
public:
    void onDone(const CError* error) override
    {
        std::lock_guard lock(m_mutex);
        ++m_calls;
        m_problem = error ? CFileSystemError::getProblem(error->getProps()) : -1;
        m_failed = error != nullptr;
    }
    int getCalls()
    {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }
    bool failed()
    {
        std::lock_guard lock(m_mutex);
        return m_failed;
    }
    int getProblem()
    {
        std::lock_guard lock(m_mutex);
        return m_problem;
    }

private:
    std::mutex m_mutex;
    int m_calls = 0;
    int m_problem = -1;
    bool m_failed = false;
};

P<IInStream> makeSource(const std::string& bytes)
{
    P<CBufferStream> stream(new CBufferStream(nullptr, 2.0));
    stream->write(bytes.data(), static_cast<int>(bytes.size()));
    stream->seek(0);
    return P<IInStream>(stream.get());
}

// The bytes of file `index` of thread `thread`: a length and a pattern of
// their own.
std::string contentOf(int thread, int index)
{
    std::string bytes(static_cast<size_t>(500 + 37 * thread + 11 * index), '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>('A' + (thread * 7 + index + static_cast<int>(i)) % 26);
    return bytes;
}

// A shared file's version written by `thread`: one byte value throughout,
// with a length that tells the thread too.
std::string sharedVersionOf(int thread)
{
    return std::string(static_cast<size_t>(4096 + 512 * thread), static_cast<char>('a' + thread));
}

struct LocalEnvironment {
    LocalEnvironment() { fs->setSyncEnabled(false); }
    CURI root() const { return temp.uri(); }

    testsupport::TempFolder temp;
    P<CLocalFileSystem> fs{new CLocalFileSystem(4)};
};

struct MemoryEnvironment {
    MemoryEnvironment()
    {
        fs->createFolder(root(), folderMode);
        fs->setCompletionDelay(0, 2);
    }
    CURI root() const { return CURI("/concurrency"); }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(4)};
};

struct EnvironmentNames {
    template <class T>
    static std::string GetName(int)
    {
        return std::is_same_v<T, LocalEnvironment> ? "Local" : "Memory";
    }
};

template <class Environment>
class FileSystemConcurrencyTest : public ::testing::Test {
protected:
    IFileSystem& fs() { return *env.fs; }
    CURI path(const std::string& relative) const { return env.root() << CURI(String(relative)); }

    // Starts an operation with a new listener that the test keeps.
    template <class Begin>
    P<COutcomeListener> start(Begin begin)
    {
        P<COutcomeListener> listener(new COutcomeListener());
        {
            std::lock_guard lock(m_listenersMutex);
            m_listeners.push_back(listener);
        }
        const P<IFileSystemOp> op = begin(listener.get());
        if (!op->waitDone(waitMillis))
            ADD_FAILURE() << "an operation did not complete";
        return listener;
    }
    P<COutcomeListener> store(const CURI& file, const std::string& bytes, bool overwrite)
    {
        const P<IInStream> source = makeSource(bytes);
        return start([&](IDoneListener* listener) {
            return fs().beginStoreFile(file, static_cast<int>(bytes.size()), source.get(), overwrite, listener);
        });
    }
    P<COutcomeListener> move(const CURI& from, const CURI& to, bool overwrite)
    {
        return start([&](IDoneListener* listener) { return fs().beginMoveFile(from, to, overwrite, listener); });
    }
    P<COutcomeListener> remove(const CURI& file)
    {
        return start([&](IDoneListener* listener) { return fs().beginDeleteFile(file, listener); });
    }
    P<COutcomeListener> createFolderAsync(const CURI& folder)
    {
        return start([&](IDoneListener* listener) { return fs().beginCreateFolder(folder, folderMode, listener); });
    }
    std::string readFile(const CURI& file)
    {
        P<IIOStream> stream = fs().openStream(file, IIOStream::AccessRead, IIOStream::OptionNone);
        std::string bytes(static_cast<size_t>(stream->getSize()), '\0');
        stream->read(bytes.data(), static_cast<int>(bytes.size()));
        return bytes;
    }
    // A shared file read while others replace it must be one whole version.
    void expectWholeSharedVersion(const CURI& file)
    {
        std::string bytes;
        try {
            bytes = readFile(file);
        } catch (const CFileSystemError& e) {
            if (e.getProblem() != CFileSystemError::NotFound)
                ADD_FAILURE() << e.what();
            return;
        }
        ASSERT_FALSE(bytes.empty());
        const int thread = bytes[0] - 'a';
        EXPECT_EQ(bytes, sharedVersionOf(thread)) << "a torn shared file";
    }

    void runOwnFiles(int thread)
    {
        const std::string folder = "own" + std::to_string(thread);
        for (int i = 0; i < filesPerThread; ++i) {
            const CURI file = path(folder + "/f" + std::to_string(i));
            EXPECT_FALSE(store(file, contentOf(thread, i), i % 2 == 0)->failed());
            if (i % 4 == 1)
                EXPECT_FALSE(move(file, path(folder + "/m" + std::to_string(i)), false)->failed());
            else if (i % 4 == 2)
                EXPECT_FALSE(remove(file)->failed());
            else
                EXPECT_EQ(readFile(file), contentOf(thread, i));
        }
    }
    void runSharedFiles(int thread)
    {
        for (int round = 0; round < 3; ++round) {
            for (int k = 0; k < sharedFileCount; ++k) {
                const CURI file = path("shared/s" + std::to_string(k));
                EXPECT_FALSE(store(file, sharedVersionOf(thread), true)->failed());
                expectWholeSharedVersion(path("shared/s" + std::to_string((k + thread) % sharedFileCount)));
            }
        }
        EXPECT_FALSE(remove(path("shared/deleted-by-all"))->failed());
    }

    Environment env;
    std::mutex m_listenersMutex;
    std::vector<P<COutcomeListener>> m_listeners;
};

using Environments = ::testing::Types<LocalEnvironment, MemoryEnvironment>;
TYPED_TEST_SUITE(FileSystemConcurrencyTest, Environments, EnvironmentNames);

TYPED_TEST(FileSystemConcurrencyTest, EightThreadsOnOwnAndSharedFilesLeaveAConsistentState)
{
    for (int t = 0; t < threadCount; ++t)
        this->fs().createFolder(this->path("own" + std::to_string(t)), folderMode);
    this->fs().createFolder(this->path("shared"), folderMode);
    ASSERT_FALSE(this->store(this->path("shared/ball"), "ball", false)->failed());
    ASSERT_FALSE(this->store(this->path("shared/deleted-by-all"), "x", false)->failed());

    std::vector<int> onceProblems(threadCount), folderProblems(threadCount), ballProblems(threadCount);
    std::latch startTogether(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([this, t, &startTogether, &onceProblems, &folderProblems, &ballProblems] {
            startTogether.arrive_and_wait();
            onceProblems[static_cast<size_t>(t)] =
                this->store(this->path("shared/once"), sharedVersionOf(t), false)->getProblem();
            folderProblems[static_cast<size_t>(t)] = this->createFolderAsync(this->path("shared/race"))->getProblem();
            ballProblems[static_cast<size_t>(t)] =
                this->move(this->path("shared/ball"), this->path("shared/caught" + std::to_string(t)), false)
                    ->getProblem();
            this->runOwnFiles(t);
            this->runSharedFiles(t);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    this->env.fs->waitUntilIdle();

    for (const auto& listener : this->m_listeners)
        EXPECT_EQ(listener->getCalls(), 1);
    EXPECT_EQ(std::count(onceProblems.begin(), onceProblems.end(), -1), 1);
    EXPECT_EQ(std::count(onceProblems.begin(), onceProblems.end(), CFileSystemError::AlreadyExists), threadCount - 1);
    EXPECT_EQ(std::count(folderProblems.begin(), folderProblems.end(), -1), 1);
    EXPECT_EQ(std::count(folderProblems.begin(), folderProblems.end(), CFileSystemError::AlreadyExists),
              threadCount - 1);
    EXPECT_EQ(std::count(ballProblems.begin(), ballProblems.end(), -1), 1);
    EXPECT_EQ(std::count(ballProblems.begin(), ballProblems.end(), CFileSystemError::NotFound), threadCount - 1);

    for (int t = 0; t < threadCount; ++t) {
        const std::string folder = "own" + std::to_string(t);
        TList<String> expected;
        for (int i = 0; i < filesPerThread; ++i) {
            if (i % 4 == 1)
                expected.push_back(String("m" + std::to_string(i)));
            else if (i % 4 != 2)
                expected.push_back(String("f" + std::to_string(i)));
        }
        expected.sort();
        EXPECT_EQ(this->fs().listFolder(this->path(folder)), expected);
        for (int i = 1; i < filesPerThread; i += 4)
            EXPECT_EQ(this->readFile(this->path(folder + "/m" + std::to_string(i))), contentOf(t, i));
    }
    for (int k = 0; k < sharedFileCount; ++k)
        this->expectWholeSharedVersion(this->path("shared/s" + std::to_string(k)));
    this->expectWholeSharedVersion(this->path("shared/once"));
    EXPECT_FALSE(this->fs().pathExists(this->path("shared/ball")));
    EXPECT_FALSE(this->fs().pathExists(this->path("shared/deleted-by-all")));
    EXPECT_TRUE(this->fs().folderExists(this->path("shared/race")));
    int caught = 0;
    for (int t = 0; t < threadCount; ++t)
        caught += this->fs().fileExists(this->path("shared/caught" + std::to_string(t))) ? 1 : 0;
    EXPECT_EQ(caught, 1);
}

} // namespace
