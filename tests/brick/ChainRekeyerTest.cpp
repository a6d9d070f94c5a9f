// Copying a chain under a new disk key: every copied disk reads like its
// source with the new password only, holds no brick file of the source's
// bytes, takes snapshots and writes as any disk, and a destination that
// holds files, a wrong password or a source of the original format are
// refused before anything is written.
#include "brick/backup/ChainRekeyer.h"
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/format/BrickDiskKeys.h"
#include "brick/format/BrickTree.h"
#include "support/DiskTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskError;
using brick::CChainRekeyer;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using testsupport::opensWith;
using zo::CError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int64 kDiskSize = 8 * kBrickSize;
const char* const kOld = "old password";
const char* const kNew = "new password";
// The top first, then its snapshots, newest first.
const char* const kSources[] = {"/src/disk", "/src/s1", "/src/s0"};
const char* const kCopies[] = {"/dst/disk", "/dst/s1", "/dst/s0"};

void writeBricks(zo::IFileSystem* fs, const std::vector<int>& indexes, unsigned seed)
{
    const P<CBrickDisk> disk = testsupport::openDisk(fs, CURI(kSources[0]), kOld);
    for (int index : indexes)
        testsupport::writeAt(*disk, int64(index) * kBrickSize,
                             testsupport::patternBytes(kBrickSize, seed + static_cast<unsigned>(index)));
}

// The chain /src/disk, /src/s1, /src/s0 (oldest), the snapshots holding the
// bricks the top changed since, one of them zeroed.
P<CMemoryFileSystem> makeChain()
{
    P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    testsupport::createKeyWrappedDisk(fs.get(), CURI(kSources[0]), kDiskSize, kOld);
    writeBricks(fs.get(), {0, 1, 2, 3}, 10);
    testsupport::createLinkedChild(fs.get(), CURI(kSources[2]), CURI(kSources[0]), kOld);
    writeBricks(fs.get(), {1, 4}, 20);
    testsupport::createLinkedChild(fs.get(), CURI(kSources[1]), CURI(kSources[0]), kOld);
    writeBricks(fs.get(), {2, 5, 1}, 30);
    testsupport::writeAt(*testsupport::openDisk(fs.get(), CURI(kSources[0]), kOld), 3 * kBrickSize, Bytes(kBrickSize));
    return fs;
}

CChainRekeyer::Summary rekey(zo::IFileSystem* fs, const char* password = kOld)
{
    CChainRekeyer::Options options;
    options.password = password;
    options.newPassword = kNew;
    options.cost = kTestKdfCost;
    return CChainRekeyer::copy(fs, CURI(kSources[0]), fs, CURI("/dst/disk"), options);
}

Bytes readDisk(zo::IFileSystem* fs, const char* folder, const char* password)
{
    return testsupport::readWholeDisk(*testsupport::openDisk(fs, CURI(folder), password, IIOStream::AccessRead));
}

TEST(ChainRekeyer, EveryDiskReadsAsItsSourceWithTheNewPasswordOnly)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const CChainRekeyer::Summary summary = rekey(fs.get());
    EXPECT_EQ(summary.disksMade.size(), 3u);
    EXPECT_GT(summary.bricksReencoded, 0);
    // The snapshots read what the top held when they were taken.
    EXPECT_FALSE(testsupport::sameBytes(readDisk(fs.get(), kSources[2], kOld), readDisk(fs.get(), kSources[0], kOld)));
    for (size_t i = 0; i < std::size(kSources); ++i) {
        const Bytes source = readDisk(fs.get(), kSources[i], kOld);
        EXPECT_TRUE(testsupport::sameBytes(readDisk(fs.get(), kCopies[i], kNew), source)) << kCopies[i];
        EXPECT_FALSE(opensWith(fs.get(), kCopies[i], kOld)) << kCopies[i];
        EXPECT_EQ(CBrickDisk::getCompletion(fs.get(), CURI(kCopies[i])), CBrickDisk::Finished) << kCopies[i];
    }
}

TEST(ChainRekeyer, CopyHasANewDiskKeyAndNoBrickFileOfTheSource)
{
    const P<CMemoryFileSystem> fs = makeChain();
    rekey(fs.get());
    const auto oldKey = testsupport::diskKey(fs.get(), CURI(kSources[0]), kOld);
    const auto newKey = testsupport::diskKey(fs.get(), CURI(kCopies[0]), kNew);
    EXPECT_FALSE(oldKey == newKey);
    for (size_t i = 0; i < std::size(kSources); ++i) {
        brick::CBrickDiskHeader header;
        header.load(fs.get(), CURI(kSources[i]));
        const auto sourceBricks = brick::CBrickTree::list(fs.get(), CURI(kSources[i]), header).bricks;
        const auto copyBricks = brick::CBrickTree::list(fs.get(), CURI(kCopies[i]), header).bricks;
        ASSERT_EQ(copyBricks.size(), sourceBricks.size()) << kCopies[i];
        for (size_t b = 0; b < sourceBricks.size(); ++b) {
            EXPECT_EQ(copyBricks[b].index, sourceBricks[b].index);
            EXPECT_FALSE(
                testsupport::sameBytes(*fs->getFileData(copyBricks[b].path), *fs->getFileData(sourceBricks[b].path)))
                << copyBricks[b].path.toString(true).toUTF8();
        }
    }
}

TEST(ChainRekeyer, CopiedChainTakesSnapshotsAndWrites)
{
    const P<CMemoryFileSystem> fs = makeChain();
    rekey(fs.get());
    testsupport::createLinkedChild(fs.get(), CURI("/dst/s2"), CURI(kCopies[0]), kNew);
    const Bytes before = readDisk(fs.get(), kCopies[0], kNew);
    const Bytes written = testsupport::patternBytes(kBrickSize, 99);
    testsupport::writeAt(*testsupport::openDisk(fs.get(), CURI(kCopies[0]), kNew), 0, written);
    EXPECT_TRUE(testsupport::sameBytes(readDisk(fs.get(), "/dst/s2", kNew), before));
    EXPECT_TRUE(testsupport::sameBytes(readDisk(fs.get(), kCopies[0], kNew), testsupport::overlay(before, 0, written)));
}

TEST(ChainRekeyer, AnyKeyOfTheSourceOpensItAndTheCopyHasOneKey)
{
    const P<CMemoryFileSystem> fs = makeChain();
    zo::TList<CURI> folders;
    for (const char* folder : kSources)
        folders.push_back(CURI(folder));
    brick::CBrickDiskKeys::addKey(fs.get(), folders, kOld, "backup", "backup password", kTestKdfCost, false);
    rekey(fs.get(), "backup password");
    for (const char* folder : kCopies) {
        brick::CBrickDiskHeader header;
        header.load(fs.get(), CURI(folder));
        EXPECT_EQ(brick::CBrickDiskKeyWrap::getKeys(header).size(), 1u) << folder;
        EXPECT_FALSE(opensWith(fs.get(), folder, "backup password")) << folder;
        EXPECT_TRUE(opensWith(fs.get(), folder, kNew)) << folder;
    }
}

TEST(ChainRekeyer, DestinationThatHoldsFilesIsRefusedBeforeWriting)
{
    const P<CMemoryFileSystem> fs = makeChain();
    rekey(fs.get());
    const auto before = testsupport::fileContentsBelow(fs.get(), CURI("/dst"));
    const auto error = testsupport::errorOf<CError>([&] { rekey(fs.get()); });
    ASSERT_TRUE(error);
    EXPECT_NE(testsupport::messageOf(*error).find("A copy with a new key goes into a new or empty folder"),
              std::string::npos);
    const auto after = testsupport::fileContentsBelow(fs.get(), CURI("/dst"));
    ASSERT_EQ(after.size(), before.size());
    for (const auto& [path, bytes] : after)
        EXPECT_TRUE(testsupport::sameBytes(bytes, before.at(path))) << path;
}

TEST(ChainRekeyer, WrongPasswordWritesNothing)
{
    const P<CMemoryFileSystem> fs = makeChain();
    const auto error = testsupport::errorOf<CBrickDiskError>([&] { rekey(fs.get(), "wrong"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CBrickDiskError::IncorrectPassword);
    EXPECT_FALSE(fs->pathExists(CURI("/dst")));
}

TEST(ChainRekeyer, DiskOfTheOriginalFormatIsRefused)
{
    const P<CMemoryFileSystem> fs(new CMemoryFileSystem());
    testsupport::createDisk(fs.get(), CURI(kSources[0]), kDiskSize, kOld);
    EXPECT_THROW(rekey(fs.get()), CError);
    EXPECT_FALSE(fs->pathExists(CURI("/dst")));
}

TEST(ChainRekeyer, CopyCutShortDoesNotOpen)
{
    const P<CMemoryFileSystem> fs = makeChain();
    CChainRekeyer::Options options;
    options.password = kOld;
    options.newPassword = kNew;
    options.cost = kTestKdfCost;
    int files = 0;
    options.checkpoint = [&] {
        if (++files == 4)
            throw CError("Stopped.");
    };
    EXPECT_THROW(CChainRekeyer::copy(fs.get(), CURI(kSources[0]), fs.get(), CURI("/dst/disk"), options), CError);
    for (const char* folder : kCopies)
        EXPECT_THROW(testsupport::openDisk(fs.get(), CURI(folder), kNew, IIOStream::AccessRead), CError) << folder;
}

} // namespace
