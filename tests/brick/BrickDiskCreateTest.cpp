#include "brick/chain/BrickDisk.h"

#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Digest.h"
#include "seal/KeyDerivation.h"
#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskHeader;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::propsOf;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;
using Props = std::vector<std::pair<std::string, std::string>>;

// SHA-256 of no bytes at all.
const unsigned char kSha256OfNothing[32] = {0xe3, 0xb0, 0xc4, 0x42, 0x98, 0xfc, 0x1c, 0x14, 0x9a, 0xfb, 0xf4,
                                            0xc8, 0x99, 0x6f, 0xb9, 0x24, 0x27, 0xae, 0x41, 0xe4, 0x64, 0x9b,
                                            0x93, 0x4c, 0xa4, 0x95, 0x99, 0x1b, 0x78, 0x52, 0xb8, 0x55};

Bytes sha256(const Bytes& data)
{
    const P<seal::IDigestContext> digest = seal::CDigestManager().getType("sha256")->createContext();
    digest->update(data.getData(), data.getUsed());
    digest->finish();
    return Bytes(digest->getDigest(), digest->getSize());
}

// The AES-256 key of `password` under `salt`, computed straight from PBKDF2.
Bytes pbkdf2Key(const std::string& password, const Bytes& salt, int iterations)
{
    Bytes key(32);
    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()), salt.getData(),
                                           salt.getUsed(), iterations, 32, key.getData());
    return key;
}

class BrickDiskCreateTest : public ::testing::Test {
protected:
    CBrickDiskHeader loadHeader(const CURI& folder)
    {
        CBrickDiskHeader header;
        header.load(fs.get(), folder);
        return header;
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
};

TEST_F(BrickDiskCreateTest, CreatesAMissingFolderWithItsParentsAndWritesOnlyTheCreationTimeAndTheHeader)
{
    CBrickDisk::create(fs.get(), CURI("/deep/down/disk"), 100000, 512, "secret", "zlib-6", 8192);

    EXPECT_TRUE(fs->folderExists(CURI("/deep/down/disk")));
    EXPECT_EQ(testsupport::filesBelow(fs.get(), CURI("/deep/down/disk")),
              std::vector<std::string>(
                  {"created.bricktime", "disk.brickdisk", "fallback/created.bricktime", "fallback/disk.brickdisk"}));
}

TEST_F(BrickDiskCreateTest, HeaderHoldsTheArgumentsAndTheDefaultsOfEverythingElse)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 123456789, 512, "secret", "zlib-6", 8192);

    const CBrickDiskHeader header = loadHeader(CURI("/disk"));
    EXPECT_EQ(header.getDiskSize(), 123456789);
    EXPECT_EQ(header.getPayloadBlockSize(), 512);
    EXPECT_EQ(header.getCompressID(), "zlib-6");
    EXPECT_EQ(header.getBrickSize(), 8192);
    EXPECT_EQ(header.getCipherID(), "aes256cbc");
    EXPECT_EQ(header.getCipherKeyDeriverID(), "PKCS5-PBKDF2-HMAC-SHA1");
    EXPECT_EQ(header.getCipherKeyDerivationIterations(), 10000);
    EXPECT_EQ(header.getCryptoHashID(), "sha256");
    EXPECT_EQ(header.getCheckSumHashID(), "md5");
    EXPECT_EQ(header.getVersion(), 1);
    EXPECT_EQ(header.getMinReaderVersion(), 1);
    EXPECT_EQ(header.getMinWriterVersion(), 1);
    EXPECT_EQ(header.getCipherKeyDerivationSalt().getUsed(), 8);
}

TEST_F(BrickDiskCreateTest, KeyHashIsTheSha256OfThePbkdf2KeyOfThePassword)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "pässword", "lz4", -1);

    const CBrickDiskHeader header = loadHeader(CURI("/disk"));
    const Bytes key = pbkdf2Key(zo::String("pässword").toUTF8(), header.getCipherKeyDerivationSalt(), 10000);
    EXPECT_EQ(header.getCipherKeyHash(), sha256(key));
}

TEST_F(BrickDiskCreateTest, EmptyPasswordGivesNullCipherEmptySaltAndTheDigestOfNothing)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "", "lz4", -1);

    const CBrickDiskHeader header = loadHeader(CURI("/disk"));
    EXPECT_EQ(header.getCipherID(), "null");
    EXPECT_EQ(header.getCipherKeyDerivationSalt().getUsed(), 0);
    EXPECT_EQ(header.getCipherKeyHash(), Bytes(kSha256OfNothing, 32));
}

TEST_F(BrickDiskCreateTest, DiskWithEmptyPasswordOpensOnlyWithTheEmptyPassword)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "", "lz4", -1);

    EXPECT_NO_THROW(testsupport::openDisk(fs.get(), CURI("/disk"), ""));
    EXPECT_THROW(testsupport::openDisk(fs.get(), CURI("/disk"), "anything"), brick::CBrickDiskError);
}

TEST_F(BrickDiskCreateTest, EncryptedDiskOpensWithItsPassword)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "secret", "lz4", 4096);

    const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI("/disk"), "secret");
    EXPECT_EQ(disk->getSize(), 65536);
    EXPECT_EQ(disk->getBrickSize(), 4096);
}

TEST_F(BrickDiskCreateTest, TwoDisksWithTheSamePasswordGetDifferentSaltsAndKeyHashes)
{
    CBrickDisk::create(fs.get(), CURI("/one"), 65536, 1, "secret", "lz4", -1);
    CBrickDisk::create(fs.get(), CURI("/two"), 65536, 1, "secret", "lz4", -1);

    const CBrickDiskHeader one = loadHeader(CURI("/one"));
    const CBrickDiskHeader two = loadHeader(CURI("/two"));
    EXPECT_NE(one.getCipherKeyDerivationSalt(), two.getCipherKeyDerivationSalt());
    EXPECT_NE(one.getCipherKeyHash(), two.getCipherKeyHash());
}

TEST_F(BrickDiskCreateTest, SecondCreationInTheSameFolderFailsAndLeavesTheFirstHeader)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "secret", "lz4", -1);
    const auto before = testsupport::fileContentsBelow(fs.get(), CURI("/disk"));

    const auto error =
        errorOf<CError>([&] { CBrickDisk::create(fs.get(), CURI("/disk"), 999, 7, "other", "null", 8192); });

    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "Cannot create brick disk in a folder that already contains one.");
    EXPECT_EQ(error->getDomain(), "");
    EXPECT_EQ(error->getCode(), -1);
    EXPECT_EQ(propsOf(*error), Props({{"diskFolder", "/disk"}}));
    EXPECT_FALSE(error->getCause());
    EXPECT_EQ(testsupport::fileContentsBelow(fs.get(), CURI("/disk")), before);
}

TEST_F(BrickDiskCreateTest, FolderWithOtherFilesButNoHeaderIsAccepted)
{
    fs->setFileData(CURI("/disk/notes.txt"), Bytes(reinterpret_cast<const zo::uint8*>("hello"), 5));

    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "", "lz4", -1);

    EXPECT_EQ(loadHeader(CURI("/disk")).getDiskSize(), 65536);
    EXPECT_TRUE(fs->fileExists(CURI("/disk/notes.txt")));
}

TEST_F(BrickDiskCreateTest, OnlyThePrimaryHeaderCopyCountsAsAnExistingDisk)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "", "lz4", -1);
    fs->deleteFile(CBrickDiskHeader::getHeaderURI(CURI("/disk"), 0), false);

    CBrickDisk::create(fs.get(), CURI("/disk"), 777, 1, "", "lz4", -1);

    EXPECT_EQ(loadHeader(CURI("/disk")).getDiskSize(), 777);
}

TEST_F(BrickDiskCreateTest, BrickSizeMinusOneKeepsTheDefaultOf512KiB)
{
    CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "", "lz4", -1);

    EXPECT_EQ(loadHeader(CURI("/disk")).getBrickSize(), 524288);
}

TEST_F(BrickDiskCreateTest, PowerOfTwoBrickSizesFrom4KiBTo64MiBAreStoredAsGiven)
{
    CBrickDisk::create(fs.get(), CURI("/small"), 65536, 1, "", "lz4", 4096);
    CBrickDisk::create(fs.get(), CURI("/large"), 65536, 1, "", "lz4", 64 << 20);

    EXPECT_EQ(loadHeader(CURI("/small")).getBrickSize(), 4096);
    EXPECT_EQ(loadHeader(CURI("/large")).getBrickSize(), 64 << 20);
}

// A disk that could not be opened is never made: not even its folder.
TEST_F(BrickDiskCreateTest, ValuesOutsideTheHeaderLimitsAreRefusedBeforeAnythingIsMade)
{
    struct BadCreation {
        const char* field;
        zo::int64 diskSize;
        int payloadBlockSize;
        const char* compressorID;
        int brickSize;
    };
    const zo::int64 tooLarge = 8587340257LL * 4096 + 1;
    for (const BadCreation& bad :
         {BadCreation{"brickSize", 65536, 1, "lz4", 0}, BadCreation{"brickSize", 65536, 1, "lz4", 1000},
          BadCreation{"brickSize", 65536, 1, "lz4", 128 << 20}, BadCreation{"diskSize", 0, 1, "lz4", 4096},
          BadCreation{"diskSize", -5, 1, "lz4", 4096}, BadCreation{"diskSize", tooLarge, 1, "lz4", 4096},
          BadCreation{"payloadBlockSize", 65536, 0, "lz4", 4096},
          BadCreation{"payloadBlockSize", 65536, 4097, "lz4", 4096},
          BadCreation{"compressID", 65536, 1, "zlib--1", 4096},
          BadCreation{"compressID", 65536, 1, "lzma-9-99999999999", 4096}}) {
        SCOPED_TRACE(bad.field);
        const auto error = errorOf<CError>([&] {
            CBrickDisk::create(fs.get(), CURI("/disk"), bad.diskSize, bad.payloadBlockSize, "", bad.compressorID,
                               bad.brickSize);
        });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->getProps().lookup("field").toUTF8(), bad.field) << error->toString().toUTF8();
        EXPECT_FALSE(fs->pathExists(CURI("/disk")));
    }
}

TEST_F(BrickDiskCreateTest, FolderCreationErrorPassesThroughUnchanged)
{
    fs->failOperation(Op::CreateFolderSync, 1, CFileSystemError::AccessDenied, false);

    const auto error =
        errorOf<CFileSystemError>([&] { CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "", "lz4", -1); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::AccessDenied);
    EXPECT_EQ(error->getProps().lookup("path"), "/disk");
    EXPECT_FALSE(fs->fileExists(CBrickDiskHeader::getHeaderURI(CURI("/disk"), 0)));
}

TEST_F(BrickDiskCreateTest, HeaderStoreErrorPassesThroughUnchanged)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false);

    const auto error =
        errorOf<CFileSystemError>([&] { CBrickDisk::create(fs.get(), CURI("/disk"), 65536, 1, "secret", "lz4", -1); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::NoSpace);
    EXPECT_TRUE(fs->folderExists(CURI("/disk")));
}

TEST(BrickDiskCreateLocalTest, CreatesADiskInTheLocalFileSystem)
{
    testsupport::TempFolder temp;
    const P<zo::CLocalFileSystem> local(new zo::CLocalFileSystem(2));
    const CURI folder = temp.uri() << "a"
                                   << "b";

    CBrickDisk::create(local.get(), folder, 65536, 1, "secret", "lz4", 4096);

    EXPECT_EQ(testsupport::filesBelow(local.get(), folder),
              std::vector<std::string>(
                  {"created.bricktime", "disk.brickdisk", "fallback/created.bricktime", "fallback/disk.brickdisk"}));
    const P<CBrickDisk> disk = testsupport::openDisk(local.get(), folder, "secret");
    EXPECT_EQ(disk->getSize(), 65536);
}

} // namespace
