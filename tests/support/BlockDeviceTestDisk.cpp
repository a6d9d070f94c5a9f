#include "support/BlockDeviceTestDisk.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

namespace testsupport {

using zo::CURI;
using zo::int64;
using zo::P;

void BlockDeviceTestDisk::SetUp()
{
    createTestDisk();
}

void BlockDeviceTestDisk::createTestDisk()
{
    createDisk(fs.get(), CURI(kFolder), kDiskSize, kPassword);
}

P<brick::CBrickDisk> BlockDeviceTestDisk::openDisk(zo::IIOStream::Access access)
{
    return testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, access);
}

P<brick::CBrickDiskBlockDevice> BlockDeviceTestDisk::openDevice(int64 cacheBytes)
{
    return P<brick::CBrickDiskBlockDevice>(new brick::CBrickDiskBlockDevice(openDisk().get(), cacheBytes));
}

Bytes BlockDeviceTestDisk::storedBytes(int64 position, int size)
{
    return readAt(*openDisk(zo::IIOStream::AccessRead), position, size);
}

Bytes BlockDeviceTestDisk::readDevice(brick::CBrickDiskBlockDevice& device, int64 position, int size)
{
    Bytes bytes(size);
    device.read(bytes.getData(), position, size);
    return bytes;
}

Bytes BlockDeviceTestDisk::readBricks(brick::CBrickDiskBlockDevice& device, int first, int count)
{
    return readDevice(device, static_cast<int64>(first) * kBrickSize, count * kBrickSize);
}

Bytes BlockDeviceTestDisk::bricksOf(const Bytes& bytes, int first, int count)
{
    return Bytes(bytes.getData() + static_cast<int64>(first) * kBrickSize, count * kBrickSize);
}

CURI BlockDeviceTestDisk::brickFile(int64 index)
{
    return brickFileOf(*openDisk(zo::IIOStream::AccessRead), CURI(kFolder), index);
}

std::vector<int64> BlockDeviceTestDisk::opensPerBrick()
{
    const std::vector<std::string> log = toStrings(fs->getOperationLog());
    const P<brick::CBrickDisk> disk = openDisk(zo::IIOStream::AccessRead);
    std::vector<int64> opens;
    for (int64 index = 0; index < kBrickCount; ++index) {
        const std::string file = brickFileOf(*disk, CURI(kFolder), index).toString(true).toUTF8();
        opens.push_back(std::count(log.begin(), log.end(), "openStream " + file));
    }
    return opens;
}

bool BlockDeviceTestDisk::waitForOpenedFiles(int count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (fs->getOperationCount(zo::CMemoryFileSystem::Operation::OpenStream) < count) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

StoredBlockDeviceTestDisk::StoredBlockDeviceTestDisk(unsigned seed)
    : content(patternBytes(static_cast<int>(kDiskSize), seed))
{}

void StoredBlockDeviceTestDisk::SetUp()
{
    BlockDeviceTestDisk::SetUp();
    const P<brick::CBrickDiskBlockDevice> writer = openDevice();
    writer->write(content.getData(), 0, content.getUsed());
    writer->flush();
}

} // namespace testsupport
