// Folder locks on the S3 test service: writers in different clients keep
// each other out, readers share, a held lock outlives its lease because it
// is renewed, and the lock of a killed holder ends with its lease.
#include "S3TestService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace zo;

namespace {

constexpr int leaseSeconds = 2;

P<CS3FileSystem> makeFileSystem()
{
    S3Options options = testsupport::s3TestOptions(2);
    options.lockLeaseSeconds = leaseSeconds;
    return P<CS3FileSystem>(new CS3FileSystem(options));
}

// The problem and the holder of the error that locking `folder` throws.
std::pair<int, std::string> lockFailure(IFileSystem& fs, const CURI& folder, bool exclusive)
{
    try {
        fs.lockFolder(folder, exclusive);
    } catch (const CError& e) {
        return {CFileSystemError::getProblem(e.getProps()), e.getProps().lookup("holder").toUTF8()};
    }
    return {-1, std::string()};
}

class S3FolderLockTest : public ::testing::Test {
protected:
    void SetUp() override { first->createFolder(folder, 0x1ff); }
    void TearDown() override { testsupport::removeS3Folder(folder); }

    CURI folder = testsupport::uniqueS3Folder("lock");
    P<CS3FileSystem> first = makeFileSystem();
    P<CS3FileSystem> second = makeFileSystem();
};

TEST_F(S3FolderLockTest, ASecondWriterIsRefusedAndToldWhoHoldsTheLock)
{
    const P<IFileSystemLock> writer = first->lockFolder(folder, true);
    const auto [problem, holder] = lockFailure(*second, folder, true);
    EXPECT_EQ(problem, CFileSystemError::Locked);
    EXPECT_NE(holder.find("process " + std::to_string(::getpid())), std::string::npos) << holder;
    EXPECT_EQ(lockFailure(*second, folder, false).first, CFileSystemError::Locked);
}

TEST_F(S3FolderLockTest, ReadersShareTheFolderAndKeepAWriterOut)
{
    const P<IFileSystemLock> reader = first->lockFolder(folder, false);
    const P<IFileSystemLock> otherReader = second->lockFolder(folder, false);
    EXPECT_EQ(lockFailure(*second, folder, true).first, CFileSystemError::Locked);
}

TEST_F(S3FolderLockTest, ADroppedLockLetsTheNextWriterInAndLeavesNoHolderBehind)
{
    P<IFileSystemLock> writer = first->lockFolder(folder, true);
    EXPECT_FALSE(first->listFolder(folder << ".lock").empty());
    writer.reset();
    EXPECT_TRUE(second->lockFolder(folder, true)->isExclusive());
    EXPECT_FALSE(first->folderExists(folder << ".lock") && !first->listFolder(folder << ".lock").empty());
}

TEST_F(S3FolderLockTest, AHeldLockIsRenewedBeyondItsLease)
{
    const P<IFileSystemLock> writer = first->lockFolder(folder, true);
    std::this_thread::sleep_for(std::chrono::seconds(2 * leaseSeconds + 1));
    EXPECT_EQ(lockFailure(*second, folder, true).first, CFileSystemError::Locked);
}

TEST_F(S3FolderLockTest, TheLockOfAKilledWriterEndsWithItsLease)
{
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The killed writer: locks, says so, and waits for its end.
        P<IFileSystemLock> lock = makeFileSystem()->lockFolder(folder, true);
        const char byte = 1;
        if (::write(ready[1], &byte, 1) != 1)
            ::_exit(1);
        ::pause();
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);

    EXPECT_EQ(lockFailure(*second, folder, true).first, CFileSystemError::Locked);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3 * leaseSeconds);
    P<IFileSystemLock> taken;
    while (!taken && std::chrono::steady_clock::now() < deadline) {
        try {
            taken = second->lockFolder(folder, true);
        } catch (const CFileSystemError& e) {
            ASSERT_EQ(e.getProblem(), CFileSystemError::Locked);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    }
    EXPECT_TRUE(taken);
}

} // namespace
