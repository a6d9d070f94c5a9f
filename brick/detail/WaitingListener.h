// Waiting for a store where the library needs its outcome before it goes on:
// the records of a disk folder and of a copied chain. Used inside the library
// only; not part of the public API.
#pragma once

#include "zo/BufferStream.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"

namespace brick::detail {

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
    fs->beginStoreFile(file, data.getUsed(), source.get(), true, nullptr)->wait();
}

} // namespace brick::detail
