#include "brick/format/BrickDiskHeader.h"

#include "RecordBytes.h"
#include "brick/format/BrickDiskError.h"

#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <climits>
#include <initializer_list>
#include <string>
#include <typeinfo>
#include <vector>

using brick::CBrickDiskAuxFileBase;
using brick::CBrickDiskError;
using brick::CBrickDiskHeader;
using recordtest::RecordBytes;
using zo::CError;
using zo::CIOError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using zo::TBuffer;
using zo::uint8;

namespace {

TBuffer<uint8> bytes(const std::vector<uint8>& values)
{
    return TBuffer<uint8>(values.data(), static_cast<int>(values.size()));
}

std::vector<uint8> toVector(const TBuffer<uint8>& buffer)
{
    return std::vector<uint8>(buffer.getData(), buffer.getData() + buffer.getUsed());
}

std::vector<uint8> sixteenBytes()
{
    return {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
}

// A header that loads and whose every stored field differs from the
// defaults, but for the key deriver (the other one changes the layout).
CBrickDiskHeader makeCustomHeader()
{
    CBrickDiskHeader header;
    header.setVersion(2);
    header.setMinReaderVersion(1);
    header.setMinWriterVersion(3);
    header.setBrickSize(0x10000);
    header.setPayloadBlockSize(4096);
    header.setDiskSize(0x123456789A);
    header.setCheckSumHashID("sha256");
    header.setCryptoHashID("md5");
    header.setCipherID("null");
    header.setCipherKeyHash(bytes(sixteenBytes()));
    header.setCipherKeyDerivationSalt(bytes({0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22}));
    header.setCipherKeyDerivationIterations(20000);
    header.setCompressID("zlib-6");
    return header;
}

// The record that makeCustomHeader() must produce, built field by field.
RecordBytes customHeaderRecord()
{
    RecordBytes record;
    record.text("BRCKDISK")
        .int64(2)
        .int64(1)
        .int64(3)
        .int32(0x10000)
        .int32(4096)
        .int64(0x123456789A)
        .string("sha256")
        .string("md5")
        .string("null")
        .int32(16)
        .raw(sixteenBytes())
        .string("zlib-6")
        .string("PKCS5-PBKDF2-HMAC-SHA1")
        .int32(8)
        .raw({0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22})
        .int64(20000);
    return record;
}

// The record of a default header up to, not including, the minReaderVersion.
RecordBytes defaultRecordStart()
{
    RecordBytes record;
    record.text("BRCKDISK").int64(1);
    return record;
}

// The fields of a default header after the minReaderVersion.
RecordBytes& appendDefaultRecordRest(RecordBytes& record)
{
    return record.int64(1)
        .int32(0x80000)
        .int32(1)
        .int64(-1)
        .string("md5")
        .string("sha256")
        .string("aes256cbc")
        .int32(0)
        .string("lz4")
        .string("PKCS5-PBKDF2-HMAC-SHA1")
        .int32(0)
        .int64(10000);
}

// The default header with what it lacks to load: a disk size, a key hash of
// its digest's length and a salt.
CBrickDiskHeader makeLoadableDefaultHeader()
{
    CBrickDiskHeader header;
    header.setDiskSize(0x100000);
    header.setCipherKeyHash(bytes(std::vector<uint8>(32, 0x5A)));
    header.setCipherKeyDerivationSalt(bytes(std::vector<uint8>(8, 0xA5)));
    return header;
}

class BrickDiskHeaderStore : public ::testing::Test {
protected:
    void SetUp() override { fs->createFolder(folder, 0x1ff); }

    // Frames `record` as the header file of `folder`, both copies.
    void storeRecord(const RecordBytes& record)
    {
        CBrickDiskAuxFileBase::storeAuxFile(fs.get(), folder, "disk.brickdisk", record.buffer());
    }
    // The payload of the primary header file, without its digest.
    std::vector<uint8> storedRecord() const
    {
        const P<TBuffer<uint8>> file = fs->getFileData(CURI("/disk/disk.brickdisk"));
        if (!file || file->getUsed() < 16)
            return {};
        std::vector<uint8> all = toVector(*file);
        all.resize(all.size() - 16);
        return all;
    }

    template <class Check>
    void expectLoadFailure(Check check)
    {
        CBrickDiskHeader header;
        try {
            header.load(fs.get(), folder);
            ADD_FAILURE() << "load succeeded";
        } catch (const CError& error) {
            check(error);
        }
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem()};
    const CURI folder{"/disk"};
};

} // namespace

TEST(BrickDiskHeader, DefaultsDescribeAnLZ4AesDiskOfHalfMebibyteBricks)
{
    const CBrickDiskHeader header;
    EXPECT_EQ(header.getVersion(), 1);
    EXPECT_EQ(header.getMinReaderVersion(), 1);
    EXPECT_EQ(header.getMinWriterVersion(), 1);
    EXPECT_EQ(header.getBrickSize(), 524288);
    EXPECT_EQ(header.getPayloadBlockSize(), 1);
    EXPECT_EQ(header.getDiskSize(), -1);
    EXPECT_EQ(header.getCheckSumHashID(), "md5");
    EXPECT_EQ(header.getCryptoHashID(), "sha256");
    EXPECT_EQ(header.getCipherID(), "aes256cbc");
    EXPECT_EQ(header.getCipherKeyHash().getUsed(), 0);
    EXPECT_EQ(header.getCipherKeyDeriverID(), "PKCS5-PBKDF2-HMAC-SHA1");
    EXPECT_EQ(header.getCipherKeyDerivationSalt().getUsed(), 0);
    EXPECT_EQ(header.getCipherKeyDerivationIterations(), 10000);
    EXPECT_EQ(header.getCompressID(), "lz4");
    EXPECT_EQ(header.getObjectsPerTreeLevel(), 97);
    EXPECT_EQ(header.getTreeLevels(), 5);
}

TEST(BrickDiskHeader, SettersChangeWhatGettersReturn)
{
    const CBrickDiskHeader header = makeCustomHeader();
    EXPECT_EQ(header.getVersion(), 2);
    EXPECT_EQ(header.getMinWriterVersion(), 3);
    EXPECT_EQ(header.getBrickSize(), 0x10000);
    EXPECT_EQ(header.getPayloadBlockSize(), 4096);
    EXPECT_EQ(header.getDiskSize(), 0x123456789A);
    EXPECT_EQ(header.getCheckSumHashID(), "sha256");
    EXPECT_EQ(header.getCryptoHashID(), "md5");
    EXPECT_EQ(header.getCipherID(), "null");
    EXPECT_EQ(toVector(header.getCipherKeyHash()), sixteenBytes());
    EXPECT_EQ(header.getCipherKeyDeriverID(), "PKCS5-PBKDF2-HMAC-SHA1");
    EXPECT_EQ(toVector(header.getCipherKeyDerivationSalt()),
              (std::vector<uint8>{0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22}));
    EXPECT_EQ(header.getCipherKeyDerivationIterations(), 20000);
    EXPECT_EQ(header.getCompressID(), "zlib-6");
}

TEST(BrickDiskHeader, BufferSettersKeepACopyOfTheirArgument)
{
    CBrickDiskHeader header;
    TBuffer<uint8> hash = bytes({5, 6});
    header.setCipherKeyHash(hash);
    header.setCipherKeyDerivationSalt(hash);
    hash[0] = 9;
    EXPECT_EQ(toVector(header.getCipherKeyHash()), (std::vector<uint8>{5, 6}));
    EXPECT_EQ(toVector(header.getCipherKeyDerivationSalt()), (std::vector<uint8>{5, 6}));
}

TEST(BrickDiskHeader, CopyAndMoveCopyEveryField)
{
    CBrickDiskHeader original = makeCustomHeader();
    original.setTreeLevels(3);
    original.setObjectsPerTreeLevel(11);

    const CBrickDiskHeader copied(original);
    CBrickDiskHeader assigned;
    assigned = original;
    CBrickDiskHeader moveSource(original);
    const CBrickDiskHeader moved(std::move(moveSource));
    for (const CBrickDiskHeader* header : std::initializer_list<const CBrickDiskHeader*>{&copied, &assigned, &moved}) {
        EXPECT_EQ(header->getVersion(), 2);
        EXPECT_EQ(header->getDiskSize(), 0x123456789A);
        EXPECT_EQ(header->getCompressID(), "zlib-6");
        EXPECT_EQ(toVector(header->getCipherKeyHash()), sixteenBytes());
        EXPECT_EQ(toVector(header->getCipherKeyDerivationSalt()),
                  (std::vector<uint8>{0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22}));
        EXPECT_EQ(header->getTreeLevels(), 3);
        EXPECT_EQ(header->getObjectsPerTreeLevel(), 11);
    }
}

TEST(BrickDiskHeader, OnlyTheNullCipherIsUnencrypted)
{
    CBrickDiskHeader header;
    EXPECT_TRUE(header.isEncrypted());
    for (const char* cipherID : {"aes256cbc", "aes256gcm", "nul", "NULL"}) {
        header.setCipherID(cipherID);
        EXPECT_TRUE(header.isEncrypted()) << cipherID;
    }
    header.setCipherID("null");
    EXPECT_FALSE(header.isEncrypted());
}

TEST(BrickDiskHeader, HeaderURIIsDiskBrickdiskOrItsFallbackCopy)
{
    EXPECT_EQ(CBrickDiskHeader::getHeaderFilename(), "disk.brickdisk");
    EXPECT_EQ(CBrickDiskHeader::getHeaderURI(CURI("/d"), 0), CURI("/d/disk.brickdisk"));
    EXPECT_EQ(CBrickDiskHeader::getHeaderURI(CURI("/d"), 1), CURI("/d/fallback/disk.brickdisk"));
}

TEST_F(BrickDiskHeaderStore, StoredRecordMatchesTheLayoutByteForByte)
{
    makeCustomHeader().store(fs.get(), folder);
    EXPECT_EQ(storedRecord(), customHeaderRecord().bytes());
}

TEST_F(BrickDiskHeaderStore, IntegersAreLittleEndianAndVersionsSignExtendedTo64Bits)
{
    CBrickDiskHeader header = makeCustomHeader();
    header.setVersion(-2);
    header.store(fs.get(), folder);
    const std::vector<uint8> record = storedRecord();
    ASSERT_GE(record.size(), 48u);
    const std::vector<uint8> version(record.begin() + 8, record.begin() + 16);
    EXPECT_EQ(version, (std::vector<uint8>{0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    const std::vector<uint8> brickSize(record.begin() + 32, record.begin() + 36);
    EXPECT_EQ(brickSize, (std::vector<uint8>{0x00, 0x00, 0x01, 0x00}));
    const std::vector<uint8> diskSize(record.begin() + 40, record.begin() + 48);
    EXPECT_EQ(diskSize, (std::vector<uint8>{0x9A, 0x78, 0x56, 0x34, 0x12, 0x00, 0x00, 0x00}));
}

TEST_F(BrickDiskHeaderStore, DefaultHeaderRecordIs127Bytes)
{
    CBrickDiskHeader().store(fs.get(), folder);
    RecordBytes expected = defaultRecordStart().int64(1);
    appendDefaultRecordRest(expected);
    EXPECT_EQ(storedRecord(), expected.bytes());
    EXPECT_EQ(storedRecord().size(), 127u);
}

TEST_F(BrickDiskHeaderStore, StoreWritesTheFallbackCopyToo)
{
    makeCustomHeader().store(fs.get(), folder);
    const P<TBuffer<uint8>> primary = fs->getFileData(CURI("/disk/disk.brickdisk"));
    const P<TBuffer<uint8>> fallback = fs->getFileData(CURI("/disk/fallback/disk.brickdisk"));
    ASSERT_TRUE(primary);
    ASSERT_TRUE(fallback);
    EXPECT_EQ(*primary, *fallback);
}

TEST_F(BrickDiskHeaderStore, LoadReadsBackEveryStoredField)
{
    makeCustomHeader().store(fs.get(), folder);
    CBrickDiskHeader loaded;
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getVersion(), 2);
    EXPECT_EQ(loaded.getMinReaderVersion(), 1);
    EXPECT_EQ(loaded.getMinWriterVersion(), 3);
    EXPECT_EQ(loaded.getBrickSize(), 0x10000);
    EXPECT_EQ(loaded.getPayloadBlockSize(), 4096);
    EXPECT_EQ(loaded.getDiskSize(), 0x123456789A);
    EXPECT_EQ(loaded.getCheckSumHashID(), "sha256");
    EXPECT_EQ(loaded.getCryptoHashID(), "md5");
    EXPECT_EQ(loaded.getCipherID(), "null");
    EXPECT_EQ(toVector(loaded.getCipherKeyHash()), sixteenBytes());
    EXPECT_EQ(loaded.getCompressID(), "zlib-6");
    EXPECT_EQ(loaded.getCipherKeyDeriverID(), "PKCS5-PBKDF2-HMAC-SHA1");
    EXPECT_EQ(toVector(loaded.getCipherKeyDerivationSalt()),
              (std::vector<uint8>{0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x11, 0x22}));
    EXPECT_EQ(loaded.getCipherKeyDerivationIterations(), 20000);
}

TEST_F(BrickDiskHeaderStore, TreeShapeIsNotStoredAndLoadsAsNinetySevenAndFive)
{
    CBrickDiskHeader header;
    header.setObjectsPerTreeLevel(10);
    header.setTreeLevels(2);
    header.store(fs.get(), folder);
    RecordBytes expected = defaultRecordStart().int64(1);
    appendDefaultRecordRest(expected);
    EXPECT_EQ(storedRecord(), expected.bytes());

    CBrickDiskHeader loadable = makeLoadableDefaultHeader();
    loadable.setObjectsPerTreeLevel(10);
    loadable.setTreeLevels(2);
    loadable.store(fs.get(), folder);
    CBrickDiskHeader loaded;
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getObjectsPerTreeLevel(), 97);
    EXPECT_EQ(loaded.getTreeLevels(), 5);
}

TEST_F(BrickDiskHeaderStore, LoadIntoAHeaderWithAnotherTreeShapeGivesTheFixedShape)
{
    makeLoadableDefaultHeader().store(fs.get(), folder);
    CBrickDiskHeader loaded;
    loaded.setObjectsPerTreeLevel(10);
    loaded.setTreeLevels(2);
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getObjectsPerTreeLevel(), 97);
    EXPECT_EQ(loaded.getTreeLevels(), 5);
}

TEST_F(BrickDiskHeaderStore, MinReaderVersionTwoNeedsNewerSoftware)
{
    CBrickDiskHeader header;
    header.setMinReaderVersion(2);
    header.store(fs.get(), folder);
    CBrickDiskHeader loaded;
    try {
        loaded.load(fs.get(), folder);
        FAIL() << "load succeeded";
    } catch (const CBrickDiskError& error) {
        EXPECT_EQ(error.getCode(), CBrickDiskError::NewerSoftwareRequired);
        EXPECT_EQ(error.getMessage(), "A newer software version is required to access this disk.");
        EXPECT_EQ(error.getDiskFolder(), folder);
    }
}

TEST_F(BrickDiskHeaderStore, NewerSoftwareCheckComesBeforeTheRestOfTheRecord)
{
    storeRecord(defaultRecordStart().int64(2));
    expectLoadFailure([](const CError& error) {
        EXPECT_EQ(typeid(error), typeid(CBrickDiskError));
        EXPECT_EQ(error.getCode(), CBrickDiskError::NewerSoftwareRequired);
    });
}

TEST_F(BrickDiskHeaderStore, VersionSevenWithMinReaderVersionOneLoads)
{
    CBrickDiskHeader header = makeLoadableDefaultHeader();
    header.setVersion(7);
    header.setMinWriterVersion(9);
    header.store(fs.get(), folder);
    CBrickDiskHeader loaded;
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getVersion(), 7);
    EXPECT_EQ(loaded.getMinWriterVersion(), 9);
}

TEST_F(BrickDiskHeaderStore, EmptyKeyHashAndSaltAreStoredAsZeroLengths)
{
    CBrickDiskHeader header;
    header.setCipherKeyHash(bytes({1}));
    header.setCipherKeyDerivationSalt(bytes({2}));
    header.store(fs.get(), folder);
    CBrickDiskHeader empty;
    empty.store(fs.get(), folder);

    RecordBytes expected = defaultRecordStart().int64(1);
    appendDefaultRecordRest(expected);
    EXPECT_EQ(storedRecord(), expected.bytes());
}

TEST_F(BrickDiskHeaderStore, LoadKeepsOnlyTheLow32BitsOfVersionsAndIterations)
{
    RecordBytes record;
    record.text("BRCKDISK").int64(0x100000007).int64(0xFFFFFFFF00000001);
    record.int64(0x200000005)
        .int32(0x80000)
        .int32(1)
        .int64(0x100000)
        .string("md5")
        .string("md5")
        .string("aes256cbc")
        .int32(16)
        .raw(sixteenBytes())
        .string("lz4")
        .string("PKCS5-PBKDF2-HMAC-SHA1")
        .int32(8)
        .raw({1, 2, 3, 4, 5, 6, 7, 8})
        .int64(0x100002710);
    storeRecord(record);
    CBrickDiskHeader loaded;
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getVersion(), 7);
    EXPECT_EQ(loaded.getMinReaderVersion(), 1);
    EXPECT_EQ(loaded.getMinWriterVersion(), 5);
    EXPECT_EQ(loaded.getCipherKeyDerivationIterations(), 10000);
}

TEST_F(BrickDiskHeaderStore, LargestAllowedIterationCountRoundTrips)
{
    CBrickDiskHeader header = makeLoadableDefaultHeader();
    header.setCipherKeyDerivationIterations(10000000);
    header.store(fs.get(), folder);
    CBrickDiskHeader loaded;
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getCipherKeyDerivationIterations(), 10000000);
}

TEST_F(BrickDiskHeaderStore, LoadNamesTheFirstFieldBeyondItsLimits)
{
    CBrickDiskHeader header = makeLoadableDefaultHeader();
    header.setCipherKeyDerivationIterations(INT_MAX);
    header.store(fs.get(), folder);
    expectLoadFailure([&](const CError& error) {
        EXPECT_EQ(typeid(error), typeid(CError));
        EXPECT_EQ(error.getMessage(), "Invalid key derivation iteration count: 2147483647 (from 1000 to 10000000).");
        EXPECT_EQ(error.getProps().lookup("field"), "cipherKeyDerivationIterations");
        EXPECT_EQ(error.getProps().lookup("value"), "2147483647");
        EXPECT_EQ(error.getProps().lookup("diskFolder"), "/disk");
    });
}

TEST_F(BrickDiskHeaderStore, WrongFileIDIsRefused)
{
    RecordBytes record;
    record.text("BRCKLINK").int64(1);
    appendDefaultRecordRest(record.int64(1));
    storeRecord(record);
    expectLoadFailure([](const CError& error) {
        EXPECT_EQ(typeid(error), typeid(CError));
        EXPECT_EQ(error.getMessage(), "brickdisk header file does not start with correct file ID.");
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_TRUE(error.getDomain().isEmpty());
        EXPECT_TRUE(error.getProps().isEmpty());
    });
}

TEST_F(BrickDiskHeaderStore, RecordShorterThanTheFileIDGivesTheReadError)
{
    storeRecord(RecordBytes().text("BRCK"));
    expectLoadFailure([](const CError& error) {
        ASSERT_EQ(typeid(error), typeid(CIOError));
        EXPECT_EQ(error.getCode(), CIOError::EndOfData);
    });
}

TEST_F(BrickDiskHeaderStore, RecordEndingBeforeTheIterationCountGivesTheReadError)
{
    RecordBytes full = defaultRecordStart().int64(1);
    appendDefaultRecordRest(full);
    std::vector<uint8> cut = full.bytes();
    cut.resize(cut.size() - 1);
    storeRecord(RecordBytes().raw(cut));
    expectLoadFailure([](const CError& error) {
        ASSERT_EQ(typeid(error), typeid(CIOError));
        EXPECT_EQ(error.getCode(), CIOError::EndOfData);
    });
}

TEST_F(BrickDiskHeaderStore, KeyHashLongerThanTheRecordGivesTheReadError)
{
    RecordBytes record = defaultRecordStart().int64(1);
    record.int64(1)
        .int32(0x80000)
        .int32(1)
        .int64(-1)
        .string("md5")
        .string("sha256")
        .string("aes256cbc")
        .int32(0x7FFFFFFF);
    storeRecord(record);
    expectLoadFailure([](const CError& error) {
        ASSERT_EQ(typeid(error), typeid(CIOError));
        EXPECT_EQ(error.getCode(), CIOError::EndOfData);
    });
}

TEST_F(BrickDiskHeaderStore, NegativeSaltLengthIsInvalidData)
{
    RecordBytes record = defaultRecordStart().int64(1);
    record.int64(1)
        .int32(0x80000)
        .int32(1)
        .int64(-1)
        .string("md5")
        .string("sha256")
        .string("aes256cbc")
        .int32(0)
        .string("lz4")
        .string("PKCS5-PBKDF2-HMAC-SHA1")
        .int32(-1)
        .int64(10000);
    storeRecord(record);
    expectLoadFailure([](const CError& error) {
        ASSERT_EQ(typeid(error), typeid(CIOError));
        EXPECT_EQ(error.getCode(), CIOError::InvalidData);
    });
}

TEST_F(BrickDiskHeaderStore, BytesAfterTheLastFieldAreIgnored)
{
    RecordBytes record = customHeaderRecord();
    record.text("trailing bytes");
    storeRecord(record);
    CBrickDiskHeader loaded;
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getCipherKeyDerivationIterations(), 20000);
    EXPECT_EQ(loaded.getCompressID(), "zlib-6");
}

TEST_F(BrickDiskHeaderStore, DamagedPrimaryCopyLoadsFromFallback)
{
    makeCustomHeader().store(fs.get(), folder);
    const P<TBuffer<uint8>> file = fs->getFileData(CURI("/disk/disk.brickdisk"));
    (*file)[20] ^= 0x04;
    fs->setFileData(CURI("/disk/disk.brickdisk"), *file);
    CBrickDiskHeader loaded;
    loaded.load(fs.get(), folder);
    EXPECT_EQ(loaded.getMinWriterVersion(), 3);
}

TEST_F(BrickDiskHeaderStore, NeitherCopyReadableGivesThePrimarysErrorWithItsURI)
{
    expectLoadFailure([](const CError& error) {
        EXPECT_EQ(zo::CFileSystemError::getProblem(error.getProps()), zo::CFileSystemError::NotFound);
        EXPECT_EQ(error.getProps().lookup("uri"), "/disk/disk.brickdisk");
    });
}

TEST_F(BrickDiskHeaderStore, FileSystemErrorOfStorePassesThrough)
{
    fs->failOperation(CMemoryFileSystem::Operation::StoreFile, 1, zo::CFileSystemError::AccessDenied, true);
    try {
        CBrickDiskHeader().store(fs.get(), folder);
        FAIL() << "store succeeded";
    } catch (const zo::CFileSystemError& error) {
        EXPECT_EQ(error.getProblem(), zo::CFileSystemError::AccessDenied);
    }
    EXPECT_FALSE(fs->getFileData(CURI("/disk/fallback/disk.brickdisk")));
}

TEST(BrickDiskHeaderBrickCount, RoundsUpAndDoesNotOverflowForTheLargestSize)
{
    CBrickDiskHeader header;
    header.setBrickSize(4096);
    header.setDiskSize(3 * 4096);
    EXPECT_EQ(header.getBrickCount(), 3);
    header.setDiskSize(3 * 4096 + 1);
    EXPECT_EQ(header.getBrickCount(), 4);
    header.setDiskSize(LLONG_MAX);
    EXPECT_EQ(header.getBrickCount(), LLONG_MAX / 4096 + 1);
    header.setDiskSize(0);
    EXPECT_EQ(header.getBrickCount(), 0);
}
