// Random reads and writes of a disk checked against a model of its bytes,
// with flushes and reopenings in between: the check that the disk keeps its
// bytes on a file system. Included by each test program that runs it.
#pragma once

#include "brick/chain/BrickDisk.h"
#include "support/DiskTestHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

namespace testsupport {

using brick::CBrickDisk;
using zo::CIOError;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;

constexpr int kBrickSize = 4096;
// Forty whole bricks and a short last one.
constexpr int64 kDiskSize = 40 * kBrickSize + 1234;
constexpr int kOperations = 300;

class BrickDiskModel {
public:
    // Creates the disk (unencrypted when `diskPassword` is empty), then runs
    // the random operations, ending with a whole-disk comparison.
    void run(zo::IFileSystem* fileSystem, const CURI& diskFolder, const zo::String& diskPassword,
             const char* compressor, unsigned seed)
    {
        fs = fileSystem;
        folder = diskFolder;
        password = diskPassword;
        CBrickDisk::create(fs.get(), folder, kDiskSize, 1, password, compressor, kBrickSize);
        model = testsupport::zeroBytes(static_cast<int>(kDiskSize));
        rng.seed(seed);
        SCOPED_TRACE("seed " + std::to_string(seed));
        open();
        for (int operation = 0; operation < kOperations && !::testing::Test::HasFatalFailure(); ++operation) {
            SCOPED_TRACE("operation " + std::to_string(operation));
            const int choice = static_cast<int>(rng() % 100);
            if (choice < 45) {
                randomWrite();
            } else if (choice < 85) {
                randomRead();
            } else if (choice < 90) {
                randomPreparedBrick();
            } else if (choice < 96) {
                flush();
            } else {
                open();
                expectWholeDiskMatchesModel();
            }
        }
        disk->flushChanges();
        EXPECT_TRUE(disk->getBackgroundErrorList().empty());
        open(IIOStream::AccessRead);
        expectWholeDiskMatchesModel();
    }

private:
    void open(IIOStream::Access access = IIOStream::AccessReadWrite)
    {
        disk.reset();
        disk = testsupport::openDisk(fs.get(), folder, password, access, 3);
    }

    int64 randomBelow(int64 bound) { return static_cast<int64>(rng() % static_cast<uint64_t>(bound)); }

    // A length: a few bytes, up to two bricks, exactly one brick, or up to five bricks.
    int randomLength()
    {
        switch (rng() % 4) {
        case 0:
            return static_cast<int>(randomBelow(64)) + 1;
        case 1:
            return static_cast<int>(randomBelow(2 * kBrickSize)) + 1;
        case 2:
            return kBrickSize;
        default:
            return static_cast<int>(randomBelow(5 * kBrickSize)) + 1;
        }
    }
    // A position: anywhere, on or next to a brick border, or near the end.
    int64 randomPosition()
    {
        switch (rng() % 4) {
        case 0:
            return randomBelow(kDiskSize + 1);
        case 1:
            return randomBelow(kDiskSize / kBrickSize + 1) * kBrickSize;
        case 2:
            return std::clamp<int64>(randomBelow(kDiskSize / kBrickSize + 1) * kBrickSize + randomBelow(64) - 32, 0,
                                     kDiskSize);
        default:
            return kDiskSize - randomBelow(3 * kBrickSize);
        }
    }

    void randomWrite()
    {
        const int64 position = randomPosition();
        const int length = randomLength();
        const Bytes bytes = rng() % 6 == 0 ? testsupport::zeroBytes(length)
                                           : testsupport::patternBytes(length, static_cast<unsigned>(rng()));
        disk->seek(position);
        if (position + length > kDiskSize) {
            EXPECT_THROW(disk->write(bytes.getData(), length), CIOError) << "write at " << position;
            EXPECT_EQ(disk->getPosition(), position);
            return;
        }
        disk->write(bytes.getData(), length);
        EXPECT_EQ(disk->getPosition(), position + length);
        model = testsupport::overlay(model, position, bytes);
    }

    void randomRead()
    {
        const int64 position = randomPosition();
        const int length = randomLength();
        const int available = static_cast<int>(std::min<int64>(length, kDiskSize - position));
        Bytes bytes(length);
        disk->seek(position);
        if (available < length) {
            EXPECT_THROW(disk->read(bytes.getData(), length), CIOError) << "read at " << position;
            EXPECT_EQ(disk->getPosition(), kDiskSize);
        } else {
            disk->read(bytes.getData(), length);
            EXPECT_EQ(disk->getPosition(), position + length);
        }
        ASSERT_EQ(Bytes(bytes.getData(), available), Bytes(model.getData() + position, available))
            << "read of " << length << " bytes at " << position;
    }

    void randomPreparedBrick()
    {
        const int64 index = randomBelow(kDiskSize / kBrickSize + 1);
        const Bytes plain = testsupport::patternBytes(kBrickSize, static_cast<unsigned>(rng()));
        const P<Bytes> prepared(new Bytes());
        disk->createDataPreparer()->prepareData(plain, *prepared);
        disk->seek(index * kBrickSize);
        disk->writePreparedBrickData(prepared.get(), nullptr);
        const int64 end = std::min<int64>((index + 1) * kBrickSize, kDiskSize);
        EXPECT_EQ(disk->getPosition(), end);
        model = testsupport::overlay(model, index * kBrickSize,
                                     Bytes(plain.getData(), static_cast<int>(end - index * kBrickSize)));
    }

    void flush()
    {
        disk->flushChanges();
        EXPECT_TRUE(disk->getBackgroundErrorList().empty());
    }

    void expectWholeDiskMatchesModel() { ASSERT_EQ(testsupport::readWholeDisk(*disk), model); }

    P<zo::IFileSystem> fs;
    CURI folder;
    zo::String password;
    P<CBrickDisk> disk;
    Bytes model;
    std::mt19937 rng;
};

} // namespace testsupport
