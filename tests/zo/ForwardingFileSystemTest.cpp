// A wrapper made from CForwardingFileSystem changes the calls it overrides
// and passes every other one, with its result and its error, to the file
// system below.
#include "zo/ForwardingFileSystem.h"

#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

namespace {

using zo::CURI;
using zo::P;

// Answers that no file exists; everything else is passed on.
class CBlindFileSystem : public zo::CForwardingFileSystem {
public:
    using CForwardingFileSystem::CForwardingFileSystem;
    bool fileExists(const CURI&) override { return false; }
};

TEST(ForwardingFileSystem, PassesOnWhatItDoesNotOverride)
{
    const P<zo::CMemoryFileSystem> inner(new zo::CMemoryFileSystem());
    const P<CBlindFileSystem> blind(new CBlindFileSystem(inner.get()));
    blind->createFolder(CURI("/a"), 0700);
    EXPECT_TRUE(inner->folderExists(CURI("/a")));
    {
        const P<zo::IIOStream> stream =
            blind->openStream(CURI("/a/f"), zo::IIOStream::AccessReadWrite, zo::IIOStream::OptionReplace);
        stream->write("hello", 5);
    }
    EXPECT_TRUE(inner->fileExists(CURI("/a/f")));
    EXPECT_FALSE(blind->fileExists(CURI("/a/f")));
    EXPECT_TRUE(blind->pathExists(CURI("/a/f")));
    EXPECT_EQ(blind->getFileInfo(CURI("/a/f"), true)->getSize(), 5);
    EXPECT_EQ(blind->listFolder(CURI("/a")).size(), 1u);
    blind->deleteFile(CURI("/a/f"), false);
    EXPECT_FALSE(inner->pathExists(CURI("/a/f")));
}

TEST(ForwardingFileSystem, PassesOnTheErrorsOfTheFileSystemBelow)
{
    const P<zo::CMemoryFileSystem> inner(new zo::CMemoryFileSystem());
    const P<CBlindFileSystem> blind(new CBlindFileSystem(inner.get()));
    try {
        blind->deleteFile(CURI("/missing"), false);
        FAIL() << "deleting a missing file did not fail";
    } catch (const zo::CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), zo::CFileSystemError::NotFound);
    }
}

} // namespace
