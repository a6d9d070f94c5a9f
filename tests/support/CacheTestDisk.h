// What the tests of the brick cache share: a disk in a memory store, the
// names of its brick files, bytes to store as them, a fixture with a cache
// in front of that store, the cache's calls on brick files chosen for a
// HeldFileSystem in front of the store, and a cache file system that holds
// the writes of chosen files.
#pragma once

#include "brick/cache/CachedStore.h"
#include "support/BrickTestHelpers.h"
#include "support/DiskTestHelpers.h"
#include "support/HeldFileSystem.h"
#include "zo/BufferStream.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"
#include "zo/URI.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace testsupport::cachetest {

inline const zo::CURI kDisk("mem://store/disk");
inline const zo::CURI kBricks("mem://store/disk/bricks");

// The file of brick `index` in the disk's first leaf folder.
inline zo::CURI brickFile(int index)
{
    return kDisk << "bricks"
                 << "a00" << zo::String(std::to_string(index) + ".brick");
}

// `size` bytes of `value`.
inline Bytes filled(int size, zo::uint8 value)
{
    Bytes bytes(size);
    std::memset(bytes.getData(), value, static_cast<size_t>(size));
    return bytes;
}

inline std::string text(const Bytes& bytes)
{
    return std::string(reinterpret_cast<const char*>(bytes.getData()), static_cast<size_t>(bytes.getUsed()));
}

inline std::string text(const zo::P<zo::TBuffer<zo::uint8>>& bytes)
{
    return bytes ? text(*bytes) : std::string("<none>");
}

// Stores `bytes` as `file` and waits for the store.
inline void write(zo::IFileSystem& fs, const zo::CURI& file, const Bytes& bytes)
{
    const zo::P<zo::IInStream> source(new zo::CBufferStream(&bytes));
    fs.beginStoreFile(file, bytes.getUsed(), source.get(), true, nullptr)->wait();
}

inline std::string read(zo::IFileSystem& fs, const zo::CURI& file)
{
    const zo::P<zo::IIOStream> stream = fs.openStream(file, zo::IIOStream::AccessRead, 0);
    Bytes bytes(static_cast<int>(stream->getLength()));
    stream->read(bytes.getData(), bytes.getUsed());
    return text(bytes);
}

// Waits until `done` holds, failing the test after a minute (a hang, not a
// slow machine).
template <class Done>
void waitUntil(Done&& done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done()) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "The awaited state never came.";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// The disk in a memory store, a memory file system for the cache folder
// "/cache", and settings with two uploaders that retry at once.
class CachedStoreFixture : public ::testing::Test {
protected:
    CachedStoreFixture()
    {
        createDisk(store.get(), kDisk, 1 << 20, "secret");
        settings.folder = zo::CURI("/cache");
        settings.uploadJobs = 2;
        settings.retryDelayMillis = 1;
    }

    zo::P<brick::CCachedStore> open(const zo::CURI& disk = kDisk)
    {
        return zo::P<brick::CCachedStore>(new brick::CCachedStore(store.get(), disk, cacheFs.get(), settings));
    }

    // Drains, tolerating failures of uploads that were under way before the
    // store recovered.
    static void drainEventually(brick::CCachedStore& cache)
    {
        for (int attempt = 0;; ++attempt) {
            try {
                cache.drain();
                return;
            } catch (const zo::CError&) {
                if (attempt > 100)
                    throw;
            }
        }
    }

    zo::P<zo::CMemoryFileSystem> store{new zo::CMemoryFileSystem()};
    zo::P<zo::CMemoryFileSystem> cacheFs{new zo::CMemoryFileSystem()};
    brick::CacheSettings settings;
};

// Chooses, for a HeldFileSystem in front of the store, the calls of `call`
// on brick files: a fetch of the cache reads one, an upload stores or
// deletes one.
inline HeldFileSystem::Choice brickFileCalls(HeldFileSystem::Call call)
{
    return [call](HeldFileSystem::Call made, const zo::CURI& path) {
        return made == call && brick::CCachedStore::isBrickFile(path);
    };
}

// A cache file system whose first write of each chosen file (a store, or an
// opening for writing) waits, on the thread that made it, until the test
// lets it go; every other call passes through, and once let go every write
// does. Files are chosen by name ("1.brick"), wherever they lie. Any thread
// may call it.
class HeldCacheWrites : public zo::CForwardingFileSystem {
public:
    explicit HeldCacheWrites(zo::IFileSystem* inner) : CForwardingFileSystem(inner) {}

    // From now on, the first write of a file named `name` waits until letGo.
    void holdFirstWriteOf(const std::string& name)
    {
        std::lock_guard lock(m_mutex);
        m_chosen.insert(name);
    }
    // Waits until `count` writes are held at once.
    void waitForHeld(int count)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_holding >= count; });
    }
    // Lets the held writes go, and every later one.
    void letGo()
    {
        std::lock_guard lock(m_mutex);
        m_letGo = true;
        m_changed.notify_all();
    }

    zo::P<zo::IIOStream> openStream(const zo::CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        if (access != zo::IIOStream::AccessRead)
            holdIfChosen(file);
        return CForwardingFileSystem::openStream(file, access, options);
    }
    zo::P<zo::IFileSystemOp> beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source, bool overwrite,
                                            zo::IDoneListener* listener) override
    {
        holdIfChosen(file);
        return CForwardingFileSystem::beginStoreFile(file, size, source, overwrite, listener);
    }

private:
    void holdIfChosen(const zo::CURI& file)
    {
        std::unique_lock lock(m_mutex);
        // Only the first write of a chosen name is held.
        if (m_chosen.erase(file.getName().toUTF8()) == 0)
            return;
        ++m_holding;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_letGo; });
        --m_holding;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    std::set<std::string> m_chosen;
    int m_holding = 0;
    bool m_letGo = false;
};

} // namespace testsupport::cachetest
