// CBrickDisk::create with CreateOptions: every choice of the header in one
// call, checked before anything is made, and the header written once.
#include "brick/chain/BrickDisk.h"

#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskHeader;
using testsupport::errorOf;
using zo::CError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

const seal::Argon2idCost kTestCost{1, 8, 1};
const CURI kFolder("/disk");

CBrickDisk::CreateOptions optionsFor(const char* keyDeriverID)
{
    CBrickDisk::CreateOptions options;
    options.diskSize = 65536;
    options.brickSize = 4096;
    options.keyDeriverID = keyDeriverID;
    options.cost = kTestCost;
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
    EXPECT_EQ(header.getCipherKeyDerivationIterations(), kTestCost.passes);
    expectWritesAndReadsBack("secret");
}

TEST_F(BrickDiskCreateOptionsTest, CostLeftToTheDefaultIsAcceptedForAnUnencryptedDisk)
{
    CBrickDisk::CreateOptions options = optionsFor(CBrickDiskHeader::kKeyWrappingDeriverID);
    options.cost = seal::Argon2idCost{0, 0, 0};
    CBrickDisk::checkCreateOptions(options);
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
        const auto checked = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options); });
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
    const auto brickSize = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options); });
    ASSERT_TRUE(brickSize);
    EXPECT_EQ(brickSize->getProps().lookup("field"), "brickSize");
    options.brickSize = 4096;
    const auto diskSize = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options); });
    ASSERT_TRUE(diskSize);
    EXPECT_EQ(diskSize->getProps().lookup("field"), "diskSize");
    // One brick more than the brick tree addresses.
    options.diskSize = brick::CBrickDiskHeaderLimits::getMaxBrickCount() * 4096 + 1;
    const auto tooMany = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options); });
    ASSERT_TRUE(tooMany);
    EXPECT_EQ(tooMany->getProps().lookup("field"), "diskSize");
    options.diskSize = 4096;
    const auto compressor = errorOf<CError>([&] { CBrickDisk::checkCreateOptions(options); });
    ASSERT_TRUE(compressor);
    EXPECT_EQ(compressor->getProps().lookup("field"), "compressID");
    options.compressorID = "zstd-19";
    CBrickDisk::checkCreateOptions(options);
}

} // namespace
