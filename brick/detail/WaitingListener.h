// Waiting for the file system's asynchronous operations where the library
// needs their outcome before it goes on: the records of a disk folder and the
// steps of a removal. Used inside the library only; not part of the public API.
#pragma once

#include "zo/BufferStream.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"
#include "zo/Signal.h"

#include <mutex>

namespace brick::detail {

// Waits for one asynchronous operation and keeps its error.
class CWaitingListener : public zo::CBase, public zo::IDoneListener {
public:
    void onDone(const zo::CError* error) override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (error)
                m_error = error->clone();
        }
        m_done.set();
    }
    // Waits for the end and throws the operation's error, if any.
    void wait()
    {
        m_done.wait(-1);
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_error)
            m_error->throwClone();
    }
    // Waits for the end; throws the operation's error unless its problem is `tolerated`.
    void wait(zo::CFileSystemError::Problem tolerated)
    {
        m_done.wait(-1);
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_error && zo::CFileSystemError::getProblem(m_error->getProps()) != tolerated)
            m_error->throwClone();
    }

private:
    std::mutex m_mutex;
    zo::CSignal m_done;
    zo::P<zo::CError> m_error;
};

// Replaces `file` with `data` atomically and durably (IFileSystem::
// beginStoreFile with overwrite) and waits for it; the file system's error is
// thrown. A stop at any moment leaves the old file or the whole new one.
inline void replaceFileAndWait(zo::IFileSystem* fs, const zo::CURI& file, const zo::TBuffer<zo::uint8>& data)
{
    // The stream owns its copy of the bytes, however long the file system
    // keeps the stream.
    const zo::P<zo::CBufferStream> source(new zo::CBufferStream(nullptr, 1.0));
    source->write(data.getData(), data.getUsed());
    source->seek(0);
    const zo::P<CWaitingListener> listener(new CWaitingListener());
    fs->beginStoreFile(file, data.getUsed(), source.get(), true, listener.get());
    listener->wait();
}

} // namespace brick::detail
