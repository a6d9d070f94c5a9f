#include "brick/chain/BrickReader.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickTree.h"
#include "support/BrickTestHelpers.h"
#include "support/DiskTestHelpers.h"
#include "zo/Error.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickReader;
using testsupport::Bytes;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::int64;
using zo::P;
using Content = CBrickReader::Content;
using Op = CMemoryFileSystem::Operation;

constexpr int kBrickSize = 4096;

class BrickReader : public ::testing::Test {
protected:
    BrickReader()
        : fs(new CMemoryFileSystem(2)), header(testsupport::makeBrickHeader(kBrickSize)),
          key(testsupport::makeBrickKey("aes256cbc"))
    {
        for (const char* folder : {"/disk", "/parent", "/grandparent"})
            fs->createFolder(CURI(folder), 0x1ff);
    }

    P<CBrickReader> makeReader(zo::IFileSystem* through = nullptr)
    {
        return P<CBrickReader>(new CBrickReader(through ? through : fs.get(),
                                                {CURI("/disk"), CURI("/parent"), CURI("/grandparent")}, header, key));
    }
    CURI fileOf(const char* folder, int64 index) const
    {
        return CURI(folder) << brick::CBrickTree::getRelativeBrickURI(header, index);
    }
    void storeBrick(const char* folder, int64 index, const Bytes& plain)
    {
        fs->setFileData(fileOf(folder, index), testsupport::prepareBrick(header, key, plain));
    }
    // A buffer of one brick that holds no zeros, so that a read has to
    // write every byte it reports.
    static Bytes garbage() { return testsupport::patternBytes(kBrickSize, 99); }

    P<CMemoryFileSystem> fs;
    brick::CBrickDiskHeader header;
    testsupport::Key key;
};

TEST(BrickReaderChain, ChainOfListsTheDiskFolderThenItsParentsNearestFirst)
{
    const std::vector<CURI> chain =
        CBrickReader::chainOf(CURI("/disk"), testsupport::foldersOf({"/parent", "/grandparent"}));
    ASSERT_EQ(chain.size(), 3u);
    EXPECT_EQ(chain[0].toString(true), CURI("/disk").toString(true));
    EXPECT_EQ(chain[1].toString(true), CURI("/parent").toString(true));
    EXPECT_EQ(chain[2].toString(true), CURI("/grandparent").toString(true));
    EXPECT_EQ(CBrickReader::chainOf(CURI("/disk"), {}).size(), 1u);
}

TEST_F(BrickReader, FindsBrickInNearestDiskOfTheChain)
{
    const Bytes parentPlain = testsupport::patternBytes(kBrickSize, 1);
    storeBrick("/parent", 5, parentPlain);
    storeBrick("/grandparent", 5, testsupport::patternBytes(kBrickSize, 2));
    const P<CBrickReader> reader = makeReader();

    const CBrickReader::Location location = reader->locate(5);
    EXPECT_EQ(location.depth, 1);
    EXPECT_EQ(location.folder.toString(true), CURI("/parent").toString(true));
    EXPECT_EQ(location.file.toString(true), fileOf("/parent", 5).toString(true));

    Bytes dst = garbage();
    const CBrickReader::Found found = reader->read(5, dst);
    EXPECT_EQ(found.content, Content::Data);
    EXPECT_EQ(found.depth, 1);
    EXPECT_TRUE(testsupport::sameBytes(dst, parentPlain));
}

TEST_F(BrickReader, PrefersTheDisksOwnFileToItsParents)
{
    const Bytes ownPlain = testsupport::patternBytes(kBrickSize, 3);
    storeBrick("/disk", 7, ownPlain);
    storeBrick("/parent", 7, testsupport::patternBytes(kBrickSize, 4));
    const P<CBrickReader> reader = makeReader();

    EXPECT_EQ(reader->locate(7).depth, 0);
    Bytes dst = garbage();
    EXPECT_EQ(reader->read(7, dst).depth, 0);
    EXPECT_TRUE(testsupport::sameBytes(dst, ownPlain));
}

TEST_F(BrickReader, ReportsHoleWhereNoDiskHoldsTheBrick)
{
    storeBrick("/parent", 5, testsupport::patternBytes(kBrickSize, 5));
    const P<CBrickReader> reader = makeReader();

    const CBrickReader::Location location = reader->locate(6);
    EXPECT_TRUE(location.isHole());
    EXPECT_EQ(location.depth, -1);
    EXPECT_TRUE(location.file.isEmpty());

    Bytes dst = garbage();
    const CBrickReader::Found found = reader->read(6, dst);
    EXPECT_EQ(found.content, Content::Hole);
    EXPECT_EQ(found.depth, -1);
    EXPECT_TRUE(testsupport::sameBytes(dst, testsupport::zeroBytes(kBrickSize)));
}

TEST_F(BrickReader, ReportsZeroBrickStoredInChild)
{
    storeBrick("/disk", 5, testsupport::zeroBytes(kBrickSize));
    storeBrick("/parent", 5, testsupport::patternBytes(kBrickSize, 6));
    const P<CBrickReader> reader = makeReader();

    Bytes dst = garbage();
    const CBrickReader::Found found = reader->read(5, dst);
    EXPECT_EQ(found.content, Content::Zero);
    EXPECT_EQ(found.depth, 0);
    EXPECT_TRUE(testsupport::sameBytes(dst, testsupport::zeroBytes(kBrickSize)));
}

TEST_F(BrickReader, ThrowsDecodeErrorForDamagedFile)
{
    storeBrick("/disk", 5, testsupport::patternBytes(kBrickSize, 7));
    storeBrick("/parent", 5, testsupport::patternBytes(kBrickSize, 8));
    Bytes damaged(*fs->getFileData(fileOf("/disk", 5)));
    damaged[damaged.getUsed() / 2] ^= 0x40;
    fs->setFileData(fileOf("/disk", 5), damaged);
    const P<CBrickReader> reader = makeReader();

    Bytes dst = garbage();
    try {
        reader->read(5, dst);
        FAIL() << "a damaged brick file was decoded";
    } catch (const zo::CError& e) {
        EXPECT_TRUE(brick::CBrickDataPreparer::isError(e, brick::CBrickDataPreparer::CorruptedFile))
            << e.toString().toUTF8();
        EXPECT_EQ(e.getProps().lookup("action"), "CBrickDataPreparer::unprepareData");
    }
    // The damage is not hidden behind the parent's file.
    EXPECT_EQ(reader->locate(5).depth, 0);
}

TEST_F(BrickReader, ThrowsDecodeErrorForFileMadeWithAnotherKey)
{
    testsupport::Key otherKey(key);
    otherKey[0] ^= 1;
    fs->setFileData(fileOf("/disk", 5),
                    testsupport::prepareBrick(header, otherKey, testsupport::patternBytes(kBrickSize, 9)));
    const P<CBrickReader> reader = makeReader();

    Bytes dst;
    EXPECT_THROW(reader->read(5, dst), std::exception);
}

TEST_F(BrickReader, ThrowsReadFailureOtherThanAMissingFile)
{
    storeBrick("/disk", 5, testsupport::patternBytes(kBrickSize, 10));
    storeBrick("/parent", 5, testsupport::patternBytes(kBrickSize, 11));
    fs->failStreamReads(CURI("/disk"), CFileSystemError::AccessDenied);
    const P<CBrickReader> reader = makeReader();

    Bytes dst;
    try {
        reader->read(5, dst);
        FAIL() << "an unreadable brick file was passed over";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::AccessDenied);
    }
}

TEST_F(BrickReader, MovesOnToTheParentWhenTheFileTurnsOutMissing)
{
    const Bytes parentPlain = testsupport::patternBytes(kBrickSize, 12);
    storeBrick("/disk", 5, testsupport::patternBytes(kBrickSize, 13));
    storeBrick("/parent", 5, parentPlain);
    fs->failStreamReads(CURI("/disk"), CFileSystemError::NotFound);
    const P<CBrickReader> reader = makeReader();

    Bytes dst;
    EXPECT_EQ(reader->read(5, dst).depth, 1);
    EXPECT_TRUE(testsupport::sameBytes(dst, parentPlain));
}

TEST_F(BrickReader, ReadsFileOfOneDiskOfTheChain)
{
    const Bytes parentPlain = testsupport::patternBytes(kBrickSize, 14);
    storeBrick("/parent", 5, parentPlain);
    const P<CBrickReader> reader = makeReader();

    EXPECT_FALSE(reader->readFile(0, 5));
    const P<zo::CMemPoolBuffer> file = reader->readFile(1, 5);
    ASSERT_TRUE(file);
    EXPECT_TRUE(testsupport::sameBytes(*file, *fs->getFileData(fileOf("/parent", 5))));
    Bytes plain;
    reader->decode(5, *file, plain);
    EXPECT_TRUE(testsupport::sameBytes(plain, parentPlain));
    EXPECT_THROW(reader->readFile(3, 5), zo::CInvalidArgError);
    EXPECT_THROW(reader->readFile(-1, 5), zo::CInvalidArgError);
}

TEST_F(BrickReader, LocatingReadsNoFile)
{
    storeBrick("/grandparent", 5, testsupport::patternBytes(kBrickSize, 15));
    const P<CBrickReader> reader = makeReader();
    fs->resetCounters();

    EXPECT_EQ(reader->locate(5).depth, 2);
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);
}

// 300 bricks span two leaf folders of the tree (256 bricks each); the second
// exists only in the grandparent.
TEST_F(BrickReader, HoldFilesAgreesWithLocateListingEachSharedFolderOncePerDisk)
{
    for (const auto& [folder, index] : std::vector<std::pair<const char*, int64>>{
             {"/disk", 3}, {"/parent", 10}, {"/parent", 3}, {"/grandparent", 200}, {"/grandparent", 257}})
        storeBrick(folder, index, testsupport::patternBytes(kBrickSize, static_cast<unsigned>(index)));
    const P<CBrickReader> reader = makeReader();
    std::vector<int64> indexes;
    for (int64 index = 0; index < 300; ++index)
        indexes.push_back(index);
    fs->resetCounters();

    const std::vector<bool> held = reader->holdFiles(indexes);

    EXPECT_EQ(fs->getOperationCount(Op::ListFolder), 6);
    EXPECT_EQ(fs->getOperationCount(Op::FileExists), 0);
    ASSERT_EQ(held.size(), indexes.size());
    for (size_t i = 0; i < indexes.size(); ++i)
        EXPECT_EQ(held[i], !reader->locate(indexes[i]).isHole()) << "brick " << indexes[i];
    EXPECT_EQ(std::count(held.begin(), held.end(), true), 4);
}

TEST_F(BrickReader, HoldFilesAsksForBricksAloneInTheirFolder)
{
    storeBrick("/parent", 257, testsupport::patternBytes(kBrickSize, 1));
    const P<CBrickReader> reader = makeReader();
    fs->resetCounters();

    EXPECT_EQ(reader->holdFiles({5, 257}), (std::vector<bool>{false, true}));
    EXPECT_EQ(fs->getOperationCount(Op::ListFolder), 0);
    EXPECT_GT(fs->getOperationCount(Op::FileExists), 0);
}

// A writer of the parent stores a new brick there while the child is read:
// it first copies the parent's old file into the child. A read that took
// the parent's new file must notice the child's copy and read that instead.
class CParentWriterFileSystem : public zo::CForwardingFileSystem {
public:
    CParentWriterFileSystem(CMemoryFileSystem* inner, CURI parentFile, CURI childFile, Bytes newParentFile)
        : CForwardingFileSystem(inner), m_memory(inner), m_parentFile(std::move(parentFile)),
          m_childFile(std::move(childFile)), m_newParentFile(std::move(newParentFile))
    {}

    P<zo::IIOStream> openStream(const CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        if (!m_done && file.toString(true) == m_parentFile.toString(true)) {
            m_done = true;
            m_memory->setFileData(m_childFile, *m_memory->getFileData(m_parentFile));
            m_memory->setFileData(m_parentFile, m_newParentFile);
        }
        return CForwardingFileSystem::openStream(file, access, options);
    }

private:
    CMemoryFileSystem* m_memory;
    CURI m_parentFile;
    CURI m_childFile;
    Bytes m_newParentFile;
    bool m_done = false;
};

TEST_F(BrickReader, ReadsTheChildsCopyWhenTheParentIsRewrittenDuringTheRead)
{
    const Bytes oldPlain = testsupport::patternBytes(kBrickSize, 16);
    storeBrick("/parent", 5, oldPlain);
    const Bytes newFile = testsupport::prepareBrick(header, key, testsupport::patternBytes(kBrickSize, 17));
    const P<CParentWriterFileSystem> writing(
        new CParentWriterFileSystem(fs.get(), fileOf("/parent", 5), fileOf("/disk", 5), newFile));
    const P<CBrickReader> reader = makeReader(writing.get());

    Bytes dst;
    const CBrickReader::Found found = reader->read(5, dst);
    EXPECT_EQ(found.depth, 0);
    EXPECT_TRUE(testsupport::sameBytes(dst, oldPlain));
}

TEST_F(BrickReader, ReadsFromManyThreadsAtOnce)
{
    constexpr int kBricks = 24;
    constexpr int kThreads = 8;
    constexpr int kRounds = 20;
    std::vector<Bytes> plains;
    for (int index = 0; index < kBricks; ++index) {
        plains.push_back(testsupport::patternBytes(kBrickSize, 100 + static_cast<unsigned>(index)));
        // Spread over the chain, with every third brick a hole.
        if (index % 3 != 2)
            storeBrick(index % 2 == 0 ? "/disk" : "/grandparent", index, plains.back());
    }
    const P<CBrickReader> reader = makeReader();

    std::atomic<int> wrong{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Bytes dst;
            for (int round = 0; round < kRounds; ++round) {
                for (int i = 0; i < kBricks; ++i) {
                    const int index = (i + t * 5) % kBricks;
                    try {
                        const CBrickReader::Found found = reader->read(index, dst);
                        const bool hole = index % 3 == 2;
                        const Bytes& expected = hole ? testsupport::zeroBytes(kBrickSize) : plains[index];
                        if ((found.content == Content::Hole) != hole || !testsupport::sameBytes(dst, expected))
                            ++wrong;
                    } catch (const std::exception&) {
                        ++failed;
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(failed.load(), 0);
}

TEST_F(BrickReader, OpenDiskHandsOutTheReaderOfItsChain)
{
    testsupport::createDisk(fs.get(), CURI("/disks/parent"), 4 * kBrickSize, "secret");
    const Bytes parentPlain = testsupport::patternBytes(kBrickSize, 200);
    testsupport::writeAt(*testsupport::openDisk(fs.get(), CURI("/disks/parent"), "secret"), kBrickSize, parentPlain);
    brick::CBrickDisk::createChild(fs.get(), CURI("/disks/child"), CURI("/disks/parent"),
                                   brick::CBrickDisk::linkedChild);
    const P<brick::CBrickDisk> disk =
        testsupport::openDisk(fs.get(), CURI("/disks/child"), "secret", zo::IIOStream::AccessRead);

    const CBrickReader* reader = disk->getBrickReader();
    ASSERT_EQ(reader->getChainFolders().size(), 2u);
    EXPECT_EQ(reader->getDiskFolder().toString(true), disk->getDiskFolder().toString(true));
    EXPECT_EQ(reader->getChainFolders()[1].toString(true), disk->getParentDiskFolder().toString(true));
    EXPECT_EQ(reader->locate(1).depth, 1);
    EXPECT_TRUE(reader->locate(0).isHole());
    Bytes dst;
    EXPECT_EQ(reader->read(1, dst).content, Content::Data);
    EXPECT_TRUE(testsupport::sameBytes(dst, parentPlain));
}

} // namespace
