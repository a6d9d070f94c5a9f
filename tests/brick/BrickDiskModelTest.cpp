// Random reads and writes against a model of the disk's bytes, with flushes
// and reopenings in between, on both file systems, with and without
// encryption, for every compressor.
#include "brick/BrickDisk.h"

#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <tuple>

namespace {

using brick::CBrickDisk;
using testsupport::Bytes;
using zo::CIOError;
using zo::CURI;
using zo::IIOStream;
using zo::P;
using zo::int64;

constexpr int kBrickSize = 4096;
// Forty whole bricks and a short last one.
constexpr int64 kDiskSize = 40 * kBrickSize + 1234;
constexpr int kOperations = 300;

enum class FileSystemKind { memory, local };

void PrintTo(FileSystemKind kind, std::ostream* out)
{
    *out << (kind == FileSystemKind::memory ? "memory" : "local");
}

using ModelCase = std::tuple<FileSystemKind, bool, const char*>;

class BrickDiskModelTest : public ::testing::TestWithParam<ModelCase> {
protected:
    void SetUp() override
    {
        const auto [kind, encrypted, compressor] = GetParam();
        if (kind == FileSystemKind::memory) {
            const P<zo::CMemoryFileSystem> memory(new zo::CMemoryFileSystem(2));
            memory->setCompletionDelay(0, 2);
            fs = memory;
            folder = CURI("/model/disk");
        } else {
            temp = std::make_unique<testsupport::TempFolder>();
            const P<zo::CLocalFileSystem> local(new zo::CLocalFileSystem(2));
            local->setSyncEnabled(false);
            fs = local;
            folder = temp->uri() << "disk";
        }
        password = encrypted ? "model password" : "";
        CBrickDisk::create(fs.get(), folder, kDiskSize, 1, password, compressor, kBrickSize);
        model = testsupport::zeroBytes(static_cast<int>(kDiskSize));
        rng.seed(seed());
    }

    // A fixed seed per case, different between cases.
    unsigned seed() const
    {
        const auto [kind, encrypted, compressor] = GetParam();
        unsigned value = 7919u * (kind == FileSystemKind::local ? 2u : 1u) + (encrypted ? 104729u : 0u);
        for (const char* c = compressor; *c; ++c)
            value = value * 31u + static_cast<unsigned char>(*c);
        return value;
    }

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
        case 0: return static_cast<int>(randomBelow(64)) + 1;
        case 1: return static_cast<int>(randomBelow(2 * kBrickSize)) + 1;
        case 2: return kBrickSize;
        default: return static_cast<int>(randomBelow(5 * kBrickSize)) + 1;
        }
    }
    // A position: anywhere, on or next to a brick border, or near the end.
    int64 randomPosition()
    {
        switch (rng() % 4) {
        case 0: return randomBelow(kDiskSize + 1);
        case 1: return randomBelow(kDiskSize / kBrickSize + 1) * kBrickSize;
        case 2: return std::clamp<int64>(randomBelow(kDiskSize / kBrickSize + 1) * kBrickSize + randomBelow(64) - 32,
                                         0, kDiskSize);
        default: return kDiskSize - randomBelow(3 * kBrickSize);
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
    std::unique_ptr<testsupport::TempFolder> temp;
    CURI folder;
    zo::String password;
    P<CBrickDisk> disk;
    Bytes model;
    std::mt19937 rng;
};

TEST_P(BrickDiskModelTest, RandomReadsAndWritesMatchAModelOfTheBytes)
{
    SCOPED_TRACE("seed " + std::to_string(seed()));
    open();
    for (int operation = 0; operation < kOperations && !HasFatalFailure(); ++operation) {
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

std::string caseName(const ::testing::TestParamInfo<ModelCase>& info)
{
    const auto [kind, encrypted, compressor] = info.param;
    std::string name = kind == FileSystemKind::memory ? "Memory" : "Local";
    name += encrypted ? "Encrypted" : "Plain";
    for (const char* c = compressor; *c; ++c)
        name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(EveryFileSystemCipherAndCompressor, BrickDiskModelTest,
                         ::testing::Combine(::testing::Values(FileSystemKind::memory, FileSystemKind::local),
                                            ::testing::Bool(),
                                            ::testing::Values("null", "zlib-6", "lz4", "lz4hc", "lzma-1")),
                         caseName);

} // namespace
