#include "brick/chain/BrickStoreQueue.h"

#include "support/BrickTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickStoreQueue;
using brick::CBrickStorer;
using testsupport::brickFile;
using testsupport::Bytes;
using testsupport::SteppedFileSystem;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBrickSize = 4096;
constexpr int kWaitMillis = 10000;

// Notes, in order, the bytes each listener's store carried when it ended.
class OrderListener : public zo::CBase, public zo::IDoneListener {
public:
    OrderListener(std::mutex& mutex, std::vector<int>& order, int tag) : m_mutex(mutex), m_order(order), m_tag(tag) {}
    void onDone(const zo::CError*) override
    {
        std::lock_guard lock(m_mutex);
        m_order.push_back(m_tag);
    }

private:
    std::mutex& m_mutex;
    std::vector<int>& m_order;
    int m_tag;
};

class BrickStoreQueueTest : public ::testing::Test {
protected:
    BrickStoreQueueTest()
        : fs(new CMemoryFileSystem(2)), header(testsupport::makeBrickHeader(kBrickSize)),
          key(testsupport::makeBrickKey("aes256cbc"))
    {
        for (const char* folder : {"/disk", "/parent", "/child"})
            fs->createFolder(CURI(folder), 0x1ff);
        fs->resetCounters();
    }

    P<CBrickStoreQueue> makeQueue(int maxStores, zo::IFileSystem* target = nullptr, const char* child = "",
                                  std::vector<const char*> parents = {})
    {
        return testsupport::makeQueueOver(target ? target : fs.get(), header, key, maxStores, "/disk", child, parents);
    }

    P<Bytes> prepared(unsigned seed) { return preparedOf(testsupport::patternBytes(kBrickSize, seed)); }
    P<Bytes> preparedOf(const Bytes& plain)
    {
        return testsupport::countedCopy(testsupport::prepareBrick(header, key, plain));
    }
    Bytes plainOfFile(const std::string& file)
    {
        const P<Bytes> data = fs->getFileData(CURI(file.c_str()));
        return data ? testsupport::unprepareBrick(header, key, *data) : Bytes();
    }
    bool fileExists(const std::string& file) { return fs->getFileData(CURI(file.c_str())) != nullptr; }
    // Delivers held completions until the queue has no store left.
    void deliverAll(SteppedFileSystem& stepped, CBrickStoreQueue& queue)
    {
        while (!queue.waitForAll(0)) {
            if (stepped.waitForHeld(50))
                stepped.deliverNext();
        }
    }

    P<CMemoryFileSystem> fs;
    brick::CBrickDiskHeader header;
    testsupport::Key key;
};

TEST_F(BrickStoreQueueTest, StoresOfOneBrickEndInOrder)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrickStoreQueue> queue = makeQueue(4, stepped.get());
    fs->createFolder(CURI("/disk/bricks/b000/a000"), 0x1ff);
    const Bytes first = testsupport::patternBytes(kBrickSize, 1);
    const Bytes second = testsupport::patternBytes(kBrickSize, 2);
    std::mutex mutex;
    std::vector<int> order;
    const P<OrderListener> firstListener(new OrderListener(mutex, order, 1));
    const P<OrderListener> secondListener(new OrderListener(mutex, order, 2));

    queue->store(5, preparedOf(first).get(), firstListener.get());
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    // The second store of the brick waits for the first, on another thread.
    std::thread later([&] { queue->store(5, preparedOf(second).get(), secondListener.get()); });
    for (int i = 0; i < kWaitMillis && queue->getStoresInFlight() < 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(queue->getStoresInFlight(), 2);
    EXPECT_EQ(stepped->getHeldCount(), 1) << "the second store started before the first ended";
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 1);

    ASSERT_TRUE(stepped->deliverNext());
    later.join();
    deliverAll(*stepped, *queue);

    EXPECT_EQ(order, std::vector<int>({1, 2}));
    EXPECT_TRUE(testsupport::sameBytes(plainOfFile(brickFile("/disk", 5)), second));
    EXPECT_FALSE(queue->hasFailures());
}

TEST_F(BrickStoreQueueTest, ServesReadsFromAStoreInFlight)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrickStoreQueue> queue = makeQueue(4, stepped.get());
    const P<Bytes> bytes = prepared(3);
    EXPECT_FALSE(queue->getStoreOf(7).has_value());

    queue->store(7, bytes.get(), nullptr);
    queue->store(8, nullptr, nullptr);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));

    const auto store = queue->getStoreOf(7);
    ASSERT_TRUE(store.has_value());
    EXPECT_EQ(store->prepared.get(), bytes.get());
    EXPECT_FALSE(store->allZero);
    EXPECT_FALSE(store->failed);
    const auto zero = queue->getStoreOf(8);
    ASSERT_TRUE(zero.has_value());
    EXPECT_EQ(zero->prepared, nullptr);
    EXPECT_TRUE(zero->allZero);

    deliverAll(*stepped, *queue);
    EXPECT_FALSE(queue->getStoreOf(7).has_value());
    EXPECT_FALSE(queue->getStoreOf(8).has_value());
}

TEST_F(BrickStoreQueueTest, NeverRunsMoreThanTheLimit)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrickStoreQueue> queue = makeQueue(2, stepped.get());
    fs->createFolder(CURI("/disk/bricks/b000/a000"), 0x1ff);
    queue->store(0, prepared(4).get(), nullptr);
    queue->store(1, prepared(5).get(), nullptr);
    EXPECT_FALSE(queue->waitForFreeSlot(0));

    std::atomic<bool> thirdHandedOver{false};
    std::thread third([&] {
        queue->store(2, prepared(6).get(), nullptr);
        thirdHandedOver = true;
    });
    // Two completions held: the third store must not have started.
    while (stepped->getHeldCount() < 2)
        ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));
    EXPECT_FALSE(thirdHandedOver.load());
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 2);

    ASSERT_TRUE(stepped->deliverNext());
    third.join();
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 3);
    deliverAll(*stepped, *queue);
    EXPECT_TRUE(queue->waitForFreeSlot(0));
    EXPECT_EQ(queue->getStoresInFlight(), 0);
    for (int64 index = 0; index < 3; ++index)
        EXPECT_TRUE(fileExists(brickFile("/disk", index))) << index;
}

TEST_F(BrickStoreQueueTest, WaitsForTheStoresOfOneBrickOnly)
{
    const P<SteppedFileSystem> stepped(new SteppedFileSystem(fs.get(), true));
    const P<CBrickStoreQueue> queue = makeQueue(4, stepped.get());
    EXPECT_TRUE(queue->waitForStoresOf(3, 0));
    queue->store(3, prepared(7).get(), nullptr);
    ASSERT_TRUE(stepped->waitForHeld(kWaitMillis));

    EXPECT_FALSE(queue->waitForStoresOf(3, 0));
    EXPECT_FALSE(queue->waitForStoresOf(3, 20));
    EXPECT_TRUE(queue->waitForStoresOf(4, 0));
    EXPECT_FALSE(queue->waitForAll(0));

    deliverAll(*stepped, *queue);
    EXPECT_TRUE(queue->waitForStoresOf(3, 0));
}

TEST_F(BrickStoreQueueTest, KeepsFailedStoreUntilStoredAgain)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false);
    testsupport::LogCapture log;
    const P<CBrickStoreQueue> queue = makeQueue(4);
    const P<Bytes> failing = prepared(8);

    queue->store(4, failing.get(), nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    const std::vector<CBrickStoreQueue::Failure> failures = queue->getFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures.front().brickIndex, 4);
    EXPECT_EQ(CFileSystemError::getProblem(failures.front().error->getProps()), CFileSystemError::NoSpace);
    ASSERT_EQ(queue->getUnstoredBricks().size(), 1u);
    EXPECT_EQ(queue->getUnstoredBricks().front().brickIndex, 4);
    const auto kept = queue->getStoreOf(4);
    ASSERT_TRUE(kept.has_value());
    EXPECT_TRUE(kept->failed);
    EXPECT_EQ(kept->prepared.get(), failing.get());
    EXPECT_EQ(log.countContaining("Error during background brick storing operation."), 1);

    const Bytes second = testsupport::patternBytes(kBrickSize, 9);
    queue->store(4, preparedOf(second).get(), nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    EXPECT_TRUE(queue->getUnstoredBricks().empty());
    EXPECT_FALSE(queue->getStoreOf(4).has_value());
    EXPECT_EQ(queue->getFailures().size(), 1u) << "the failures so far are never cleared";
    EXPECT_TRUE(testsupport::sameBytes(plainOfFile(brickFile("/disk", 4)), second));
}

TEST_F(BrickStoreQueueTest, StoreThatCannotStartIsRecordedAndThrown)
{
    const P<SteppedFileSystem> refusing(new SteppedFileSystem(fs.get(), false));
    refusing->throwOnStart(Op::StoreFile, 1, CFileSystemError::AccessDenied);
    testsupport::LogCapture log;
    const P<CBrickStoreQueue> queue = makeQueue(1, refusing.get());
    const P<testsupport::CountingListener> listener(new testsupport::CountingListener());

    EXPECT_THROW(queue->store(2, prepared(10).get(), listener.get()), zo::CError);

    EXPECT_EQ(queue->getStoresInFlight(), 0);
    EXPECT_TRUE(queue->waitForFreeSlot(0)) << "the slot was given back";
    ASSERT_EQ(queue->getUnstoredBricks().size(), 1u);
    EXPECT_EQ(queue->getFailures().front().brickIndex, 2);
    EXPECT_EQ(listener->getCallCount(), 0);
    EXPECT_EQ(log.countContaining("Error initiating background brick storing operation."), 1);
}

TEST_F(BrickStoreQueueTest, StoresNothingWhenTheDiskAlreadyHoldsTheBrick)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false);
    const P<CBrickStoreQueue> queue = makeQueue(4);
    queue->store(6, prepared(11).get(), nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));
    ASSERT_EQ(queue->getUnstoredBricks().size(), 1u);
    fs->resetCounters();

    const P<CBrickStorer> storer = queue->store(6, prepared(11).get(), nullptr, [] { return true; });

    EXPECT_EQ(storer, nullptr);
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 0);
    EXPECT_TRUE(queue->getUnstoredBricks().empty()) << "the brick counts as stored";
}

TEST_F(BrickStoreQueueTest, StoresAnAllZeroBrickAsNoFileWithoutParents)
{
    const P<CBrickStoreQueue> queue = makeQueue(4);
    queue->store(1, prepared(12).get(), nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));
    ASSERT_TRUE(fileExists(brickFile("/disk", 1)));

    queue->store(1, nullptr, nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    EXPECT_FALSE(fileExists(brickFile("/disk", 1)));
    EXPECT_FALSE(queue->hasFailures());
}

TEST_F(BrickStoreQueueTest, StoresAnAllZeroBrickAsAFileWhereAParentWouldShowThrough)
{
    const P<CBrickStoreQueue> queue = makeQueue(4, nullptr, "", {"/parent"});

    queue->store(1, nullptr, nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    EXPECT_TRUE(testsupport::sameBytes(plainOfFile(brickFile("/disk", 1)), testsupport::zeroBytes(kBrickSize)));
    EXPECT_FALSE(queue->hasFailures());
}

TEST_F(BrickStoreQueueTest, CopiesOldBrickIntoChildFirst)
{
    const Bytes old = testsupport::patternBytes(kBrickSize, 13);
    fs->setFileData(CURI(brickFile("/disk", 2).c_str()), testsupport::prepareBrick(header, key, old));
    const P<CBrickStoreQueue> queue = makeQueue(4, nullptr, "/child");
    const Bytes updated = testsupport::patternBytes(kBrickSize, 14);
    fs->resetCounters();

    queue->store(2, preparedOf(updated).get(), nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    EXPECT_TRUE(testsupport::sameBytes(plainOfFile(brickFile("/child", 2)), old));
    EXPECT_TRUE(testsupport::sameBytes(plainOfFile(brickFile("/disk", 2)), updated));
    const std::vector<std::string> log = testsupport::toStrings(fs->getOperationLog());
    std::vector<std::string> asyncOps;
    for (const std::string& line : log) {
        if (line.rfind("copyFile", 0) == 0 || line.rfind("storeFile", 0) == 0)
            asyncOps.push_back(line.substr(0, line.find(' ')));
    }
    // The copy (again, once the child's brick folders exist) before the one store.
    ASSERT_FALSE(asyncOps.empty());
    EXPECT_EQ(asyncOps.front(), "copyFile");
    EXPECT_EQ(asyncOps.back(), "storeFile");
    EXPECT_EQ(std::count(asyncOps.begin(), asyncOps.end(), "storeFile"), 1);
}

TEST_F(BrickStoreQueueTest, CopiesTheParentsBrickIntoTheChildWhereThisDiskHasNone)
{
    const Bytes parents = testsupport::patternBytes(kBrickSize, 15);
    fs->setFileData(CURI(brickFile("/parent", 3).c_str()), testsupport::prepareBrick(header, key, parents));
    const P<CBrickStoreQueue> queue = makeQueue(4, nullptr, "/child", {"/parent"});

    queue->store(3, prepared(16).get(), nullptr);
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    EXPECT_TRUE(testsupport::sameBytes(plainOfFile(brickFile("/child", 3)), parents));
    EXPECT_TRUE(testsupport::sameBytes(plainOfFile(brickFile("/disk", 3)), testsupport::patternBytes(kBrickSize, 16)));
    EXPECT_FALSE(queue->hasFailures());
}

TEST_F(BrickStoreQueueTest, WaitForAllWaitsForTheListeners)
{
    const P<CBrickStoreQueue> queue = makeQueue(4);
    fs->setCompletionDelay(20, 20);
    std::atomic<bool> listenerReturned{false};
    class SlowListener : public zo::CBase, public zo::IDoneListener {
    public:
        explicit SlowListener(std::atomic<bool>& returned) : m_returned(returned) {}
        void onDone(const zo::CError*) override
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            m_returned = true;
        }

    private:
        std::atomic<bool>& m_returned;
    };
    const P<SlowListener> listener(new SlowListener(listenerReturned));

    queue->store(0, prepared(17).get(), listener.get());
    ASSERT_TRUE(queue->waitForAll(kWaitMillis));

    EXPECT_TRUE(listenerReturned.load());
}

} // namespace
