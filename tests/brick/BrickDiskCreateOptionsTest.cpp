// CBrickDisk::create with CreateOptions: every choice of the header in one
// call, the choices left open made by the disk's store and key deriver,
// checked before anything is made, and the header written once.
#include "brick/chain/BrickDisk.h"

#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskHeader;
using testsupport::errorOf;
using testsupport::kTestKdfCost;
using zo::CError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

const CURI kFolder("/disk");

CBrickDisk::CreateOptions optionsFor(const char* keyDeriverID)
{
    CBrickDisk::CreateOptions options;
    options.diskSize = 65536;
    options.brickSize = 4096;
    options.keyDeriverID = keyDeriverID;
    options.cost = kTestKdfCost;
    return options;
}

class BrickDiskCreateOptionsTest : public ::testing::Test {
protected:
    CBrickDiskHeader loadHeader()
    {
        CBrickDiskHeader header;
        header.load(fs.get(), kFolder);
        return header;
    }

    // The header files that creation stored, in order.
    std::vector<std::string> storedHeaderFiles() const
    {
        std::vector<std::string> stored;
        for (const zo::String& entry : fs->getOperationLog()) {
            const std::string line = entry.toUTF8();
            if (line.rfind("storeFile ", 0) == 0 && line.find("disk.brickdisk") != std::string::npos)
                stored.push_back(line.substr(10));
        }
        return stored;
    }

    // Writes a brick's worth of bytes with `password` and reads them back.
    void expectWritesAndReadsBack(const zo::String& password)
    {
        std::vector<zo::uint8> written(4096, 0x5a);
        {
            const P<CBrickDisk> disk(new CBrickDisk(fs.get(), kFolder, password, zo::IIOStream::AccessReadWrite, 1));
            disk->write(written.data(), static_cast<int>(written.size()));
            disk->flushChanges();
            ASSERT_TRUE(disk->getBackgroundErrorList().empty());
        }
        std::vector<zo::uint8> read(written.size());
        const P<CBrickDisk> disk(new CBrickDisk(fs.get(), kFolder, password, zo::IIOStream::AccessRead, 1));
        disk->read(read.data(), static_cast<int>(read.size()));
        EXPECT_EQ(read, written);
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
};

TEST_F(BrickDiskCreateOptionsTest, PBKDF2DiskGetsTheChosenChecksumInItsOneHeaderWrite)
{
    CBrickDisk::CreateOptions options = optionsFor(CBrickDiskHeader::kPBKDF2DeriverID);
    options.checkSumID = "md5";
    CBrickDisk::create(fs.get(), kFolder, "secret", options);

    const CBrickDiskHeader header = loadHeader();
    EXPECT_EQ(header.getCheckSumHashID(), "md5");
    EXPECT_EQ(header.getCipherID(), "aes256cbc");
    EXPECT_EQ(header.getCipherKeyDeriverID(), CBrickDiskHeader::kPBKDF2DeriverID);
    EXPECT_EQ(storedHeaderFiles(), std::vector<std::string>({"/disk/disk.brickdisk", "/disk/fallback/disk.brickdisk"}));
    expectWritesAndReadsBack("secret");
}

TEST_F(BrickDiskCreateOptionsTest, EmptyChoicesTakeTheDefaultsOfTheKeyDeriver)
{
    CBrickDisk::create(fs.get(), kFolder, "secret", optionsFor(CBrickDiskHeader::kPBKDF2DeriverID));
    CBrickDiskHeader header = loadHeader();
    EXPECT_EQ(header.getCheckSumHashID(), "sha256");
    EXPECT_EQ(header.getCipherID(), "aes256cbc");
    EXPECT_FALSE(header.hasIdentity());

    const P<CMemoryFileSystem> other(new CMemoryFileSystem(2));
    fs = other;
    CBrickDisk::create(fs.get(), kFolder, "secret", optionsFor(CBrickDiskHeader::kKeyWrappingDeriverID));
    header = loadHeader();
    EXPECT_EQ(header.getCheckSumHashID(), CBrickDiskHeader::kAuthenticatedCheckSumID);
    EXPECT_EQ(header.getCipherID(), CBrickDisk::kAuthenticatedCipherID);
    EXPECT_TRUE(header.hasIdentity());
    EXPECT_EQ(header.getCipherKeyDerivationIterations(), kTestKdfCost.passes);
    expectWritesAndReadsBack("secret");
}

TEST_F(BrickDiskCreateOptionsTest, CostLeftToTheDefaultIsAcceptedForAnUnencryptedDisk)
{
    CBrickDisk::CreateOptions options = optionsFor(CBrickDiskHeader::kKeyWrappingDeriverID);
    options.cost = seal::Argon2idCost{0, 0, 0};
    CBrickDisk::checkCreateOptions(options, kFolder);
    CBrickDisk::create(fs.get(), kFolder, "", options);
    // An unencrypted disk derives nothing: only its choices show.
    const CBrickDiskHeader header = loadHeader();
    EXPECT_FALSE(header.isEncrypted());
    EXPECT_EQ(header.getCheckSumHashID(), CBrickDiskHeader::kAuthenticatedCheckSumID);
}

TEST_F(BrickDiskCreateOptionsTest, ChoicesThatDoNotGoTogetherAreRefusedBeforeAnythingIsMade)
{
    struct Bad {
        const char* field;
        const char* keyDeriverID;
        const char* checkSumID;
        const char* cipherID;
    };
    for (const Bad& bad : {Bad{"checkSumHashID", CBrickDiskHeader::kKeyWrappingDeriverID, "sha256", ""},
                           Bad{"checkSumHashID", CBrickDiskHeader::kKeyWrappingDeriverID, "md5", ""},
                           Bad{"checkSumHashID", CBrickDiskHeader::kPBKDF2DeriverID, "hmac-sha256", ""},
                           Bad{"checkSumHashID", CBrickDiskHeader::kPBKDF2DeriverID, "crc32", ""},
                           Bad{"cipherID", CBrickDiskHeader::kPBKDF2DeriverID, "", "aes256gcm"},
                           Bad{"cipherID", CBrickDiskHeader::kKeyWrappingDeriverID, "", "des"},
                           Bad{"cipherKeyDeriverID", "scrypt", "sha256", "aes256cbc"}}) {
        SCOPED_TRACE(std::string(bad.keyDeriverID) + " " + bad.checkSumID + " " + bad.cipherID);
        CBrickDisk::CreateOptions options = optionsFor(bad.keyDeriverID);
        options.checkSumID = bad.checkSumID;
        options.cipherID = bad.cipherID;
        const auto checked = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options, kFolder); });
        ASSERT_TRUE(checked);
        EXPECT_EQ(checked->getProps().lookup("field").toUTF8(), bad.field) << checked->toString().toUTF8();
        const auto created = errorOf<CError>([&] { CBrickDisk::create(fs.get(), kFolder, "secret", options); });
        ASSERT_TRUE(created);
        EXPECT_EQ(created->getProps().lookup("field").toUTF8(), bad.field);
        EXPECT_FALSE(fs->pathExists(kFolder));
    }
}

TEST_F(BrickDiskCreateOptionsTest, SizesOutsideTheLimitsAreRefusedInTheirOrder)
{
    CBrickDisk::CreateOptions options = optionsFor(CBrickDiskHeader::kPBKDF2DeriverID);
    options.brickSize = 3000;
    options.diskSize = 0;
    options.compressorID = "lz5";
    const auto brickSize = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options, kFolder); });
    ASSERT_TRUE(brickSize);
    EXPECT_EQ(brickSize->getProps().lookup("field"), "brickSize");
    options.brickSize = 4096;
    const auto diskSize = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options, kFolder); });
    ASSERT_TRUE(diskSize);
    EXPECT_EQ(diskSize->getProps().lookup("field"), "diskSize");
    // One brick more than the brick tree addresses.
    options.diskSize = brick::CBrickDiskHeaderLimits::getMaxBrickCount() * 4096 + 1;
    const auto tooMany = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options, kFolder); });
    ASSERT_TRUE(tooMany);
    EXPECT_EQ(tooMany->getProps().lookup("field"), "diskSize");
    options.diskSize = 4096;
    const auto compressor = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options, kFolder); });
    ASSERT_TRUE(compressor);
    EXPECT_EQ(compressor->getProps().lookup("field"), "compressID");
    options.compressorID = "zstd-19";
    CBrickDisk::checkCreateOptions(options, kFolder);
}

TEST_F(BrickDiskCreateOptionsTest, BrickSizeAndCompressorLeftOpenFollowTheDisksStore)
{
    const CBrickDisk::CreateOptions leftOpen;
    const CBrickDisk::CreateOptions local = CBrickDisk::resolveCreateOptions(leftOpen, CURI("/srv/disks/vm"));
    EXPECT_EQ(local.brickSize.value_or(0), 512 << 10);
    EXPECT_EQ(local.compressorID.value_or(""), "lz4");
    for (const char* objectStore : {"rados://pool/disks/vm", "s3://bucket/disks/vm"}) {
        SCOPED_TRACE(objectStore);
        const CBrickDisk::CreateOptions resolved = CBrickDisk::resolveCreateOptions(leftOpen, CURI(objectStore));
        EXPECT_EQ(resolved.brickSize.value_or(0), 4 << 20);
        EXPECT_EQ(resolved.compressorID.value_or(""), "zstd-3");
    }

    CBrickDisk::CreateOptions chosen;
    chosen.brickSize = 8192;
    chosen.compressorID = zo::String("null");
    const CBrickDisk::CreateOptions kept = CBrickDisk::resolveCreateOptions(chosen, CURI("s3://bucket/disks/vm"));
    EXPECT_EQ(kept.brickSize.value_or(0), 8192);
    EXPECT_EQ(kept.compressorID.value_or(""), "null");
}

TEST_F(BrickDiskCreateOptionsTest, DiskInAFolderWithoutChoicesGetsHalfAMiBBricksAndLZ4)
{
    CBrickDisk::CreateOptions options;
    options.diskSize = 1 << 20;
    options.cost = kTestKdfCost;
    const CBrickDiskHeader created = CBrickDisk::create(fs.get(), kFolder, "secret", options);

    const CBrickDiskHeader header = loadHeader();
    EXPECT_EQ(header.getBrickSize(), 512 << 10);
    EXPECT_EQ(header.getCompressID(), "lz4");
    // The header returned is the one stored.
    EXPECT_EQ(created.getBrickSize(), header.getBrickSize());
    EXPECT_EQ(created.getCompressID(), header.getCompressID());
    EXPECT_EQ(created.getDiskSize(), header.getDiskSize());
    EXPECT_EQ(created.getDiskID().getUsed(), header.getDiskID().getUsed());
    EXPECT_EQ(created.getWrappedCipherKey().getUsed(), header.getWrappedCipherKey().getUsed());
    EXPECT_TRUE(std::equal(created.getDiskID().getData(), created.getDiskID().getData() + created.getDiskID().getUsed(),
                           header.getDiskID().getData()));
}

TEST_F(BrickDiskCreateOptionsTest, BrickSizesOutsideTheLimitsAreRefusedAsGiven)
{
    CBrickDisk::CreateOptions options = optionsFor(CBrickDiskHeader::kPBKDF2DeriverID);
    for (const int64 size : {int64{-1}, int64{0}, int64{1}, int64{1024}, int64{3000}, int64{128} << 20, int64{1} << 40,
                             (int64{1} << 40) + 4096, std::numeric_limits<int64>::max()}) {
        SCOPED_TRACE(size);
        options.brickSize = size;
        const auto refused = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options, kFolder); });
        ASSERT_TRUE(refused);
        EXPECT_EQ(refused->getProps().lookup("field"), "brickSize");
        // The size itself, not a narrowed one.
        EXPECT_EQ(refused->getProps().lookup("value"), zo::toDecimalString(size));
        EXPECT_EQ(testsupport::messageOf(*refused),
                  "Invalid brick size: " + std::to_string(size) + " (a power of two from 4096 to 67108864).");
    }
    for (const int64 size : {int64{4096}, int64{1} << 20, int64{64} << 20}) {
        options.brickSize = size;
        EXPECT_NO_THROW(CBrickDisk::checkCreateOptions(options, kFolder)) << size;
    }
}

TEST_F(BrickDiskCreateOptionsTest, DiskSizeIsRefusedBeyondTheBricksTheTreeAddresses)
{
    const int64 maxBricks = brick::CBrickDiskHeaderLimits::getMaxBrickCount();
    CBrickDisk::CreateOptions options = optionsFor(CBrickDiskHeader::kPBKDF2DeriverID);
    options.brickSize = 4096;
    options.diskSize = maxBricks * 4096;
    EXPECT_NO_THROW(CBrickDisk::checkCreateOptions(options, kFolder));
    // 1024 TiB in 4 KiB bricks: 2^38 bricks, more than the tree holds.
    options.diskSize = int64{1} << 50;
    EXPECT_EQ(CBrickDiskHeader::countBricks(options.diskSize, 4096), int64{1} << 38);
    EXPECT_GT(CBrickDiskHeader::countBricks(options.diskSize, 4096), maxBricks);
    const auto refused = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options, kFolder); });
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->getProps().lookup("field"), "diskSize");
    // Larger bricks hold it.
    options.brickSize = 64 << 20;
    EXPECT_NO_THROW(CBrickDisk::checkCreateOptions(options, kFolder));
}

TEST(BrickDiskHeaderBrickCount, CountsTheLastBrickCutShortWithoutOverflow)
{
    EXPECT_EQ(CBrickDiskHeader::countBricks(0, 4096), 0);
    EXPECT_EQ(CBrickDiskHeader::countBricks(1, 4096), 1);
    EXPECT_EQ(CBrickDiskHeader::countBricks(4096, 4096), 1);
    EXPECT_EQ(CBrickDiskHeader::countBricks(4097, 4096), 2);
    const int64 max = std::numeric_limits<int64>::max();
    EXPECT_EQ(CBrickDiskHeader::countBricks(max, 64 << 20), max / (64 << 20) + 1);
    EXPECT_EQ(CBrickDiskHeader::countBricks(4096, 0), 0);
}

} // namespace
