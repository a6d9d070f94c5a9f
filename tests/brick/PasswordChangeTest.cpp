// Changing the password of a chain of disks that share a wrapped key.
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "support/DiskTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskError;
using brick::CBrickDiskHeader;
using brick::CBrickDiskKeyWrap;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using testsupport::opensWith;
using zo::CError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int64 kDiskSize = 4 * kBrickSize;
const char* const kOld = "old password";
const char* const kNew = "new password";
const std::vector<const char*> kFolders = {"/disks/parent", "/disks/child", "/disks/grandchild"};

zo::TList<CURI> chainFolders()
{
    return testsupport::foldersOf(kFolders);
}

// A parent with two linked children below it, each holding one brick of its
// own.
P<CMemoryFileSystem> makeChain(const char* password = kOld)
{
    P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    testsupport::createKeyWrappedChain(fs.get(), kFolders, kDiskSize, password, 20);
    return fs;
}

// The content of every disk of the chain, read with `password`.
std::vector<Bytes> contents(CMemoryFileSystem* fs, const char* password)
{
    std::vector<Bytes> result;
    for (const char* folder : kFolders)
        result.push_back(testsupport::readWholeDisk(*testsupport::openDisk(fs, CURI(folder), password)));
    return result;
}

void changePassword(CMemoryFileSystem* fs, const char* from = kOld, const char* to = kNew)
{
    CBrickDiskKeyWrap::changePassword(fs, chainFolders(), from, to, kTestKdfCost);
}

TEST(PasswordChange, EveryDiskOfTheChainOpensWithTheNewPasswordOnly)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const std::vector<Bytes> before = contents(fs.get(), kOld);
    changePassword(fs.get());
    for (const char* folder : kFolders) {
        EXPECT_TRUE(opensWith(fs.get(), folder, kNew)) << folder;
        EXPECT_FALSE(opensWith(fs.get(), folder, kOld)) << folder;
    }
    const std::vector<Bytes> after = contents(fs.get(), kNew);
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_TRUE(testsupport::sameBytes(before[i], after[i])) << kFolders[i];
}

TEST(PasswordChange, RewritesHeadersOnly)
{
    const P<CMemoryFileSystem> fs = makeChain();
    fs->resetCounters();
    changePassword(fs.get());
    for (const zo::String& entry : fs->getOperationLog())
        EXPECT_EQ(entry.toUTF8().find("bricks"), std::string::npos) << entry.toUTF8();
    // Both copies of every header, each replaced as a whole.
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), static_cast<int>(2 * std::size(kFolders)));
    EXPECT_EQ(fs->getOperationCount(Op::MoveFile), 0);
    EXPECT_EQ(fs->getOperationCount(Op::DeleteFile), 0);
}

TEST(PasswordChange, WrongOldPasswordWritesNothing)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const auto before = testsupport::fileContentsBelow(fs.get(), CURI("/disks"));
    const auto error = testsupport::errorOf<CBrickDiskError>([&] { changePassword(fs.get(), "wrong"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CBrickDiskError::IncorrectPassword);
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disks")).size(), before.size());
    for (const auto& [path, bytes] : testsupport::fileContentsBelow(fs.get(), CURI("/disks")))
        EXPECT_TRUE(testsupport::sameBytes(bytes, before.at(path))) << path;
}

TEST(PasswordChange, DiskWithAnotherKeyIsRefusedBeforeWriting)
{
    const P<CMemoryFileSystem> fs = makeChain();
    CBrickDisk::createAuthenticated(fs.get(), CURI("/disks/stranger"), kDiskSize, 1, kOld, "lz4", kBrickSize,
                                    kTestKdfCost);
    zo::TList<CURI> folders = chainFolders();
    folders.push_back(CURI("/disks/stranger"));
    EXPECT_THROW(CBrickDiskKeyWrap::changePassword(fs.get(), folders, kOld, kNew, kTestKdfCost), CError);
    for (const char* folder : kFolders)
        EXPECT_TRUE(opensWith(fs.get(), folder, kOld)) << folder;
}

TEST(PasswordChange, DiskOfDerivedKeyIsRefused)
{
    const P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    testsupport::createDisk(fs.get(), CURI("/disks/old"), kDiskSize, kOld);
    zo::TList<CURI> folders{CURI("/disks/old")};
    EXPECT_THROW(CBrickDiskKeyWrap::changePassword(fs.get(), folders, kOld, kNew, kTestKdfCost), zo::CInvalidArgError);
    EXPECT_TRUE(opensWith(fs.get(), "/disks/old", kOld));
}

// Fails the nth operation of `kind` during the change, for every n until the
// change gets through: after each failure every disk opens with the old or
// the new password and reads what it held, and running the change again
// finishes it.
void sweepFailuresOf(Op kind)
{
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE(std::string(CMemoryFileSystem::getOperationName(kind)) + " " + std::to_string(nth));
        const P<CMemoryFileSystem> fs = makeChain();
        const std::vector<Bytes> before = contents(fs.get(), kOld);
        fs->failOperation(kind, nth, zo::CFileSystemError::Unclassified, false);
        bool failed = false;
        try {
            changePassword(fs.get());
        } catch (const CError&) {
            failed = true;
        }
        fs->clearFailures();
        for (size_t i = 0; i < std::size(kFolders); ++i) {
            const bool opensNew = opensWith(fs.get(), kFolders[i], kNew);
            ASSERT_TRUE(opensNew || opensWith(fs.get(), kFolders[i], kOld)) << kFolders[i];
            const Bytes content =
                testsupport::readWholeDisk(*testsupport::openDisk(fs.get(), CURI(kFolders[i]), opensNew ? kNew : kOld));
            EXPECT_TRUE(testsupport::sameBytes(content, before[i])) << kFolders[i];
        }
        changePassword(fs.get());
        for (const char* folder : kFolders)
            EXPECT_TRUE(opensWith(fs.get(), folder, kNew)) << folder;
        if (!failed)
            return;
    }
}

TEST(PasswordChange, InterruptedAtEveryStreamOpeningLeavesEveryDiskOpenable)
{
    sweepFailuresOf(Op::OpenStream);
}

TEST(PasswordChange, InterruptedAtEveryStoreLeavesEveryDiskOpenable)
{
    sweepFailuresOf(Op::StoreFile);
}

TEST(PasswordChange, InterruptedAtEveryFolderCreationLeavesEveryDiskOpenable)
{
    sweepFailuresOf(Op::CreateFolderSync);
}

// A copy torn while it was written (any prefix of the new bytes) fails its
// checksum, and the other copy, old or new, opens the disk.
TEST(PasswordChange, TornHeaderCopyFallsBackToTheOtherCopy)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const CURI primary = CBrickDiskHeader::getHeaderURI(CURI(kFolders[1]), 0);
    const CURI fallback = CBrickDiskHeader::getHeaderURI(CURI(kFolders[1]), 1);
    const P<Bytes> oldCopy = fs->getFileData(primary);
    changePassword(fs.get());
    const P<Bytes> newCopy = fs->getFileData(primary);
    for (int size = 0; size < newCopy->getUsed(); ++size) {
        const Bytes torn(newCopy->getData(), size);
        // Torn primary, fallback not yet written.
        fs->setFileData(primary, torn);
        fs->setFileData(fallback, *oldCopy);
        EXPECT_TRUE(opensWith(fs.get(), kFolders[1], kOld)) << "primary torn at " << size;
        // Primary written, torn fallback.
        fs->setFileData(primary, *newCopy);
        fs->setFileData(fallback, torn);
        EXPECT_TRUE(opensWith(fs.get(), kFolders[1], kNew)) << "fallback torn at " << size;
    }
}

TEST(PasswordChange, ChangedPasswordCanChangeAgain)
{
    const P<CMemoryFileSystem> fs = makeChain();
    changePassword(fs.get());
    changePassword(fs.get(), kNew, "third");
    for (const char* folder : kFolders)
        EXPECT_TRUE(opensWith(fs.get(), folder, "third")) << folder;
}

} // namespace
