// A file system asked to make everything below a folder durable at once:
// the local file system does (syncfs), and says what is missing; any other
// says it cannot.
#include "zo/SyncAll.h"

#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

namespace {

using zo::CFileSystemError;
using zo::P;

TEST(SyncAll, LocalFileSystemSyncsAFolderItHolds)
{
    const testsupport::TempFolder temp;
    const P<zo::CLocalFileSystem> local(new zo::CLocalFileSystem());
    local->createFolder(temp.uri() << "cache", 0700);

    EXPECT_TRUE(zo::syncAllBelow(local.get(), temp.uri() << "cache"));
}

TEST(SyncAll, LocalFileSystemRefusesAMissingFolder)
{
    const testsupport::TempFolder temp;
    const P<zo::CLocalFileSystem> local(new zo::CLocalFileSystem());

    const auto error =
        testsupport::errorOf<CFileSystemError>([&] { zo::syncAllBelow(local.get(), temp.uri() << "missing"); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::NotFound);
}

TEST(SyncAll, FileSystemsThatCannotSayTheyCannot)
{
    const P<zo::CMemoryFileSystem> memory(new zo::CMemoryFileSystem());
    memory->createFolder(zo::CURI("/cache"), 0700);
    const P<zo::CLocalFileSystem> local(new zo::CLocalFileSystem());
    const P<zo::CForwardingFileSystem> wrapper(new zo::CForwardingFileSystem(local.get()));
    const testsupport::TempFolder temp;

    EXPECT_FALSE(zo::syncAllBelow(memory.get(), zo::CURI("/cache")));
    EXPECT_FALSE(zo::syncAllBelow(wrapper.get(), temp.uri()));
}

} // namespace
