// Behaviour of the local file system beyond the shared contract: the
// temporary files of its stores, its sync switch, working-folder paths and
// the details of its errors.
#include "zo/LocalFileSystem.h"
#include "support/TempFolder.h"
#include "zo/BufferStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace zo;

namespace {

constexpr int waitMillis = 10000;
constexpr int folderMode = 0x1ff;

class COutcomeListener : public CBase, public IDoneListener {
public:
    void onDone(const CError* error) override
    {
        std::lock_guard lock(m_mutex);
        ++m_calls;
        m_error = error ? error->clone() : P<CError>();
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

private:
    std::mutex m_mutex;
    int m_calls = 0;
    P<CError> m_error;
};

// A source over fixed bytes that can look into a folder while it is read,
// or fail when it is read.
class CSource : public CBufferStream {
public:
    explicit CSource(const std::string& bytes) : CBufferStream(nullptr, 2.0)
    {
        write(bytes.data(), static_cast<int>(bytes.size()));
        seek(0);
    }
    int readLax(void* dst, int size) override
    {
        if (!m_folderToWatch.empty()) {
            for (const auto& entry : std::filesystem::directory_iterator(m_folderToWatch))
                namesSeenWhileReading.push_back(entry.path().filename().string());
            m_folderToWatch.clear();
        }
        if (m_failOnRead)
            throw CIOError(CIOError::ReadFailed, "The source broke down.");
        return CBufferStream::readLax(dst, size);
    }
    void watchFolderOnFirstRead(const std::string& folder) { m_folderToWatch = folder; }
    void failOnRead() { m_failOnRead = true; }

    std::vector<std::string> namesSeenWhileReading;

private:
    std::string m_folderToWatch;
    bool m_failOnRead = false;
};

std::vector<std::string> folderEntries(const std::string& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

int problemOf(const P<CError>& error)
{
    return error ? CFileSystemError::getProblem(error->getProps()) : -1;
}

class LocalFileSystemTest : public ::testing::Test {
protected:
    P<CError> store(const CURI& file, IInStream* source, int size, bool overwrite)
    {
        P<COutcomeListener> listener(new COutcomeListener());
        EXPECT_TRUE(fs->beginStoreFile(file, size, source, overwrite, listener.get())->waitDone(waitMillis));
        EXPECT_EQ(listener->getCalls(), 1);
        return listener->getError();
    }
    P<CError> store(const CURI& file, const std::string& bytes, bool overwrite)
    {
        P<CSource> source(new CSource(bytes));
        return store(file, source.get(), static_cast<int>(bytes.size()), overwrite);
    }
    std::string readFile(const std::string& path)
    {
        P<IIOStream> stream = fs->openStream(CURI(String(path)), IIOStream::AccessRead, IIOStream::OptionNone);
        std::string bytes(static_cast<size_t>(stream->getSize()), '\0');
        stream->read(bytes.data(), static_cast<int>(bytes.size()));
        return bytes;
    }

    testsupport::TempFolder temp;
    P<CLocalFileSystem> fs{new CLocalFileSystem()};
};

TEST_F(LocalFileSystemTest, StoreLeavesExactlyTheTargetInItsFolder)
{
    EXPECT_FALSE(store(temp.uri() << "00.brick", "first", false));
    EXPECT_FALSE(store(temp.uri() << "00.brick", "second", true));
    EXPECT_EQ(problemOf(store(temp.uri() << "00.brick", "third", false)), CFileSystemError::AlreadyExists);
    EXPECT_EQ(folderEntries(temp.path()), std::vector<std::string>{"00.brick"});
    EXPECT_EQ(readFile(temp.path() + "/00.brick"), "second");
}

TEST_F(LocalFileSystemTest, BatchSyncCountsAFolderRemovedSinceItsStoreAsDone)
{
    fs->createFolder(temp.uri() << "gone", 0755);
    fs->createFolder(temp.uri() << "kept", 0755);
    P<COutcomeListener> listener(new COutcomeListener());
    P<CSource> source(new CSource("brick"));
    ASSERT_TRUE(fs->beginStoreFileBatched(temp.uri() << "gone"
                                                     << "00.brick",
                                          5, source.get(), false, listener.get())
                    ->waitDone(waitMillis));
    ASSERT_FALSE(listener->getError());
    P<COutcomeListener> keptListener(new COutcomeListener());
    P<CSource> keptSource(new CSource("kept"));
    ASSERT_TRUE(fs->beginStoreFileBatched(temp.uri() << "kept"
                                                     << "00.brick",
                                          4, keptSource.get(), false, keptListener.get())
                    ->waitDone(waitMillis));
    ASSERT_FALSE(keptListener->getError());
    std::filesystem::remove_all(temp.path() + "/gone");
    EXPECT_NO_THROW(fs->syncBatch());
    EXPECT_EQ(folderEntries(temp.path() + "/kept"), std::vector<std::string>{"00.brick"});
    EXPECT_EQ(readFile(temp.path() + "/kept/00.brick"), "kept");
}

// A staged store writes a temporary file and leaves the target as it was;
// the batch's sync puts the new bytes in place. A file system that goes
// without a sync leaves only the temporary file, which removeTemporaryFiles
// takes away.
TEST_F(LocalFileSystemTest, StagedStoreReplacesTheFileOnlyAtTheBatchSync)
{
    EXPECT_FALSE(store(temp.uri() << "00.brick", "old", false));
    const auto stage = [&](const std::string& bytes) {
        P<COutcomeListener> listener(new COutcomeListener());
        P<CSource> source(new CSource(bytes));
        EXPECT_TRUE(fs->beginStoreFileStaged(temp.uri() << "00.brick", static_cast<int>(bytes.size()), source.get(),
                                             listener.get())
                        ->waitDone(waitMillis));
        EXPECT_FALSE(listener->getError());
    };
    stage("new");
    EXPECT_EQ(readFile(temp.path() + "/00.brick"), "old");
    EXPECT_EQ(folderEntries(temp.path()).size(), 2u);
    fs->syncBatch();
    EXPECT_EQ(folderEntries(temp.path()), std::vector<std::string>{"00.brick"});
    EXPECT_EQ(readFile(temp.path() + "/00.brick"), "new");

    stage("never placed");
    fs = new CLocalFileSystem();
    EXPECT_EQ(readFile(temp.path() + "/00.brick"), "new");
    EXPECT_EQ(fs->removeTemporaryFiles(temp.uri()), 1);
    EXPECT_EQ(folderEntries(temp.path()), std::vector<std::string>{"00.brick"});
}

// Files staged into several folders, in no order of folder, each land in
// their own folder at the batch's sync (which takes each folder once for
// the files in it), and a folder that is gone by then fails only its files.
TEST_F(LocalFileSystemTest, StagedStoresIntoSeveralFoldersEachLandInTheirOwnFolderAtTheBatchSync)
{
    fs->createFolder(temp.uri() << "a", 0777);
    fs->createFolder(temp.uri() << "b", 0777);
    fs->createFolder(temp.uri() << "gone", 0777);
    std::vector<P<CSource>> sources;
    for (const std::string name : {"a/01", "b/01", "a/02", "gone/01", "b/02", "a/03"}) {
        sources.push_back(P<CSource>(new CSource(name)));
        fs->beginStoreFileStaged(temp.uri() << String(name + ".brick"), static_cast<int>(name.size()),
                                 sources.back().get(), nullptr)
            ->wait();
    }
    const std::vector<std::string> staged = folderEntries(temp.path() + "/gone");
    ASSERT_EQ(staged.size(), 1u);
    ASSERT_EQ(::unlink((temp.path() + "/gone/" + staged.front()).c_str()), 0);
    ASSERT_EQ(::rmdir((temp.path() + "/gone").c_str()), 0);

    EXPECT_THROW(fs->syncBatch(), CFileSystemError);
    fs->syncBatch();

    EXPECT_EQ(folderEntries(temp.path() + "/a"), (std::vector<std::string>{"01.brick", "02.brick", "03.brick"}));
    EXPECT_EQ(folderEntries(temp.path() + "/b"), (std::vector<std::string>{"01.brick", "02.brick"}));
    for (const std::string name : {"a/01", "a/02", "a/03", "b/01", "b/02"})
        EXPECT_EQ(readFile(temp.path() + "/" + name + ".brick"), name);
}

TEST_F(LocalFileSystemTest, StagedStoreIntoAMissingFolderFailsWithNotFoundAndWithSyncOffStoresAtOnce)
{
    P<COutcomeListener> listener(new COutcomeListener());
    P<CSource> source(new CSource("x"));
    EXPECT_TRUE(fs->beginStoreFileStaged(temp.uri() << "missing"
                                                    << "00.brick",
                                         1, source.get(), listener.get())
                    ->waitDone(waitMillis));
    EXPECT_EQ(problemOf(listener->getError()), CFileSystemError::NotFound);

    fs->setSyncEnabled(false);
    P<CSource> unsynced(new CSource("at once"));
    fs->beginStoreFileStaged(temp.uri() << "00.brick", 7, unsynced.get(), nullptr)->wait();
    EXPECT_EQ(folderEntries(temp.path()), std::vector<std::string>{"00.brick"});
    EXPECT_EQ(readFile(temp.path() + "/00.brick"), "at once");
}

TEST_F(LocalFileSystemTest, StoreFromAShortSourceLeavesNoTemporaryFile)
{
    P<CSource> source(new CSource("only five"));
    const P<CError> error = store(temp.uri() << "00.brick", source.get(), 100, true);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::EndOfData);
    EXPECT_TRUE(folderEntries(temp.path()).empty());
}

TEST_F(LocalFileSystemTest, StoreWhoseSourceFailsReportsTheSourcesErrorAndLeavesNoTemporaryFile)
{
    ASSERT_FALSE(store(temp.uri() << "00.brick", "old", false));
    P<CSource> source(new CSource("a brick that breaks"));
    source->failOnRead();
    const P<CError> error = store(temp.uri() << "00.brick", source.get(), 19, true);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CIOError::ReadFailed);
    EXPECT_EQ(folderEntries(temp.path()), std::vector<std::string>{"00.brick"});
    EXPECT_EQ(readFile(temp.path() + "/00.brick"), "old");
}

TEST_F(LocalFileSystemTest, StoreWritesAHiddenTemporaryFileThatNeverLooksLikeABrickOrARecord)
{
    for (const char* name : {"00.brick", "disk.brickdisk", "parent.bricklnk"}) {
        P<CSource> source(new CSource("payload"));
        source->watchFolderOnFirstRead(temp.path());
        ASSERT_FALSE(store(temp.uri() << name, source.get(), 7, true));
        ASSERT_EQ(source->namesSeenWhileReading.size(), 1U);
        const std::string& temporary = source->namesSeenWhileReading.front();
        EXPECT_EQ(temporary.rfind(".tmp-", 0), 0U) << temporary;
        EXPECT_NE(temporary.find(name), std::string::npos) << temporary;
        EXPECT_TRUE(temporary.ends_with(".part")) << temporary;
        std::filesystem::remove(temp.path() + "/" + name);
    }
}

TEST_F(LocalFileSystemTest, StoreOfALongNameWorks)
{
    const std::string name(240, 'n');
    EXPECT_FALSE(store(temp.uri() << String(name), "x", false));
    EXPECT_EQ(folderEntries(temp.path()), std::vector<std::string>{name});
}

TEST_F(LocalFileSystemTest, SyncIsOnByDefaultAndOperationsWorkWithItTurnedOff)
{
    EXPECT_TRUE(fs->isSyncEnabled());
    fs->setSyncEnabled(false);
    EXPECT_FALSE(fs->isSyncEnabled());
    fs->createFolder(temp.uri() << "d", folderMode);
    EXPECT_FALSE(store(temp.uri() << "d"
                                  << "a",
                       "unsynced", false));
    P<COutcomeListener> listener(new COutcomeListener());
    ASSERT_TRUE(fs->beginMoveFile(temp.uri() << "d"
                                             << "a",
                                  temp.uri() << "b", false, listener.get())
                    ->waitDone(waitMillis));
    EXPECT_FALSE(listener->getError());
    {
        P<IIOStream> stream = fs->openStream(temp.uri() << "c", IIOStream::AccessWrite, IIOStream::OptionReplace);
        stream->write("flushed", 7, nullptr);
        stream->flush();
    }
    EXPECT_EQ(readFile(temp.path() + "/b"), "unsynced");
    EXPECT_EQ(readFile(temp.path() + "/c"), "flushed");
    fs->setSyncEnabled(true);
    EXPECT_TRUE(fs->isSyncEnabled());
}

TEST_F(LocalFileSystemTest, RelativePathsAreRelativeToTheWorkingFolder)
{
    const CURI workingFolder(String(std::filesystem::current_path().string()));
    const CURI relativeFolder = temp.uri().toRelative(workingFolder);
    ASSERT_FALSE(relativeFolder.isAbsolute());
    EXPECT_FALSE(store(relativeFolder << "rel", "relative", false));
    EXPECT_EQ(readFile(temp.path() + "/rel"), "relative");
    EXPECT_TRUE(fs->fileExists(relativeFolder << "rel"));
}

TEST_F(LocalFileSystemTest, AUserPathHasItsLinksResolvedAsFarAsItExists)
{
    const std::filesystem::path real = std::filesystem::canonical(temp.path());
    std::filesystem::create_directory(real / "real");
    std::filesystem::create_directory_symlink(real / "real", real / "link");

    EXPECT_EQ(CLocalFileSystem::resolveUserPath(temp.path() + "/link").toString(true).toUTF8(),
              (real / "real").string());
    EXPECT_EQ(CLocalFileSystem::resolveUserPath(temp.path() + "//link/./new/../disk/").toString(true).toUTF8(),
              (real / "real" / "disk").string());
    EXPECT_EQ(CLocalFileSystem::resolveUserPath("/").toString(true).toUTF8(), "/");
}

TEST_F(LocalFileSystemTest, ARelativeUserPathIsResolvedFromTheWorkingFolder)
{
    const CURI workingFolder(String(std::filesystem::current_path().string()));
    const CURI relativeFolder = temp.uri().toRelative(workingFolder);
    ASSERT_FALSE(relativeFolder.isAbsolute());

    EXPECT_EQ(CLocalFileSystem::resolveUserPath((relativeFolder << "missing").toString(true).toUTF8())
                  .toString(true)
                  .toUTF8(),
              (std::filesystem::canonical(temp.path()) / "missing").string());
}

TEST_F(LocalFileSystemTest, ErrorsNameThePathTheActionAndTheErrno)
{
    const CURI missing = temp.uri() << "missing";
    try {
        fs->openStream(missing, IIOStream::AccessRead, IIOStream::OptionNone);
        FAIL() << "opening a missing file succeeded";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NotFound);
        EXPECT_EQ(e.getProps().lookup("path"), missing.toString(true));
        EXPECT_EQ(e.getProps().lookup("action"), "open");
        EXPECT_EQ(e.getProps().lookup("errno"), toDecimalString(ENOENT));
    }
}

TEST_F(LocalFileSystemTest, DirectIOIsTurnedOnAndOffForAFileWhoseSystemTakesIt)
{
    const std::string path = (temp.uri() << "direct").toString(true).toUTF8();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    // The test folder lies on a disk file system, which takes direct I/O.
    EXPECT_TRUE(CLocalFileSystem::setDirectIO(fd, true, path));
    EXPECT_NE(::fcntl(fd, F_GETFL) & O_DIRECT, 0);
    EXPECT_TRUE(CLocalFileSystem::setDirectIO(fd, false, path));
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_DIRECT, 0);
    ::close(fd);
}

TEST_F(LocalFileSystemTest, DirectIORefusedByTheFileSystemChangesNothing)
{
    // /dev/null has no direct I/O.
    const int fd = ::open("/dev/null", O_WRONLY);
    ASSERT_GE(fd, 0);
    const int flags = ::fcntl(fd, F_GETFL);
    EXPECT_FALSE(CLocalFileSystem::setDirectIO(fd, true, "/dev/null"));
    EXPECT_EQ(::fcntl(fd, F_GETFL), flags);
    ::close(fd);
}

TEST_F(LocalFileSystemTest, DirectIOOnANonFileThrowsNamingThePath)
{
    for (const bool on : {true, false}) {
        try {
            CLocalFileSystem::setDirectIO(-1, on, "/some/image");
            FAIL() << "a closed file took the flag";
        } catch (const CError& e) {
            EXPECT_EQ(e.getProps().lookup("path"), "/some/image");
            EXPECT_EQ(e.getProps().lookup("errno"), toDecimalString(EBADF));
        }
    }
}

TEST_F(LocalFileSystemTest, BeginCreateFolderGivesTheFolderItsMode)
{
    P<COutcomeListener> listener(new COutcomeListener());
    ASSERT_TRUE(fs->beginCreateFolder(temp.uri() << "private", 0700, listener.get())->waitDone(waitMillis));
    ASSERT_FALSE(listener->getError());
    struct stat info {};
    ASSERT_EQ(::stat((temp.path() + "/private").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700U);
}

TEST_F(LocalFileSystemTest, StreamsLockRangesSharedAndExclusive)
{
    P<IIOStream> stream = fs->openStream(temp.uri() << "locked", IIOStream::AccessReadWrite, IIOStream::OptionReplace);
    stream->write("0123456789", 10, nullptr);
    EXPECT_NO_THROW(stream->lockRange(0, 5, IStreamBase::SharedLock));
    EXPECT_NO_THROW(stream->lockRange(5, 5, IStreamBase::ExclusiveLock));
}

TEST_F(LocalFileSystemTest, StreamOpenForWritingOnlyRefusesReads)
{
    P<IIOStream> stream = fs->openStream(temp.uri() << "w", IIOStream::AccessWrite, IIOStream::OptionReplace);
    stream->write("abc", 3, nullptr);
    stream->seek(0);
    char byte = 0;
    EXPECT_THROW(stream->read(&byte, 1), CIOError);
}

TEST_F(LocalFileSystemTest, PathExistsCountsADanglingSymbolicLink)
{
    std::filesystem::create_symlink(temp.path() + "/nowhere", temp.path() + "/link");
    EXPECT_TRUE(fs->pathExists(temp.uri() << "link"));
    EXPECT_FALSE(fs->fileExists(temp.uri() << "link"));
}

// --- copies, locks and leftovers ---

class LocalFileSystemCopyTest : public LocalFileSystemTest {
protected:
    P<CError> copy(const std::string& from, const std::string& to, bool overwrite)
    {
        P<COutcomeListener> listener(new COutcomeListener());
        EXPECT_TRUE(
            fs->beginCopyFile(CURI(String(from)), CURI(String(to)), overwrite, listener.get())->waitDone(waitMillis));
        EXPECT_EQ(listener->getCalls(), 1);
        return listener->getError();
    }
    static struct stat statOf(const std::string& path)
    {
        struct stat info {};
        EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
        return info;
    }
};

TEST_F(LocalFileSystemCopyTest, CopyOnOneFileSystemIsAHardLinkThatKeepsTheOldBytesWhenTheSourceIsReplaced)
{
    const std::string source = temp.path() + "/a";
    const std::string target = temp.path() + "/b";
    ASSERT_FALSE(store(CURI(String(source)), "old", false));
    ASSERT_FALSE(copy(source, target, false));
    EXPECT_EQ(statOf(source).st_ino, statOf(target).st_ino);
    EXPECT_EQ(statOf(target).st_nlink, 2u);

    ASSERT_FALSE(store(CURI(String(source)), "new", true));
    EXPECT_EQ(readFile(target), "old");
    EXPECT_EQ(readFile(source), "new");
}

TEST_F(LocalFileSystemCopyTest, CopyToAnotherFileSystemWritesTheBytesDurablyAndLeavesNoTemporaryFile)
{
    struct stat shm {};
    if (::stat("/dev/shm", &shm) != 0 || shm.st_dev == statOf(temp.path()).st_dev)
        GTEST_SKIP() << "this machine has no second file system at /dev/shm to copy across";
    char pattern[] = "/dev/shm/brickdisk-copy-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::string other = pattern;
    const std::string source = temp.path() + "/a";
    ASSERT_FALSE(store(CURI(String(source)), "bytes of the brick", false));

    EXPECT_FALSE(copy(source, other + "/b", false));
    EXPECT_EQ(problemOf(copy(source, other + "/b", false)), CFileSystemError::AlreadyExists);
    ASSERT_FALSE(store(CURI(String(source)), "newer bytes", true));
    EXPECT_FALSE(copy(source, other + "/b", true));
    EXPECT_EQ(readFile(other + "/b"), "newer bytes");
    EXPECT_EQ(folderEntries(other), std::vector<std::string>({"b"}));
    EXPECT_EQ(problemOf(copy(temp.path() + "/missing", other + "/c", false)), CFileSystemError::NotFound);
    std::filesystem::remove_all(other);
}

TEST_F(LocalFileSystemTest, ExclusiveLockNamesItsProcessToARefusedLocker)
{
    const P<IFileSystemLock> held = fs->lockFolder(temp.uri(), true);
    try {
        fs->lockFolder(temp.uri(), false);
        FAIL() << "a second lock was granted";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::Locked);
        const std::string holder = e.getProps().lookup("holder").toUTF8();
        EXPECT_EQ(holder.rfind("process " + std::to_string(::getpid()) + " (", 0), 0u) << holder;
    }
}

TEST_F(LocalFileSystemTest, SharedLockHoldersAreDescribedAsReaders)
{
    const P<IFileSystemLock> held = fs->lockFolder(temp.uri(), false);
    try {
        fs->lockFolder(temp.uri(), true);
        FAIL() << "an exclusive lock was granted beside a shared one";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::Locked);
        EXPECT_EQ(e.getProps().lookup("holder").toUTF8(), "processes that read it");
    }
}

TEST_F(LocalFileSystemTest, LockOfAKilledProcessIsReleasedAtOnce)
{
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The child takes the lock with plain system calls (no threads after fork).
        const std::string lockFile = temp.path() + "/.lock";
        const int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT, 0666);
        struct flock request {};
        request.l_type = F_WRLCK;
        request.l_whence = SEEK_SET;
        const char answer = (fd >= 0 && ::fcntl(fd, F_OFD_SETLK, &request) == 0) ? 'y' : 'n';
        if (::write(ready[1], &answer, 1) != 1)
            ::_exit(1);
        ::pause();
        ::_exit(0);
    }
    char answer = 0;
    ASSERT_EQ(::read(ready[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    EXPECT_THROW(fs->lockFolder(temp.uri(), false), CFileSystemError);

    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(ready[0]);
    ::close(ready[1]);
    EXPECT_TRUE(fs->lockFolder(temp.uri(), true));
}

TEST_F(LocalFileSystemTest, RemoveTemporaryFilesRemovesOnlyTheLeftoversOfStoresInTheWholeTree)
{
    std::filesystem::create_directories(temp.path() + "/bricks/b000/a000");
    const auto touch = [&](const std::string& relative) { std::ofstream(temp.path() + "/" + relative) << "x"; };
    touch("disk.brickdisk");
    touch("bricks/b000/a000/00.brick");
    touch("bricks/b000/a000/" + testsupport::storeLeftoverName("01.brick"));
    touch("bricks/b000/" + testsupport::storeLeftoverName("a001"));
    touch(testsupport::storeLeftoverName("disk.brickdisk"));
    touch(".tmp-not-ours.part");

    EXPECT_EQ(fs->removeTemporaryFiles(temp.uri()), 3);
    EXPECT_EQ(folderEntries(temp.path() + "/bricks/b000/a000"), std::vector<std::string>({"00.brick"}));
    EXPECT_EQ(folderEntries(temp.path() + "/bricks/b000"), std::vector<std::string>({"a000"}));
    EXPECT_EQ(folderEntries(temp.path()), std::vector<std::string>({".tmp-not-ours.part", "bricks", "disk.brickdisk"}));
    EXPECT_EQ(fs->removeTemporaryFiles(temp.uri()), 0);
}

// --- hostile folders: planted symbolic links and FIFOs ---

class LocalFileSystemHostileFolderTest : public LocalFileSystemTest {
protected:
    LocalFileSystemHostileFolderTest()
    {
        std::filesystem::create_directories(temp.path() + "/outside");
        std::filesystem::create_directories(temp.path() + "/disk");
        writeBytes(victim(), "precious");
    }
    std::string victim() const { return temp.path() + "/outside/victim"; }
    CURI inDisk(const std::string& relative) const { return temp.uri() << CURI(String("disk/" + relative)); }
    void plantLink(const std::string& relative, const std::string& target) const
    {
        std::filesystem::create_symlink(target, temp.path() + "/disk/" + relative);
    }
    static void writeBytes(const std::string& path, const std::string& bytes) { std::ofstream(path) << bytes; }
    static std::string bytesOf(const std::string& path)
    {
        std::ifstream file(path);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    // Runs `action`, which must throw a CError; returns it.
    template <class Action>
    static P<CError> errorOf(Action action)
    {
        try {
            action();
        } catch (const CError& e) {
            return e.clone();
        }
        ADD_FAILURE() << "the call succeeded";
        return P<CError>();
    }
    static std::string messageOf(const P<CError>& error)
    {
        return error ? error->getMessage().toUTF8() : std::string();
    }
    static std::string pathOf(const P<CError>& error)
    {
        return error ? error->getProps().lookup("path").toUTF8() : std::string();
    }
};

TEST_F(LocalFileSystemHostileFolderTest, StreamsNeverOpenThroughALinkAsTheFileItself)
{
    plantLink("record", victim());
    for (const auto access : {IIOStream::AccessRead, IIOStream::AccessWrite, IIOStream::AccessReadWrite}) {
        const P<CError> error = errorOf([&] { fs->openStream(inDisk("record"), access, IIOStream::OptionReplace); });
        EXPECT_NE(messageOf(error).find("symbolic link"), std::string::npos) << messageOf(error);
        EXPECT_EQ(pathOf(error), inDisk("record").toString(true).toUTF8());
    }
    EXPECT_EQ(bytesOf(victim()), "precious");
}

TEST_F(LocalFileSystemHostileFolderTest, AFolderOnThePathThatIsALinkIsNeverGoneThrough)
{
    plantLink("bricks", "../outside");
    EXPECT_TRUE(store(inDisk("bricks/00.brick"), "brick", true));
    EXPECT_TRUE(errorOf([&] { fs->createFolder(inDisk("bricks/a00"), folderMode); }));
    EXPECT_TRUE(errorOf([&] { fs->fileExists(inDisk("bricks/victim")); }));
    EXPECT_TRUE(errorOf([&] { fs->listFolder(inDisk("bricks")); }));
    EXPECT_TRUE(errorOf([&] { fs->deleteFile(inDisk("bricks/victim"), true); }));
    EXPECT_TRUE(
        errorOf([&] { fs->openStream(inDisk("bricks/victim"), IIOStream::AccessRead, IIOStream::OptionNone); }));
    P<COutcomeListener> listener(new COutcomeListener());
    writeBytes(temp.path() + "/disk/new.brick", "new");
    EXPECT_TRUE(
        fs->beginMoveFile(inDisk("new.brick"), inDisk("bricks/victim"), true, listener.get())->waitDone(waitMillis));
    EXPECT_TRUE(listener->getError());
    EXPECT_EQ(folderEntries(temp.path() + "/outside"), std::vector<std::string>({"victim"}));
    EXPECT_EQ(bytesOf(victim()), "precious");
}

TEST_F(LocalFileSystemHostileFolderTest, ALinkIsDescribedAsItselfAndDeletedAsALink)
{
    plantLink("notes", "../outside");
    EXPECT_TRUE(fs->pathExists(inDisk("notes")));
    EXPECT_FALSE(fs->folderExists(inDisk("notes")));
    EXPECT_FALSE(fs->fileExists(inDisk("notes")));
    EXPECT_FALSE(fs->getFileInfo(inDisk("notes"), true)->isFolder());
    fs->deleteFile(inDisk("notes"), false);
    EXPECT_FALSE(fs->pathExists(inDisk("notes")));
    EXPECT_EQ(bytesOf(victim()), "precious");
}

TEST_F(LocalFileSystemHostileFolderTest, AFolderNamedWhereALinkStandsIsNotCreatedThroughIt)
{
    plantLink("d00", "../outside");
    const P<CError> error = errorOf([&] { fs->createFolder(inDisk("d00/d01"), folderMode); });
    EXPECT_NE(messageOf(error).find("symbolic link"), std::string::npos) << messageOf(error);
    EXPECT_TRUE(errorOf([&] { fs->createFolder(inDisk("d00"), folderMode); }));
    EXPECT_EQ(folderEntries(temp.path() + "/outside"), std::vector<std::string>({"victim"}));
}

TEST_F(LocalFileSystemHostileFolderTest, AFifoIsRefusedAsAFileWithoutWaitingForItsWriter)
{
    const std::string fifo = temp.path() + "/disk/00.brick";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // Both ends held here: an open that waited for the other end would not
    // hang the test, it would succeed and be caught.
    const int bothEnds = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(bothEnds, 0);
    for (const auto access : {IIOStream::AccessRead, IIOStream::AccessReadWrite}) {
        const P<CError> error = errorOf([&] { fs->openStream(inDisk("00.brick"), access, IIOStream::OptionNone); });
        EXPECT_EQ(messageOf(error), "The path is not a regular file.");
        EXPECT_EQ(pathOf(error), inDisk("00.brick").toString(true).toUTF8());
    }
    EXPECT_FALSE(fs->fileExists(inDisk("00.brick")));
    ::close(bothEnds);
}

TEST_F(LocalFileSystemHostileFolderTest, ACopyTakesOnlyARegularFileAsItsSource)
{
    plantLink("linked.brick", victim());
    const std::string fifo = temp.path() + "/disk/fifo.brick";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string source : {"linked.brick", "fifo.brick"}) {
        P<COutcomeListener> listener(new COutcomeListener());
        EXPECT_TRUE(
            fs->beginCopyFile(inDisk(source), inDisk("copy.brick"), false, listener.get())->waitDone(waitMillis));
        EXPECT_TRUE(listener->getError()) << source;
        EXPECT_FALSE(fs->pathExists(inDisk("copy.brick"))) << source;
    }
}

TEST_F(LocalFileSystemHostileFolderTest, ALockFileThatIsALinkIsNotFollowed)
{
    plantLink(".lock", victim());
    const P<CError> error = errorOf([&] { fs->lockFolder(temp.uri() << "disk", true); });
    EXPECT_NE(messageOf(error).find("symbolic link"), std::string::npos) << messageOf(error);
    EXPECT_EQ(pathOf(error), inDisk(".lock").toString(true).toUTF8());
    EXPECT_EQ(bytesOf(victim()), "precious");
}

TEST_F(LocalFileSystemHostileFolderTest, ALockFileThatIsNoRegularFileIsNamedInTheError)
{
    std::filesystem::create_directories(temp.path() + "/disk/.lock");
    for (const bool exclusive : {true, false}) {
        const P<CError> error = errorOf([&] { fs->lockFolder(temp.uri() << "disk", exclusive); });
        EXPECT_EQ(messageOf(error), "The path is not a regular file.");
        EXPECT_EQ(pathOf(error), inDisk(".lock").toString(true).toUTF8());
    }
    std::filesystem::remove(temp.path() + "/disk/.lock");
    ASSERT_EQ(::mkfifo((temp.path() + "/disk/.lock").c_str(), 0600), 0);
    const P<CError> error = errorOf([&] { fs->lockFolder(temp.uri() << "disk", true); });
    EXPECT_EQ(messageOf(error), "The path is not a regular file.");
    EXPECT_EQ(pathOf(error), inDisk(".lock").toString(true).toUTF8());
}

} // namespace
