// What a block device's flush guarantees: once it returns, every brick
// written before it is in the file system; a crash before that leaves every
// brick with its old or its new bytes.
#include "brick/serving/BrickDiskBlockDevice.h"

#include "support/CrashingFileSystem.h"
#include "support/DiskTestHelpers.h"
#include "support/HeldFileSystem.h"
#include "zo/MemoryFileSystem.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using testsupport::Bytes;
using testsupport::CrashingFileSystem;
using testsupport::HeldFileSystem;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IFileSystem;
using zo::IIOStream;
using zo::int64;
using zo::P;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 12;
constexpr int64 kDiskSize = static_cast<int64>(kBrickCount) * kBrickSize;
const char* const kFolder = "/disks/a";
const char* const kPassword = "pw";

P<CBrickDiskBlockDevice> openDevice(IFileSystem* fs)
{
    const P<CBrickDisk> disk = testsupport::openDisk(fs, CURI(kFolder), kPassword);
    // The smallest cache (4 bricks): most bricks are stored when evicted,
    // before the flush, and the rest by the flush.
    return P<CBrickDiskBlockDevice>(new CBrickDiskBlockDevice(disk.get(), 0));
}

// Writes `bytes` over the whole disk in pieces of one and a half bricks, so
// that some bricks are written whole and others in two parts.
void writeWholeDisk(CBrickDiskBlockDevice& device, const Bytes& bytes)
{
    const int64 piece = kBrickSize + kBrickSize / 2;
    for (int64 at = 0; at < kDiskSize; at += piece)
        device.write(bytes.getData() + at, at, std::min(piece, kDiskSize - at));
}

Bytes storedBrick(IFileSystem* fs, int index)
{
    const P<CBrickDisk> disk = testsupport::openDisk(fs, CURI(kFolder), kPassword, IIOStream::AccessRead);
    return testsupport::readAt(*disk, static_cast<int64>(index) * kBrickSize, kBrickSize);
}

Bytes brickOf(const Bytes& bytes, int index)
{
    return Bytes(bytes.getData() + static_cast<int64>(index) * kBrickSize, kBrickSize);
}

class BrickDiskBlockDeviceFlushTest : public ::testing::Test {
protected:
    // A disk that holds `oldBytes`, stored.
    P<CMemoryFileSystem> diskWithOldBytes()
    {
        P<CMemoryFileSystem> fs(new CMemoryFileSystem(2));
        testsupport::createDisk(fs.get(), CURI(kFolder), kDiskSize, kPassword);
        const P<CBrickDiskBlockDevice> device = openDevice(fs.get());
        writeWholeDisk(*device, oldBytes);
        device->flush();
        return fs;
    }

    const Bytes oldBytes = testsupport::patternBytes(static_cast<int>(kDiskSize), 1);
    const Bytes newBytes = testsupport::patternBytes(static_cast<int>(kDiskSize), 2);
};

TEST_F(BrickDiskBlockDeviceFlushTest, EveryBrickWrittenBeforeAFlushIsStoredWhenItReturns)
{
    const P<CMemoryFileSystem> fs = diskWithOldBytes();
    std::vector<CURI> files;
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead);
        for (int i = 0; i < kBrickCount; ++i)
            files.push_back(testsupport::brickFileOf(*disk, CURI(kFolder), i));
    }
    // Stores end late and in any order.
    fs->setCompletionDelay(20, 60);
    const P<CBrickDiskBlockDevice> device = openDevice(fs.get());
    writeWholeDisk(*device, newBytes);
    device->flush();

    // The files as the flush left them, taken at once ...
    std::vector<P<Bytes>> atFlush;
    for (const CURI& file : files)
        atFlush.push_back(fs->getFileData(file));
    // ... are those that every store, ended, leaves, and hold the new bytes.
    fs->waitUntilIdle();
    for (int i = 0; i < kBrickCount; ++i) {
        const P<Bytes> final = fs->getFileData(files[static_cast<size_t>(i)]);
        ASSERT_TRUE(atFlush[static_cast<size_t>(i)] && final) << "brick " << i;
        EXPECT_EQ(*atFlush[static_cast<size_t>(i)], *final) << "brick " << i;
        EXPECT_EQ(storedBrick(fs.get(), i), brickOf(newBytes, i)) << "brick " << i;
    }
}

// A brick that is read from its file while a flush comes holds no written
// bytes: the flush stores the brick written before it and returns while the
// read is still held, and the read then finds the brick's stored bytes.
TEST_F(BrickDiskBlockDeviceFlushTest, AFlushStoresTheWrittenBricksWhileAnotherBrickIsStillBeingRead)
{
    const P<CMemoryFileSystem> fs = diskWithOldBytes();
    const P<HeldFileSystem> held(new HeldFileSystem(fs.get()));
    const P<CBrickDisk> disk = testsupport::openDisk(held.get(), CURI(kFolder), kPassword);
    const CURI readFile = testsupport::brickFileOf(*disk, CURI(kFolder), 0);
    // A cache that holds the whole disk: only the flush stores.
    const P<CBrickDiskBlockDevice> device(new CBrickDiskBlockDevice(disk.get(), 2 * kDiskSize));
    // Should a step fail, nothing stays held for the device's last flush.
    struct LetGo {
        HeldFileSystem& fs;
        ~LetGo() { fs.letGo(); }
    } letGo{*held};
    const Bytes written = brickOf(newBytes, 1);
    device->write(written.getData() + kBrickSize / 2, kBrickSize + kBrickSize / 2, kBrickSize / 2);

    held->holdCallsThat(HeldFileSystem::callsOn(HeldFileSystem::Call::OpenForReading, readFile));
    Bytes read(kBrickSize);
    std::thread reader([&] { device->read(read.getData(), 0, kBrickSize); });
    const bool readHeld = held->waitUntilHeld();
    zo::CSignal flushed;
    P<zo::CError> flushError;
    std::thread flusher([&] {
        try {
            device->flush();
        } catch (const zo::CError& e) {
            flushError = e.clone();
        }
        flushed.set();
    });
    const bool flushedWhileReadHeld = flushed.wait(HeldFileSystem::kGenerousMillis);
    held->letGo();
    flusher.join();
    reader.join();

    ASSERT_TRUE(readHeld);
    EXPECT_TRUE(flushedWhileReadHeld);
    EXPECT_FALSE(flushError) << (flushError ? flushError->toString().toUTF8() : std::string());
    EXPECT_EQ(storedBrick(fs.get(), 1),
              testsupport::overlay(brickOf(oldBytes, 1), kBrickSize / 2,
                                   Bytes(written.getData() + kBrickSize / 2, kBrickSize / 2)));
    EXPECT_EQ(read, brickOf(oldBytes, 0));
}

TEST_F(BrickDiskBlockDeviceFlushTest, ACrashBeforeAFlushEndsLeavesEveryBrickOldOrNew)
{
    int changes = 0;
    {
        const P<CMemoryFileSystem> fs = diskWithOldBytes();
        const P<CrashingFileSystem> counting(new CrashingFileSystem(fs.get(), -1));
        const P<CBrickDiskBlockDevice> device = openDevice(counting.get());
        writeWholeDisk(*device, newBytes);
        device->flush();
        changes = counting->getChangeCount();
    }
    ASSERT_GE(changes, kBrickCount);

    for (int allowed = 0; allowed < changes; ++allowed) {
        const std::string context =
            "crash before change " + std::to_string(allowed + 1) + " of " + std::to_string(changes);
        const P<CMemoryFileSystem> fs = diskWithOldBytes();
        {
            const P<CrashingFileSystem> crashing(new CrashingFileSystem(fs.get(), allowed));
            const P<CBrickDiskBlockDevice> device = openDevice(crashing.get());
            // After the crash bricks fail to load, so a write may fail; or a
            // store fails, which the flush reports.
            bool flushed = false;
            try {
                writeWholeDisk(*device, newBytes);
                device->flush();
                flushed = true;
            } catch (const zo::CError&) {
            }
            EXPECT_FALSE(flushed) << context;
            EXPECT_TRUE(crashing->hasCrashed()) << context;
        }
        int newBricks = 0;
        for (int i = 0; i < kBrickCount; ++i) {
            Bytes stored;
            ASSERT_NO_THROW(stored = storedBrick(fs.get(), i)) << context << ", brick " << i;
            const bool isNew = stored == brickOf(newBytes, i);
            EXPECT_TRUE(isNew || stored == brickOf(oldBytes, i)) << context << ", brick " << i;
            newBricks += isNew ? 1 : 0;
        }
        // Nothing lands after the crash: at most one brick per change made.
        EXPECT_LE(newBricks, allowed) << context;
    }
}

} // namespace
