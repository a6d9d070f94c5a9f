// What the tests of the brick cache share: a disk in a memory store, the
// names of its brick files, bytes to store as them, a fixture with a cache
// in front of that store, and the cache's calls on brick files chosen for a
// HeldFileSystem in front of the store.
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
#include <cstring>
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

} // namespace testsupport::cachetest
