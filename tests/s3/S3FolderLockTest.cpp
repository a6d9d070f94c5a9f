// Folder locks on the S3 test service; there each holder is an object of its
// own under the folder's ".lock/".
#include "S3TestService.h"
#include "objectstore/FolderLockContract.h"

namespace {

struct S3Store {
    static zo::P<zo::IFileSystem> make(int leaseSeconds)
    {
        zo::S3Options options = testsupport::s3TestOptions(2);
        options.lockLeaseSeconds = leaseSeconds;
        return zo::P<zo::IFileSystem>(new zo::CS3FileSystem(options));
    }
    static zo::CURI uniqueFolder(const std::string& label) { return testsupport::uniqueS3Folder(label); }
    static void removeFolder(const zo::CURI& folder) { testsupport::removeS3Folder(folder); }
};

INSTANTIATE_TYPED_TEST_SUITE_P(S3, FolderLockContractTest, ::testing::Types<S3Store>);

TEST(S3FolderLockTest, ADroppedLockLeavesNoHolderBehind)
{
    const zo::CURI folder = S3Store::uniqueFolder("lock");
    const zo::CURI holders = folder << ".lock";
    const zo::P<zo::IFileSystem> fs = S3Store::make(kLockLeaseSeconds);
    fs->createFolder(folder, 0x1ff);
    zo::P<zo::IFileSystemLock> writer = fs->lockFolder(folder, true);
    EXPECT_FALSE(fs->listFolder(holders).empty());
    writer.reset();
    EXPECT_FALSE(fs->folderExists(holders) && !fs->listFolder(holders).empty());
    S3Store::removeFolder(folder);
}

} // namespace
