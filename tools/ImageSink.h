// CImageSink: where an export writes a disk's bytes. Into a regular file it
// leaves holes where the disk reads zeros (it seeks over them and sets the
// file's size at the end), so an image of a mostly empty disk takes little
// room; to standard output or another kind of file (a pipe, a device) every
// byte is written in order.
#pragma once

#include "zo/Base.h"

#include <string>

namespace cli {

class CImageSink {
public:
    // Opens `path`; "-" is standard output. A regular file is created or
    // emptied. Throws the file system's error when it cannot be opened.
    explicit CImageSink(const std::string& path);
    // Closes a file that it opened; never throws.
    ~CImageSink();
    CImageSink(const CImageSink&) = delete;
    CImageSink& operator=(const CImageSink&) = delete;

    // True when all-zero ranges become holes.
    bool leavesHoles() const { return m_sparse; }

    // Appends `size` bytes. Throws the file system's error when writing fails.
    void write(const zo::uint8* data, int size);
    // Appends `size` zero bytes: a hole in a regular file, written zeros elsewhere.
    void skipZeros(int size);
    // Sets a regular file's size to everything appended (the holes at its end
    // included). Throws the file system's error.
    void finish();
    // Removes a regular file that was being written, after a failure.
    void discard();

private:
    void writeAll(const zo::uint8* data, size_t size);

    int m_fd = -1;
    bool m_ownsFd = false;
    bool m_sparse = false;
    std::string m_path;
    zo::int64 m_position = 0;
};

} // namespace cli
