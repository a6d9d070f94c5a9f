// The small disk that the tests of the block device and of reading ahead
// share: 12 bricks of kDiskTestBrickSize in one folder of an in-memory file
// system (which counts and logs its operations), under one password, with
// helpers to open it, to serve it as a block device and to watch its brick
// files being opened.
#pragma once

#include "brick/chain/BrickDisk.h"
#include "brick/serving/BrickDiskBlockDevice.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <vector>

namespace testsupport {

class BlockDeviceTestDisk : public ::testing::Test {
protected:
    static constexpr int kBrickSize = kDiskTestBrickSize;
    static constexpr int kBrickCount = 12;
    static constexpr zo::int64 kDiskSize = static_cast<zo::int64>(kBrickCount) * kBrickSize;
    static constexpr const char* kFolder = "/disks/a";
    static constexpr const char* kPassword = "pw";

    // Creates the disk (createTestDisk).
    void SetUp() override;
    // Creates the disk, all zeros, in `fs`.
    void createTestDisk();

    zo::P<brick::CBrickDisk> openDisk(zo::IIOStream::Access access = zo::IIOStream::AccessReadWrite);
    // A block device over the disk opened for writing, caching `cacheBytes`
    // (at least 4 bricks).
    zo::P<brick::CBrickDiskBlockDevice> openDevice(zo::int64 cacheBytes);

    // `size` bytes at `position` as the disk stores them (opened anew).
    Bytes storedBytes(zo::int64 position, int size);
    // `size` bytes at `position` as the device reads them.
    static Bytes readDevice(brick::CBrickDiskBlockDevice& device, zo::int64 position, int size);
    // `count` bricks from brick `first` as the device reads them.
    static Bytes readBricks(brick::CBrickDiskBlockDevice& device, int first, int count);
    // Bricks `first` to `first + count - 1` of the whole disk's `bytes`.
    static Bytes bricksOf(const Bytes& bytes, int first, int count);

    // The file of brick `index`.
    zo::CURI brickFile(zo::int64 index);
    // How often each brick file was opened since the counters were reset.
    std::vector<zo::int64> opensPerBrick();
    // Waits until `count` files have been opened since the counters were
    // reset; false when that does not happen within a generous time.
    bool waitForOpenedFiles(int count);

    zo::P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem(2)};
};

// The same disk with every brick stored, holding `content`, whose bytes
// differ from brick to brick.
class StoredBlockDeviceTestDisk : public BlockDeviceTestDisk {
protected:
    // A cache this large holds the whole disk and reads 8 bricks ahead.
    static constexpr zo::int64 kCacheBytes = 64 * kBrickSize;

    // `content` is patternBytes of the whole disk from `seed`.
    explicit StoredBlockDeviceTestDisk(unsigned seed);

    // Creates the disk and stores `content` through a block device.
    void SetUp() override;

    using BlockDeviceTestDisk::openDevice;
    // A block device caching kCacheBytes.
    zo::P<brick::CBrickDiskBlockDevice> openDevice() { return openDevice(kCacheBytes); }

    const Bytes content;
};

} // namespace testsupport
