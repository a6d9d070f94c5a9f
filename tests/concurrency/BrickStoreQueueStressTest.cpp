#include "brick/chain/BrickStoreQueue.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickTree.h"

#include "support/BrickTestHelpers.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <vector>

namespace {

using brick::CBrickStoreQueue;
using testsupport::Bytes;
using zo::CURI;
using zo::int64;
using zo::P;

constexpr int kBrickSize = 4096;
constexpr int kBrickCount = 12;
constexpr int kMaxStores = 3;
constexpr int kWriterThreads = 4;
constexpr int kReaderThreads = 2;
constexpr int kStoresPerWriter = 150;
constexpr int kWaitMillis = 60000;

// Counts the asynchronous operations in flight, and the most ever seen at
// once. A storer has one operation in flight at a time, so this is at least
// the number of storers running.
class CountingFileSystem : public zo::CForwardingFileSystem {
public:
    explicit CountingFileSystem(zo::IFileSystem* inner) : zo::CForwardingFileSystem(inner) {}

    int getMostAtOnce() const { return m_mostAtOnce.load(); }

    P<zo::IFileSystemOp> beginStoreFile(const CURI& file, int size, zo::IInStream* source, bool overwrite,
                                        zo::IDoneListener* listener) override
    {
        const P<Counted> counted(new Counted(this, listener));
        return getInner()->beginStoreFile(file, size, source, overwrite, counted.get());
    }
    P<zo::IFileSystemOp> beginCreateFolder(const CURI& folder, int mode, zo::IDoneListener* listener) override
    {
        const P<Counted> counted(new Counted(this, listener));
        return getInner()->beginCreateFolder(folder, mode, counted.get());
    }
    P<zo::IFileSystemOp> beginDeleteFile(const CURI& file, zo::IDoneListener* listener) override
    {
        const P<Counted> counted(new Counted(this, listener));
        return getInner()->beginDeleteFile(file, counted.get());
    }

private:
    class Counted : public zo::CBase, public zo::IDoneListener {
    public:
        Counted(CountingFileSystem* fs, zo::IDoneListener* listener) : m_fs(fs), m_listener(listener)
        {
            const int now = ++m_fs->m_inFlight;
            int most = m_fs->m_mostAtOnce.load();
            while (now > most && !m_fs->m_mostAtOnce.compare_exchange_weak(most, now)) {
            }
        }
        void onDone(const zo::CError* error) override
        {
            --m_fs->m_inFlight;
            m_listener->onDone(error);
        }

    private:
        P<CountingFileSystem> m_fs;
        P<zo::IDoneListener> m_listener;
    };

    std::atomic<int> m_inFlight{0};
    std::atomic<int> m_mostAtOnce{0};
};

// The plain bytes of version `version` of brick `index`: the index and the
// version in the first 16 bytes, then a pattern.
Bytes versionBytes(int64 index, int64 version)
{
    Bytes bytes = testsupport::patternBytes(kBrickSize, static_cast<unsigned>(index * 7919 + version));
    std::memcpy(bytes.getData(), &index, sizeof(index));
    std::memcpy(bytes.getData() + sizeof(index), &version, sizeof(version));
    return bytes;
}

int64 versionOf(const Bytes& plain, int64 expectedIndex)
{
    int64 index = -1;
    int64 version = -1;
    std::memcpy(&index, plain.getData(), sizeof(index));
    std::memcpy(&version, plain.getData() + sizeof(index), sizeof(version));
    return index == expectedIndex ? version : -1;
}

TEST(BrickStoreQueueStress, ManyThreadsStoreAndReadOneQueueAndTheLastBytesOfEachBrickLand)
{
    const P<zo::CMemoryFileSystem> memory(new zo::CMemoryFileSystem(3));
    memory->setCompletionDelay(0, 2);
    memory->createFolder(CURI("/disk"), 0x1ff);
    const P<CountingFileSystem> fs(new CountingFileSystem(memory.get()));
    const brick::CBrickDiskHeader header = testsupport::makeBrickHeader(kBrickSize, 3, 16);
    const testsupport::Key key = testsupport::makeBrickKey("aes256cbc");
    const P<CBrickStoreQueue> queue = testsupport::makeQueueOver(fs.get(), header, key, kMaxStores);

    // Per brick: the newest version handed over; the lock is held across the
    // hand-over so that the versions are handed over in increasing order.
    std::array<std::mutex, kBrickCount> brickLocks;
    std::array<std::atomic<int64>, kBrickCount> latest{};
    std::atomic<int64> nextVersion{1};
    std::atomic<bool> writing{true};
    std::atomic<int> badReads{0};
    std::atomic<int> reads{0};

    const auto writer = [&](unsigned seed) {
        std::mt19937 random(seed);
        const P<brick::CBrickDataPreparer> preparer(new brick::CBrickDataPreparer(header, key));
        for (int i = 0; i < kStoresPerWriter; ++i) {
            const int64 index = std::uniform_int_distribution<int64>(0, kBrickCount - 1)(random);
            const bool zero = random() % 8 == 0;
            std::lock_guard lock(brickLocks[static_cast<size_t>(index)]);
            const int64 version = zero ? 0 : nextVersion++;
            P<Bytes> prepared;
            if (!zero) {
                prepared = P<Bytes>(new Bytes());
                preparer->prepareData(versionBytes(index, version), *prepared, index);
            }
            queue->store(index, prepared.get(), nullptr);
            latest[static_cast<size_t>(index)] = version;
            if (random() % 16 == 0) {
                EXPECT_TRUE(queue->waitForStoresOf(index, kWaitMillis));
            }
        }
    };
    // Whatever a read finds in flight is a version of that brick no newer
    // than the newest handed over.
    const auto reader = [&](unsigned seed) {
        std::mt19937 random(seed);
        const P<brick::CBrickDataPreparer> preparer(new brick::CBrickDataPreparer(header, key));
        while (writing.load()) {
            const int64 index = std::uniform_int_distribution<int64>(0, kBrickCount - 1)(random);
            const std::optional<CBrickStoreQueue::Store> store = queue->getStoreOf(index);
            if (!store)
                continue;
            ++reads;
            if (store->failed) {
                ++badReads;
                continue;
            }
            if (!store->prepared) {
                if (!store->allZero)
                    ++badReads;
                continue;
            }
            Bytes plain;
            preparer->unprepareData(*store->prepared, plain, index);
            const int64 version = versionOf(plain, index);
            if (version < 1 || version >= nextVersion.load())
                ++badReads;
        }
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < kReaderThreads; ++t)
        threads.emplace_back(reader, 100u + static_cast<unsigned>(t));
    std::vector<std::thread> writers;
    for (int t = 0; t < kWriterThreads; ++t)
        writers.emplace_back(writer, 1u + static_cast<unsigned>(t));
    for (std::thread& thread : writers)
        thread.join();
    writing = false;
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    EXPECT_EQ(badReads.load(), 0) << "of " << reads.load() << " reads";
    EXPECT_LE(fs->getMostAtOnce(), kMaxStores);
    EXPECT_TRUE(queue->getFailures().empty());
    EXPECT_EQ(queue->getStoresInFlight(), 0);
    for (int64 index = 0; index < kBrickCount; ++index) {
        const P<Bytes> file =
            memory->getFileData(CURI("/disk") << brick::CBrickTree::getRelativeBrickURI(header, index));
        const int64 expected = latest[static_cast<size_t>(index)].load();
        if (expected == 0) {
            EXPECT_EQ(file, nullptr) << "brick " << index << " ended all zero";
            continue;
        }
        ASSERT_NE(file, nullptr) << "brick " << index;
        EXPECT_EQ(versionOf(testsupport::unprepareBrick(header, key, *file), index), expected) << "brick " << index;
    }
}

} // namespace
