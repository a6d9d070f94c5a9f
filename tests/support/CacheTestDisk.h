// What the tests of the brick cache share: a disk in a memory store, the
// names of its brick files, and bytes to store as them.
#pragma once

#include "support/BrickTestHelpers.h"
#include "zo/URI.h"

#include <cstring>
#include <string>

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

} // namespace testsupport::cachetest
