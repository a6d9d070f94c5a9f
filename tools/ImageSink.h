// CImageSink: where an export writes a disk's bytes. A regular file is
// written as a temporary file beside it, with holes where the disk reads
// zeros (it seeks over them and sets the file's size at the end), and only
// renamed over the target once complete and durable: an interrupted export
// leaves the old file as it was and no partial image. Standard output and
// other kinds of file (a pipe, a block device) get every byte in place, in
// order.
//
// The temporary file is written with direct I/O (O_DIRECT) where its file
// system allows it: the bytes go from the chunks to the device without a copy
// into the page cache, which saves processor time (on virtual machines whose
// host backs memory at first use, most of a second per GiB) and leaves the
// cache to other programs. A write that direct I/O cannot take (the short
// last chunk, a file system that refuses it) goes through the cache instead.
//
// The writing happens on a thread of the sink's own, so that the caller goes
// on reading the disk while the output takes the bytes. The caller's calls
// come from one thread.
#pragma once

#include "zo/Base.h"
#include "zo/Error.h"
#include "zo/Thread.h"

#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace cli {

// Allocates on page boundaries, in whole pages, as direct I/O needs.
template <class T>
struct PageAlignedAllocator {
    using value_type = T;
    static constexpr size_t kPage = 4096;

    PageAlignedAllocator() = default;
    template <class U>
    PageAlignedAllocator(const PageAlignedAllocator<U>&) noexcept
    {}

    T* allocate(size_t count)
    {
        const size_t bytes = (count * sizeof(T) + kPage - 1) / kPage * kPage;
        void* memory = std::aligned_alloc(kPage, bytes);
        if (!memory)
            throw std::bad_alloc();
        return static_cast<T*>(memory);
    }
    void deallocate(T* memory, size_t) noexcept { std::free(memory); }

    template <class U>
    bool operator==(const PageAlignedAllocator<U>&) const noexcept
    {
        return true;
    }
};

class CImageSink {
public:
    using Chunk = std::vector<zo::uint8, PageAlignedAllocator<zo::uint8>>;

    // Opens `path` for `size` bytes; "-" is standard output. An existing
    // regular file that is not empty, or a symbolic link, is refused with
    // zo::CError unless `force` (the link itself is then replaced, not what
    // it points to); a block device smaller than `size` is always refused.
    // Throws the file system's error when it cannot be opened.
    CImageSink(const std::string& path, zo::int64 size, bool force);
    // Stops the writing thread (dropping what was not written yet), closes a
    // file that it opened and removes a temporary file that was not put in
    // place; never throws.
    ~CImageSink();
    CImageSink(const CImageSink&) = delete;
    CImageSink& operator=(const CImageSink&) = delete;

    // True when all-zero chunks become holes.
    bool leavesHoles() const { return m_sparse; }

    // A chunk to fill, reusing the memory of chunks already written: it may
    // hold the bytes of an earlier chunk, which the caller resizes and
    // overwrites.
    Chunk takeChunk();
    // Appends the chunk's bytes (`allZero`: they are all zero), waiting while
    // a few chunks are already queued. Throws the error that an earlier write
    // ran into.
    void append(Chunk chunk, bool allZero);
    // Waits until everything is written, then sets a regular file's size to
    // everything appended (the holes at its end included), makes it durable
    // and renames it over the target. Throws the error of any write.
    void finish();
    // Removes the temporary file after a failure; the target stays as it was.
    // Safe to call from a signal handler's aftermath, and more than once.
    void discard();
    // The temporary file being written, empty when there is none.
    const std::string& getTemporaryPath() const { return m_temporaryPath; }

private:
    struct Queued {
        Chunk chunk;
        bool allZero;
    };

    void writerLoop();
    void writeOut(const Queued& item);
    void writeAll(const zo::uint8* data, size_t size);
    void rethrowWriteError();

    // Opens the target in place: standard output, a pipe or a device.
    void openInPlace(zo::int64 size);
    // Creates the temporary file beside the target.
    void openTemporary();

    // Writes through the cache from now on.
    void stopDirectIO();

    int m_fd = -1;
    bool m_ownsFd = false;
    bool m_sparse = false;
    bool m_direct = false; // the writer thread's alone once it runs
    std::string m_path;
    std::string m_temporaryPath;
    zo::int64 m_position = 0; // the writer thread's alone

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Queued> m_queue;
    std::vector<Chunk> m_spare;
    bool m_writing = false;
    bool m_stopping = false;
    zo::P<zo::CError> m_error;
    zo::P<zo::CThread> m_writer;
};

} // namespace cli
