// CImageSource: the bytes that an import writes into a disk, from a file or
// from standard input, never more than the disk holds.
#pragma once

#include "zo/Base.h"

#include <string>

namespace cli {

class CImageSource {
public:
    // Opens `path`; "-" is standard input. Throws the file system's error when
    // the file cannot be opened, and zo::CError "Image is larger than the
    // disk." (with "image", "imageSize", "diskSize") when a file whose size can
    // be told (a regular file or a block device) is larger than `diskSize`.
    CImageSource(const std::string& path, zo::int64 diskSize);
    // Closes a file that it opened; never throws.
    ~CImageSource();
    CImageSource(const CImageSource&) = delete;
    CImageSource& operator=(const CImageSource&) = delete;

    // The image's size in bytes; -1 for a pipe or a terminal.
    zo::int64 getSize() const { return m_size; }
    // "standard input" or the path.
    const std::string& getName() const { return m_name; }

    // Reads up to `size` bytes into `dst`, fewer only at the end of the image
    // or of the disk. Passes on read errors.
    int read(zo::uint8* dst, int size);
    // When the next `size` bytes of a regular file are a hole (they read as
    // zeros and take no room), moves past them without reading and returns
    // true; otherwise returns false and reads nothing.
    bool skipHole(int size);
    // Once everything up to the end of the disk has been read, looks for one
    // byte more: if the image goes on, throws zo::CError "Image holds more
    // than the disk size." (with "image" and "diskSize").
    void refuseMoreThanDisk();

private:
    // Reads up to `size` bytes, fewer only at the end of the image.
    int readFully(zo::uint8* dst, int size);

    int m_fd = -1;
    bool m_ownsFd = false;
    std::string m_name;
    zo::int64 m_size = -1;
    // Where the image starts in a regular file; -1 for other kinds of input.
    zo::int64 m_regularFileStart = -1;
    zo::int64 m_position = 0;
    zo::int64 m_diskSize;
};

} // namespace cli
