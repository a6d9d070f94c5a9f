#include "brick/streams/BrickDiskStreamWithParallelReadAhead.h"

#include "support/BrickTestHelpers.h"
#include "support/DiskStreamTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskStreamWithParallelReadAhead;
using testsupport::Bytes;
using zo::CError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBrickSize = 4096;
constexpr std::chrono::seconds kPatience(20);
const CURI kFolder("/disk");

class ParallelReadAheadStreamTest : public ::testing::Test {
protected:
    ParallelReadAheadStreamTest() : fs(new CMemoryFileSystem(2)) {}

    // A disk of `brickCount` whole bricks and `tailBytes` more, filled with
    // known bytes and opened for reading.
    void makeDisk(int brickCount, int tailBytes)
    {
        diskSize = static_cast<int64>(brickCount) * kBrickSize + tailBytes;
        testsupport::createStreamTestDisk(fs.get(), kFolder, diskSize, kBrickSize, 8,
                                          diskSize > 0 ? &content : nullptr);
        disk = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
    }

    P<CBrickDiskStreamWithParallelReadAhead> openStream(int threadCount)
    {
        return P<CBrickDiskStreamWithParallelReadAhead>(
            new CBrickDiskStreamWithParallelReadAhead(disk.get(), threadCount));
    }

    int brickLoads() const { return fs->getOperationCount(Op::OpenStream); }

    P<CBrickDiskStreamWithParallelReadAhead> openStream(int threadCount, int bricksAhead)
    {
        return P<CBrickDiskStreamWithParallelReadAhead>(
            new CBrickDiskStreamWithParallelReadAhead(disk.get(), threadCount, bricksAhead));
    }

    // Makes a disk, opens a stream on it with `open` and checks that exactly
    // `expectedAhead` bricks are read ahead, and one more once the reader
    // takes brick 0.
    void expectBricksReadAhead(int expectedAhead,
                               const std::function<P<CBrickDiskStreamWithParallelReadAhead>()>& open);

    // Waits until the read threads have opened `count` brick files in all.
    bool waitForBrickLoads(int count) const
    {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (brickLoads() < count) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    Bytes expected(int64 offset, int64 count) const { return testsupport::sliceOf(content, offset, count); }

    P<CMemoryFileSystem> fs;
    int64 diskSize = 0;
    Bytes content;
    P<CBrickDisk> disk;
};

// Runs `operation` on a thread of its own and tells whether it returned
// within the patience. A call that hangs is left behind on its thread.
bool returnsInTime(std::function<void()> operation)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    std::thread([operation = std::move(operation), done] {
        operation();
        done->set_value();
    }).detach();
    return finished.wait_for(kPatience) == std::future_status::ready;
}

class ParallelReadAheadStreamThreadCountTest : public ParallelReadAheadStreamTest,
                                               public ::testing::WithParamInterface<int> {};

TEST_P(ParallelReadAheadStreamThreadCountTest, RandomSeeksAndReadsGiveTheDiskBytes)
{
    makeDisk(40, 777);
    const auto stream = openStream(GetParam());
    std::mt19937 random(static_cast<unsigned>(GetParam()));
    std::vector<zo::uint8> piece(3 * kBrickSize);
    for (int step = 0; step < 400; ++step) {
        if (random() % 4 == 0)
            stream->seek(std::uniform_int_distribution<int64>(0, diskSize)(random));
        const int64 position = stream->getPosition();
        const int wanted = std::uniform_int_distribution<int>(1, 3 * kBrickSize)(random);
        const int got = stream->readLax(piece.data(), wanted);
        const int64 expectedCount = std::min<int64>(wanted, diskSize - position);
        ASSERT_EQ(got, expectedCount) << "step " << step;
        ASSERT_TRUE(testsupport::sameBytes(Bytes(piece.data(), got), expected(position, got))) << "step " << step;
        ASSERT_EQ(stream->getPosition(), position + got);
    }
}

TEST_P(ParallelReadAheadStreamThreadCountTest, ReadingFrontToBackGivesTheDiskBytes)
{
    makeDisk(30, 1000);
    const auto stream = openStream(GetParam());
    std::mt19937 random(static_cast<unsigned>(GetParam()) + 100);
    EXPECT_TRUE(
        testsupport::sameBytes(testsupport::readToEndInRandomPieces(*stream, random, 2 * kBrickSize + 7), content));
}

void ParallelReadAheadStreamTest::expectBricksReadAhead(
    int expectedAhead, const std::function<P<CBrickDiskStreamWithParallelReadAhead>()>& open)
{
    makeDisk(expectedAhead + 6, 0);
    const int before = brickLoads();
    const auto stream = open();
    ASSERT_TRUE(waitForBrickLoads(before + expectedAhead));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(brickLoads(), before + expectedAhead);

    // Taking brick 0 frees one slot: one more brick is read ahead, no more.
    char byte = 0;
    stream->read(&byte, 1);
    ASSERT_TRUE(waitForBrickLoads(before + expectedAhead + 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(brickLoads(), before + expectedAhead + 1);
}

TEST_P(ParallelReadAheadStreamThreadCountTest, ReadsAheadNoMoreBricksThanThreadsByDefault)
{
    const int threads = GetParam();
    expectBricksReadAhead(threads, [&] { return openStream(threads); });
}

TEST_P(ParallelReadAheadStreamThreadCountTest, ReadsAheadNoMoreBricksThanAsked)
{
    const int threads = GetParam();
    expectBricksReadAhead(4 * threads, [&] { return openStream(threads, 4 * threads); });
}

TEST_P(ParallelReadAheadStreamThreadCountTest, ReadsAheadAtLeastOneBrickPerThread)
{
    const int threads = GetParam();
    expectBricksReadAhead(threads, [&] { return openStream(threads, 1); });
}

INSTANTIATE_TEST_SUITE_P(Threads, ParallelReadAheadStreamThreadCountTest, ::testing::Values(1, 2, 8));

TEST_F(ParallelReadAheadStreamTest, ClosingWhileThreadsWaitForSlotsEndsThemPromptly)
{
    makeDisk(12, 0);
    const int fsReferences = fs->getRefCount();
    const int before = brickLoads();
    // Four threads, four slots: once four bricks are loaded every thread
    // waits for a slot.
    const auto stream = openStream(4);
    ASSERT_TRUE(waitForBrickLoads(before + 4));
    ASSERT_TRUE(returnsInTime([stream] { stream->close(); }));
    EXPECT_EQ(fs->getRefCount(), fsReferences);
}

TEST_F(ParallelReadAheadStreamTest, ClosingWhileThreadsWaitForWorkEndsThemPromptly)
{
    makeDisk(2, 100);
    const int fsReferences = fs->getRefCount();
    const auto stream = openStream(8);
    Bytes got(static_cast<int>(diskSize));
    stream->read(got.getData(), got.getUsed());
    EXPECT_TRUE(testsupport::sameBytes(got, content));
    // Every brick is taken: all eight threads now wait for an index.
    ASSERT_TRUE(returnsInTime([stream] { stream->close(); }));
    EXPECT_EQ(fs->getRefCount(), fsReferences);
}

TEST_F(ParallelReadAheadStreamTest, DestroyingAStreamInTheMiddleOfTheDiskEndsItsThreads)
{
    makeDisk(20, 0);
    const int fsReferences = fs->getRefCount();
    auto stream = openStream(4);
    Bytes got(3 * kBrickSize + 5);
    stream->read(got.getData(), got.getUsed());
    ASSERT_TRUE(returnsInTime([stream = std::move(stream)]() mutable { stream = nullptr; }));
    EXPECT_EQ(fs->getRefCount(), fsReferences);
}

TEST_F(ParallelReadAheadStreamTest, ADamagedBrickFailsOnlyWhenTheReaderReachesIt)
{
    makeDisk(12, 300);
    testsupport::LogCapture log;
    testsupport::damageFile(*fs, testsupport::brickFileOf(*disk, 5));
    std::string diskMessage;
    const std::type_info* diskErrorType = nullptr;
    try {
        disk->seek(5 * kBrickSize);
        char byte = 0;
        disk->read(&byte, 1);
    } catch (const CError& e) {
        diskMessage = e.getMessage().toUTF8();
        diskErrorType = &typeid(e);
    }
    ASSERT_FALSE(diskMessage.empty());

    const auto stream = openStream(3);
    Bytes got(5 * kBrickSize);
    EXPECT_EQ(stream->readLax(got.getData(), got.getUsed()), got.getUsed());
    EXPECT_TRUE(testsupport::sameBytes(got, expected(0, 5 * kBrickSize)));
    try {
        stream->readLax(got.getData(), 10);
        FAIL() << "no error thrown";
    } catch (const CError& e) {
        EXPECT_EQ(e.getMessage().toUTF8(), diskMessage);
        EXPECT_EQ(typeid(e), *diskErrorType);
    }
    EXPECT_EQ(stream->getPosition(), 5 * kBrickSize);
    EXPECT_GE(log.countContaining("brickIndex:5). Letting through."), 1);
}

TEST_F(ParallelReadAheadStreamTest, AFailedBrickIsReadAgainWhenTheReaderAsksAgain)
{
    makeDisk(12, 300);
    testsupport::LogCapture log;
    const CURI brickFile = testsupport::brickFileOf(*disk, 5);
    const P<Bytes> good = fs->getFileData(brickFile);
    testsupport::damageFile(*fs, brickFile);

    const auto stream = openStream(2);
    stream->seek(5 * kBrickSize + 10);
    Bytes got(100);
    EXPECT_THROW(stream->readLax(got.getData(), 100), CError);
    fs->setFileData(brickFile, *good);
    EXPECT_EQ(stream->readLax(got.getData(), 100), 100);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(5 * kBrickSize + 10, 100)));

    std::mt19937 random(3);
    const Bytes rest = testsupport::readToEndInRandomPieces(*stream, random, kBrickSize);
    EXPECT_TRUE(testsupport::sameBytes(rest, expected(5 * kBrickSize + 110, diskSize - 5 * kBrickSize - 110)));
}

TEST_F(ParallelReadAheadStreamTest, SeveralStreamsOverOneDiskReadAtOnce)
{
    makeDisk(25, 2000);
    std::vector<P<CBrickDiskStreamWithParallelReadAhead>> streams;
    for (int threads : {1, 2, 3})
        streams.push_back(openStream(threads));
    std::vector<Bytes> results(streams.size());
    std::vector<std::thread> readers;
    for (size_t i = 0; i < streams.size(); ++i)
        readers.emplace_back([&, i] {
            std::mt19937 random(static_cast<unsigned>(i));
            results[i] = testsupport::readToEndInRandomPieces(*streams[i], random, 5000);
        });
    for (std::thread& reader : readers)
        reader.join();
    for (const Bytes& result : results)
        EXPECT_TRUE(testsupport::sameBytes(result, content));
}

} // namespace
