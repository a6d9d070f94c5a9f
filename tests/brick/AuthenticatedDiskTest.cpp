// Disks made by CBrickDisk::createAuthenticated: a wrapped random key,
// authenticated headers and brick files bound to their index, with either
// cipher ("aes256gcm", the default, or "aes256cbc" with keyed digests).
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "seal/Digest.h"
#include "support/DiskTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskError;
using brick::CBrickDiskHeader;
using testsupport::Bytes;
using testsupport::kTestKdfCost;
using zo::CError;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int64 kDiskSize = 8 * kBrickSize;
const char* const kPassword = "secret";
// Cheap enough for tests; the tool's default is far costlier.

class AuthenticatedDisk : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override { create("/disks/a"); }

    void create(const char* folder, const char* password = kPassword)
    {
        CBrickDisk::createAuthenticated(fs.get(), CURI(folder), kDiskSize, 1, password, "lz4", kBrickSize, kTestKdfCost,
                                        GetParam());
    }
    P<CBrickDisk> open(const char* folder = "/disks/a", const char* password = kPassword,
                       IIOStream::Access access = IIOStream::AccessReadWrite)
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(folder), password, access);
        disk->setAllowWritingWithParentDisk(true);
        return disk;
    }
    // Writes a distinct pattern into bricks 0 to 3 of the disk in `folder`.
    void fillFirstBricks(const char* folder = "/disks/a", const char* password = kPassword)
    {
        const P<CBrickDisk> disk = open(folder, password);
        for (int i = 0; i < 4; ++i)
            testsupport::writeAt(*disk, int64(i) * kBrickSize, testsupport::patternBytes(kBrickSize, 10 + i));
        disk->flushChanges();
        ASSERT_TRUE(disk->getBackgroundErrorList().empty());
    }
    CURI brickFile(int64 index, const char* folder = "/disks/a")
    {
        return testsupport::brickFileOf(*open(folder, kPassword, IIOStream::AccessRead), CURI(folder), index);
    }
    // The message of the error that reading brick `index` throws; empty
    // when the read works.
    std::string readError(int64 index)
    {
        try {
            testsupport::readAt(*open("/disks/a", kPassword, IIOStream::AccessRead), index * kBrickSize, kBrickSize);
        } catch (const CError& e) {
            return e.what();
        }
        return std::string();
    }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
};

TEST_P(AuthenticatedDisk, HeaderNamesTheAuthenticatedFormat)
{
    CBrickDiskHeader header;
    header.load(fs.get(), CURI("/disks/a"));
    EXPECT_EQ(header.getCheckSumHashID(), "hmac-sha256");
    EXPECT_EQ(header.getCipherID(), GetParam());
    EXPECT_EQ(header.getCipherKeyDeriverID(), "argon2id");
    EXPECT_EQ(header.getCryptoHashID(), "hkdf-sha256");
    EXPECT_EQ(header.getCipherKeyDerivationIterations(), kTestKdfCost.passes);
    EXPECT_EQ(header.getCipherKeyDerivationMemoryKiB(), kTestKdfCost.memoryKiB);
    EXPECT_EQ(header.getCipherKeyDerivationLanes(), kTestKdfCost.lanes);
    EXPECT_EQ(header.getCipherKeyDerivationSalt().getUsed(), 16);
    EXPECT_EQ(header.getWrappedCipherKey().getUsed(), 32 + 28);
}

TEST_P(AuthenticatedDisk, WritesAndReadsBack)
{
    fillFirstBricks();
    const P<CBrickDisk> disk = open();
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(testsupport::sameBytes(testsupport::readAt(*disk, int64(i) * kBrickSize, kBrickSize),
                                           testsupport::patternBytes(kBrickSize, 10 + i)));
}

TEST_P(AuthenticatedDisk, WrongPasswordIsRefused)
{
    const auto error = testsupport::errorOf<CBrickDiskError>([&] { open("/disks/a", "Secret"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), CBrickDiskError::IncorrectPassword);
}

TEST_P(AuthenticatedDisk, TwoDisksOfOnePasswordHaveDifferentKeys)
{
    create("/disks/b");
    fillFirstBricks();
    fillFirstBricks("/disks/b");
    // The brick files of one disk do not open under the other's key.
    fs->setFileData(brickFile(1, "/disks/b"), *fs->getFileData(brickFile(1)));
    const auto error = testsupport::errorOf<CError>(
        [&] { testsupport::readAt(*open("/disks/b", kPassword, IIOStream::AccessRead), kBrickSize, kBrickSize); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "Brick file is corrupted.");
}

TEST_P(AuthenticatedDisk, BrickCopiedOverAnotherIndexFailsToRead)
{
    fillFirstBricks();
    fs->setFileData(brickFile(2), *fs->getFileData(brickFile(1)));
    EXPECT_EQ(readError(2), "Brick file belongs to another brick index.");
    EXPECT_EQ(readError(1), "");
}

TEST_P(AuthenticatedDisk, SwappedBricksFailToRead)
{
    fillFirstBricks();
    const P<Bytes> first = fs->getFileData(brickFile(0));
    fs->setFileData(brickFile(0), *fs->getFileData(brickFile(3)));
    fs->setFileData(brickFile(3), *first);
    EXPECT_EQ(readError(0), "Brick file belongs to another brick index.");
    EXPECT_EQ(readError(3), "Brick file belongs to another brick index.");
}

TEST_P(AuthenticatedDisk, BrickCopiedToAnIndexWithoutFileFailsToRead)
{
    fillFirstBricks();
    const CURI target = brickFile(6);
    fs->setFileData(target, *fs->getFileData(brickFile(1)));
    EXPECT_EQ(readError(6), "Brick file belongs to another brick index.");
}

// Every byte of the header record changed, with the header's checksum
// made to match and both copies alike (as whoever changes it on purpose
// would do): the disk never opens.
TEST_P(AuthenticatedDisk, EverySingleByteChangeOfTheHeaderIsDetected)
{
    const CURI primary = CBrickDiskHeader::getHeaderURI(CURI("/disks/a"), 0);
    const CURI fallback = CBrickDiskHeader::getHeaderURI(CURI("/disks/a"), 1);
    const P<Bytes> original = fs->getFileData(primary);
    const int payloadSize = original->getUsed() - 16;
    for (int i = 0; i < payloadSize; ++i) {
        for (const zo::uint8 mask : {zo::uint8(0x01), zo::uint8(0xFF)}) {
            Bytes changed(original->getData(), payloadSize);
            changed[i] ^= mask;
            const P<seal::IDigestContext> md5 = seal::CDigestType_MD5().createContext();
            md5->update(changed.getData(), payloadSize);
            md5->finish();
            changed.append(md5->getDigest(), 16);
            fs->setFileData(primary, changed);
            fs->setFileData(fallback, changed);
            EXPECT_THROW(open("/disks/a", kPassword, IIOStream::AccessRead), CError) << "byte " << i;
        }
    }
    fs->setFileData(primary, *original);
    fs->setFileData(fallback, *original);
    EXPECT_NO_THROW(open());
}

TEST_P(AuthenticatedDisk, ChildKeepsZerosWhereTheParentGetsANewBrick)
{
    testsupport::createLinkedChild(fs.get(), CURI("/disks/child"), CURI("/disks/a"), kPassword);
    // Brick 5 has no file yet: the child receives a zero brick of index 5.
    {
        const P<CBrickDisk> parent = open();
        testsupport::writeAt(*parent, 5 * kBrickSize, testsupport::patternBytes(kBrickSize, 3));
        parent->flushChanges();
        ASSERT_TRUE(parent->getBackgroundErrorList().empty());
    }
    ASSERT_TRUE(fs->getFileData(brickFile(5, "/disks/child")));
    const P<CBrickDisk> child = open("/disks/child");
    EXPECT_TRUE(testsupport::sameBytes(testsupport::readAt(*child, 5 * kBrickSize, kBrickSize),
                                       testsupport::zeroBytes(kBrickSize)));
    EXPECT_TRUE(testsupport::sameBytes(testsupport::readAt(*open(), 5 * kBrickSize, kBrickSize),
                                       testsupport::patternBytes(kBrickSize, 3)));
}

TEST_P(AuthenticatedDisk, ZeroBricksOfAChildAreBoundToTheirIndex)
{
    fillFirstBricks();
    testsupport::createLinkedChild(fs.get(), CURI("/disks/child"), CURI("/disks/a"), kPassword);
    {
        const P<CBrickDisk> child = open("/disks/child");
        testsupport::writeAt(*child, 1 * kBrickSize, testsupport::zeroBytes(kBrickSize));
        testsupport::writeAt(*child, 2 * kBrickSize, testsupport::zeroBytes(kBrickSize));
        child->flushChanges();
        ASSERT_TRUE(child->getBackgroundErrorList().empty());
    }
    const P<CBrickDisk> child = open("/disks/child");
    EXPECT_TRUE(testsupport::sameBytes(testsupport::readAt(*child, kBrickSize, 2 * kBrickSize),
                                       testsupport::zeroBytes(2 * kBrickSize)));
    fs->setFileData(brickFile(2, "/disks/child"), *fs->getFileData(brickFile(1, "/disks/child")));
    EXPECT_THROW(testsupport::readAt(*open("/disks/child"), 2 * kBrickSize, kBrickSize), CError);
}

TEST_P(AuthenticatedDisk, UnencryptedDiskOpensWithoutPasswordAndBindsIndexes)
{
    create("/disks/plain", "");
    fillFirstBricks("/disks/plain", "");
    const P<CBrickDisk> disk = open("/disks/plain", "");
    const CURI folder("/disks/plain");
    fs->setFileData(testsupport::brickFileOf(*disk, folder, 2),
                    *fs->getFileData(testsupport::brickFileOf(*disk, folder, 1)));
    EXPECT_THROW(testsupport::readAt(*open("/disks/plain", ""), 2 * kBrickSize, kBrickSize), CError);
}

TEST_P(AuthenticatedDisk, KeyChecksAcceptOnlyTheUnwrappedKey)
{
    CBrickDiskHeader header;
    header.load(fs.get(), CURI("/disks/a"));
    zo::TCryptBuffer<zo::uint8> key;
    ASSERT_TRUE(CBrickDisk::isEncryptPasswordCorrect(header, kPassword, &key));
    EXPECT_EQ(key.getUsed(), 32);
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(header, key));
    key[0] ^= 1;
    EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(header, key));
    EXPECT_FALSE(CBrickDisk::isEncryptPasswordCorrect(header, "wrong", &key));
}

// A reader that knows only the password-derived keys and the "md5" and
// "sha256" digests refuses such a disk at once, by name, instead of
// reading garbage: it derives the key before anything else, and its digests
// do not include the keyed one.
TEST_P(AuthenticatedDisk, ReaderOfDerivedKeysRefusesTheDiskByItsIDs)
{
    CBrickDiskHeader header;
    header.load(fs.get(), CURI("/disks/a"));
    zo::TCryptBuffer<zo::uint8> key;
    const auto derivation =
        testsupport::errorOf<zo::CInvalidArgError>([&] { CBrickDisk::deriveCipherKey(key, kPassword, header); });
    ASSERT_TRUE(derivation);
    EXPECT_EQ(testsupport::messageOf(*derivation), "Unknown key deriver ID: argon2id");
    const auto digest = testsupport::errorOf<CError>([&] { seal::CDigestManager().getType("hmac-sha256"); });
    ASSERT_TRUE(digest);
    EXPECT_EQ(testsupport::messageOf(*digest), "Unknown digest ID: hmac-sha256");
}

TEST_P(AuthenticatedDisk, HeaderCostBeyondTheLimitIsRefusedBeforeDeriving)
{
    CBrickDiskHeader header;
    header.load(fs.get(), CURI("/disks/a"));
    header.setCipherKeyDerivationMemoryKiB(brick::CBrickDiskKeyWrap::getCostLimit().memoryKiB + 1);
    zo::TCryptBuffer<zo::uint8> key;
    EXPECT_THROW(CBrickDisk::isEncryptPasswordCorrect(header, kPassword, &key), CError);
}

INSTANTIATE_TEST_SUITE_P(EveryCipher, AuthenticatedDisk, testing::Values("aes256gcm", "aes256cbc"),
                         [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

} // namespace
