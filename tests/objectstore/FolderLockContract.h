// The folder locks that every object-store file system shares (their lease
// lock): writers in different clients keep each other out, readers share, a
// dropped lock lets the next writer in, a held lock outlives its lease
// because it is renewed, and the lock of a killed holder ends with its lease.
//
// A test program includes this once and instantiates the suite with a type
// that has `static P<IFileSystem> make(int leaseSeconds)` (a client of the
// test service), `static CURI uniqueFolder(const std::string& label)` and
// `static void removeFolder(const CURI& folder)`.
#pragma once

#include "zo/FileSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kLockLeaseSeconds = 2;

// The problem and the holder of the error that locking `folder` throws.
inline std::pair<int, std::string> lockFailure(zo::IFileSystem& fs, const zo::CURI& folder, bool exclusive)
{
    try {
        fs.lockFolder(folder, exclusive);
    } catch (const zo::CError& e) {
        return {zo::CFileSystemError::getProblem(e.getProps()), e.getProps().lookup("holder").toUTF8()};
    }
    return {-1, std::string()};
}

template <class Store>
class FolderLockContractTest : public ::testing::Test {
protected:
    void SetUp() override { first->createFolder(folder, 0x1ff); }
    void TearDown() override { Store::removeFolder(folder); }

    zo::CURI folder = Store::uniqueFolder("lock");
    zo::P<zo::IFileSystem> first = Store::make(kLockLeaseSeconds);
    zo::P<zo::IFileSystem> second = Store::make(kLockLeaseSeconds);
};

TYPED_TEST_SUITE_P(FolderLockContractTest);

TYPED_TEST_P(FolderLockContractTest, ASecondWriterIsRefusedAndToldWhoHoldsTheLock)
{
    const zo::P<zo::IFileSystemLock> writer = this->first->lockFolder(this->folder, true);
    const auto [problem, holder] = lockFailure(*this->second, this->folder, true);
    EXPECT_EQ(problem, zo::CFileSystemError::Locked);
    EXPECT_NE(holder.find("process " + std::to_string(::getpid())), std::string::npos) << holder;
    EXPECT_EQ(lockFailure(*this->second, this->folder, false).first, zo::CFileSystemError::Locked);
}

TYPED_TEST_P(FolderLockContractTest, ReadersShareTheFolderAndKeepAWriterOut)
{
    const zo::P<zo::IFileSystemLock> reader = this->first->lockFolder(this->folder, false);
    const zo::P<zo::IFileSystemLock> otherReader = this->second->lockFolder(this->folder, false);
    EXPECT_EQ(lockFailure(*this->second, this->folder, true).first, zo::CFileSystemError::Locked);
}

TYPED_TEST_P(FolderLockContractTest, ADroppedLockLetsTheNextWriterIn)
{
    zo::P<zo::IFileSystemLock> writer = this->first->lockFolder(this->folder, true);
    writer.reset();
    EXPECT_TRUE(this->second->lockFolder(this->folder, true)->isExclusive());
}

TYPED_TEST_P(FolderLockContractTest, AHeldLockIsRenewedBeyondItsLease)
{
    const zo::P<zo::IFileSystemLock> writer = this->first->lockFolder(this->folder, true);
    std::this_thread::sleep_for(std::chrono::seconds(2 * kLockLeaseSeconds + 1));
    EXPECT_EQ(lockFailure(*this->second, this->folder, true).first, zo::CFileSystemError::Locked);
}

// The killed writer of the test below is the same test run again in a
// program of its own, told by these variables which folder to lock and where
// to say that it holds the lock. (A forked copy of the test's program, whose
// store client runs threads, can hang in that client.)
constexpr const char* kKilledWriterFolder = "BRICKDISK_TEST_KILLED_WRITER_FOLDER";
constexpr const char* kKilledWriterFd = "BRICKDISK_TEST_KILLED_WRITER_FD";

TYPED_TEST_P(FolderLockContractTest, TheLockOfAKilledWriterEndsWithItsLease)
{
    if (const char* folder = std::getenv(kKilledWriterFolder)) {
        // The killed writer: locks, says so, and waits for its end.
        const auto fs = TypeParam::make(kLockLeaseSeconds);
        zo::P<zo::IFileSystemLock> lock = fs->lockFolder(zo::CURI(zo::String::fromUTF8(folder)), true);
        const char byte = 1;
        if (::write(std::atoi(std::getenv(kKilledWriterFd)), &byte, 1) != 1)
            ::_exit(1);
        ::pause();
        ::_exit(0);
    }
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const ::testing::TestInfo& test = *::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
    const std::string folderVariable = std::string(kKilledWriterFolder) + "=" + this->folder.toString(true).toUTF8();
    const std::string fdVariable = std::string(kKilledWriterFd) + "=" + std::to_string(ready[1]);
    std::vector<char*> environment;
    for (char** variable = environ; *variable; ++variable)
        environment.push_back(*variable);
    environment.push_back(const_cast<char*>(folderVariable.c_str()));
    environment.push_back(const_cast<char*>(fdVariable.c_str()));
    environment.push_back(nullptr);
    char program[] = "/proc/self/exe";
    char* const arguments[] = {program, const_cast<char*>(filter.c_str()), nullptr};
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::execve(program, arguments, environment.data());
        ::_exit(127);
    }
    ::close(ready[1]); // a writer that ends early ends the wait at once
    pollfd readable{ready[0], POLLIN, 0};
    char byte = 0;
    if (::poll(&readable, 1, 60000) != 1 || ::read(ready[0], &byte, 1) != 1) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        ::close(ready[0]);
        FAIL() << "the writer did not take its lock within 60 s";
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);

    EXPECT_EQ(lockFailure(*this->second, this->folder, true).first, zo::CFileSystemError::Locked);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3 * kLockLeaseSeconds);
    zo::P<zo::IFileSystemLock> taken;
    while (!taken && std::chrono::steady_clock::now() < deadline) {
        try {
            taken = this->second->lockFolder(this->folder, true);
        } catch (const zo::CFileSystemError& e) {
            ASSERT_EQ(e.getProblem(), zo::CFileSystemError::Locked);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    }
    EXPECT_TRUE(taken);
}

REGISTER_TYPED_TEST_SUITE_P(FolderLockContractTest, ASecondWriterIsRefusedAndToldWhoHoldsTheLock,
                            ReadersShareTheFolderAndKeepAWriterOut, ADroppedLockLetsTheNextWriterIn,
                            AHeldLockIsRenewedBeyondItsLease, TheLockOfAKilledWriterEndsWithItsLease);

} // namespace
