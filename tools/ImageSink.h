// CImageSink: where an export writes a disk's bytes. Into a regular file it
// leaves holes where the disk reads zeros (it seeks over them and sets the
// file's size at the end), so an image of a mostly empty disk takes little
// room; to standard output or another kind of file (a pipe, a device) every
// byte is written in order.
//
// The writing happens on a thread of the sink's own, so that the caller goes
// on reading the disk while the output takes the bytes. The caller's calls
// come from one thread.
#pragma once

#include "zo/Base.h"
#include "zo/Error.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cli {

class CImageSink {
public:
    using Chunk = std::vector<zo::uint8>;

    // Opens `path`; "-" is standard output. A regular file is created or
    // emptied. Throws the file system's error when it cannot be opened.
    explicit CImageSink(const std::string& path);
    // Stops the writing thread (dropping what was not written yet) and closes
    // a file that it opened; never throws.
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
    // everything appended (the holes at its end included). Throws the error
    // of any write.
    void finish();
    // Removes a regular file that was being written, after a failure.
    void discard();

private:
    struct Queued {
        Chunk chunk;
        bool allZero;
    };

    void writerLoop();
    void writeOut(const Queued& item);
    void writeAll(const zo::uint8* data, size_t size);
    void rethrowWriteError();

    int m_fd = -1;
    bool m_ownsFd = false;
    bool m_sparse = false;
    std::string m_path;
    zo::int64 m_position = 0;  // the writer thread's alone

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Queued> m_queue;
    std::vector<Chunk> m_spare;
    bool m_writing = false;
    bool m_stopping = false;
    zo::P<zo::CError> m_error;
    std::thread m_writer;
};

} // namespace cli
