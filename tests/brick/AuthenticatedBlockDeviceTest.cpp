// A block device over a disk with authenticated bricks (keyed digests that
// bind every brick file to its index, and a wrapped key).
#include "brick/serving/BrickDiskBlockDevice.h"

#include "seal/KeyDerivation.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using zo::CError;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Kind = CBrickDiskBlockDevice::ExtentKind;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 8;
constexpr int64 kDiskSize = static_cast<int64>(kBrickCount) * kBrickSize;
const char* const kFolder = "/disks/a";
const char* const kPassword = "secret";
// Cheap enough for tests.

class AuthenticatedBlockDeviceTest : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override
    {
        CBrickDisk::createAuthenticated(fs.get(), CURI(kFolder), kDiskSize, 1, kPassword, "lz4", kBrickSize,
                                        kTestKdfCost, GetParam());
    }

    P<CBrickDiskBlockDevice> openDevice()
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword);
        return P<CBrickDiskBlockDevice>(new CBrickDiskBlockDevice(disk.get(), 64 * kBrickSize));
    }

    Bytes readDevice(CBrickDiskBlockDevice& device, int64 position, int size)
    {
        Bytes bytes(size);
        device.read(bytes.getData(), position, size);
        return bytes;
    }

    Bytes storedBytes()
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead);
        return testsupport::readWholeDisk(*disk);
    }

    CURI brickFile(int64 index)
    {
        return testsupport::brickFileOf(
            *testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead), CURI(kFolder), index);
    }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem(2)};
};

TEST_P(AuthenticatedBlockDeviceTest, WritesZerosTrimsAndFlushesRoundTrip)
{
    const Bytes data = testsupport::patternBytes(static_cast<int>(kDiskSize), 3);
    Bytes expected = data;
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        device->write(data.getData(), 0, data.getUsed());
        // A zero from the middle of brick 1 to the middle of brick 3 (brick
        // 2 whole), and a trim, which serving maps to the same call, of
        // brick 6 whole.
        const int64 from = kBrickSize + kBrickSize / 2;
        device->zero(from, 2 * kBrickSize);
        std::memset(expected.getData() + from, 0, 2 * kBrickSize);
        device->zero(6 * kBrickSize, kBrickSize);
        std::memset(expected.getData() + 6 * kBrickSize, 0, kBrickSize);
        EXPECT_EQ(readDevice(*device, 0, static_cast<int>(kDiskSize)), expected);
        device->flush();
        EXPECT_EQ(storedBytes(), expected);
    }

    // Whole zeroed bricks are stored as no file.
    EXPECT_TRUE(fs->fileExists(brickFile(1)));
    EXPECT_FALSE(fs->fileExists(brickFile(2)));
    EXPECT_FALSE(fs->fileExists(brickFile(6)));
    const P<CBrickDiskBlockDevice> reopened = openDevice();
    EXPECT_EQ(readDevice(*reopened, 0, static_cast<int>(kDiskSize)), expected);
    const auto extents = reopened->mapExtents(0, kDiskSize);
    ASSERT_EQ(extents.size(), 5u);
    EXPECT_EQ(extents[1].offset, 2 * kBrickSize);
    EXPECT_EQ(extents[1].kind, Kind::Hole);
    EXPECT_EQ(extents[3].offset, 6 * kBrickSize);
    EXPECT_EQ(extents[3].kind, Kind::Hole);
}

TEST_P(AuthenticatedBlockDeviceTest, ABrickFileMovedToAnotherIndexReadsAsDamaged)
{
    const Bytes data = testsupport::patternBytes(static_cast<int>(kDiskSize), 4);
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        device->write(data.getData(), 0, data.getUsed());
        device->flush();
    }
    const CURI from = brickFile(1);
    const CURI to = brickFile(2);
    fs->setFileData(to, *fs->getFileData(from));
    fs->deleteFile(from, false);

    // Read in order, so that brick 2 is also read ahead.
    const P<CBrickDiskBlockDevice> device = openDevice();
    EXPECT_EQ(readDevice(*device, 0, kBrickSize), Bytes(data.getData(), kBrickSize));
    EXPECT_EQ(readDevice(*device, kBrickSize, kBrickSize), testsupport::zeroBytes(kBrickSize));
    const auto error = testsupport::errorOf<CError>([&] { readDevice(*device, 2 * kBrickSize, kBrickSize); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "Brick file belongs to another brick index.");
    EXPECT_EQ(readDevice(*device, 3 * kBrickSize, kBrickSize), Bytes(data.getData() + 3 * kBrickSize, kBrickSize));
}

TEST_P(AuthenticatedBlockDeviceTest, RewritingTheBytesTheDiskHoldsStoresOnlyTheChangedBrick)
{
    const Bytes data = testsupport::patternBytes(4 * kBrickSize, 8);
    openDevice()->write(data.getData(), 0, data.getUsed());
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    device->write(data.getData(), 0, data.getUsed());
    const Bytes changed = testsupport::patternBytes(kBrickSize, 9);
    device->write(changed.getData(), 2 * kBrickSize, kBrickSize);
    device->flush();
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 1);
    EXPECT_EQ(readDevice(*openDevice(), 2 * kBrickSize, kBrickSize), changed);
}

INSTANTIATE_TEST_SUITE_P(EveryCipher, AuthenticatedBlockDeviceTest, testing::Values("aes256gcm", "aes256cbc"),
                         [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

} // namespace
