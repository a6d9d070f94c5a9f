// Brick files under the cipher ID "aes256gcm": a key of their own per file,
// the tag in place of both digests, the head and the chain bound in as
// associated data.
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "seal/KeyDerivation.h"
#include "support/BrickTestHelpers.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace {

using brick::CBrickDataPreparer;
using testsupport::Bytes;
using testsupport::Key;

constexpr int kBrickSize = 4096;
// "BRICK", the two versions, the brick index and the salt.
constexpr int kSaltOffset = 5 + 2 + 2 + 8;
constexpr int kHeadSize = kSaltOffset + 32;
constexpr int kTagSize = 16;

brick::CBrickDiskHeader sealedHeader(const char* compressID = "lz4")
{
    brick::CBrickDiskHeader header = testsupport::makeBrickHeader(kBrickSize, 3, 256, "aes256gcm");
    header.setCheckSumHashID("hmac-sha256");
    header.setCompressID(compressID);
    return header;
}

Key keyOf(zo::uint8 seed)
{
    Key key(32);
    for (int i = 0; i < 32; ++i)
        key[i] = static_cast<zo::uint8>(seed + i);
    return key;
}

Bytes randomBytes(int size, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<zo::uint8>(random());
    return bytes;
}

Bytes textBytes(int size)
{
    const std::string line = "A brick of text compresses well. ";
    Bytes bytes(size);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<zo::uint8>(line[static_cast<size_t>(i) % line.size()]);
    return bytes;
}

std::string unprepareMessage(CBrickDataPreparer& preparer, const Bytes& file, zo::int64 index)
{
    Bytes plain;
    try {
        preparer.unprepareData(file, plain, index);
    } catch (const zo::CError& e) {
        return e.what();
    }
    return std::string();
}

// HKDF-SHA256 of `key` with `info`, no salt, 32 bytes.
Key derived(const Key& key, const std::string& info)
{
    Key out(32);
    seal::deriveKey_HKDF_SHA256(key.getData(), key.getUsed(), nullptr, 0, info.data(), static_cast<int>(info.size()),
                                32, out.getData());
    return out;
}

class AuthenticatedCipherBrick : public ::testing::Test {
protected:
    CBrickDataPreparer preparer{sealedHeader(), keyOf(1)};
    const Bytes plain = testsupport::patternBytes(kBrickSize, 7);

    Bytes prepared(zo::int64 index, const Bytes& source)
    {
        Bytes file;
        preparer.prepareData(source, file, index);
        return file;
    }
    std::string messageWithFlippedByte(int offset)
    {
        Bytes file = prepared(4, plain);
        file[offset] ^= 0x80;
        return unprepareMessage(preparer, file, 4);
    }
};

TEST_F(AuthenticatedCipherBrick, RestoresZeroRandomCompressibleAndEmptyBricks)
{
    for (const Bytes& source :
         {testsupport::zeroBytes(kBrickSize), randomBytes(kBrickSize, 3), textBytes(kBrickSize), plain, Bytes()}) {
        Bytes restored;
        preparer.unprepareData(prepared(77, source), restored, 77);
        EXPECT_TRUE(testsupport::sameBytes(restored, source)) << source.getUsed();
    }
}

TEST_F(AuthenticatedCipherBrick, CompressesBeforeEncryptingAndAddsOnlyHeadAndTag)
{
    EXPECT_LT(prepared(0, textBytes(kBrickSize)).getUsed(), kBrickSize / 4);
    CBrickDataPreparer uncompressed(sealedHeader("null"), keyOf(1));
    Bytes file;
    uncompressed.prepareData(plain, file, 0);
    EXPECT_EQ(file.getUsed(), kHeadSize + kBrickSize + kTagSize);
}

TEST_F(AuthenticatedCipherBrick, LaysOutIDVersionsIndexAndAFreshSalt)
{
    const Bytes first = prepared(0x0102030405060708, plain);
    const Bytes second = prepared(0x0102030405060708, plain);
    const zo::uint8 head[] = {'B', 'R', 'I', 'C', 'K', 1, 0, 1, 0, 8, 7, 6, 5, 4, 3, 2, 1};
    ASSERT_EQ(std::memcmp(first.getData(), head, sizeof(head)), 0);
    EXPECT_EQ(std::memcmp(second.getData(), head, sizeof(head)), 0);
    EXPECT_NE(std::memcmp(first.getData() + kSaltOffset, second.getData() + kSaltOffset, 32), 0);
    EXPECT_NE(std::memcmp(first.getData() + kHeadSize, second.getData() + kHeadSize, 32), 0);
}

TEST_F(AuthenticatedCipherBrick, FollowsTheDocumentedKeyAndAssociatedData)
{
    const Key diskKey = keyOf(1);
    CBrickDataPreparer uncompressed(sealedHeader("null"), diskKey);
    Bytes file;
    uncompressed.prepareData(plain, file, 9);

    const Key brickKeyBase = derived(diskKey, "brickdisk brick key");
    const zo::P<seal::IDigestContext> hmac = seal::createHMACSHA256Context(brickKeyBase.getData(), 32);
    hmac->update(file.getData() + kSaltOffset, 32);
    hmac->finish();
    Key brickKey(32);
    std::memcpy(brickKey.getData(), hmac->getDigest(), 32);
    Bytes associated;
    const std::string label = "brickdisk aes256gcm brick";
    associated.append(reinterpret_cast<const zo::uint8*>(label.data()), static_cast<int>(label.size()));
    const Key chain = derived(diskKey, "brickdisk chain identity");
    associated.append(chain.getData(), 32);
    associated.append(file.getData(), kHeadSize);

    const zo::uint8 nonce[12] = {};
    Bytes restored;
    ASSERT_TRUE(seal::CCipherManager()
                    .getAEADCipher("aes256gcm")
                    ->decryptWithNonce(brickKey, nonce, associated.getData(), associated.getUsed(),
                                       file.getData() + kHeadSize, file.getUsed() - kHeadSize, restored));
    EXPECT_TRUE(testsupport::sameBytes(restored, plain));
}

TEST_F(AuthenticatedCipherBrick, HasNoPlainDigestButBindsTheIndex)
{
    EXPECT_FALSE(preparer.hasPlainDigest());
    EXPECT_TRUE(preparer.bindsBrickIndex());
    CBrickDataPreparer digested(testsupport::makeBrickHeader(kBrickSize), testsupport::makeBrickKey("aes256cbc"));
    EXPECT_TRUE(digested.hasPlainDigest());
}

TEST_F(AuthenticatedCipherBrick, AFlippedTagSaltIndexVersionOrCiphertextIsCorruption)
{
    const int tagOffset = prepared(4, plain).getUsed() - kTagSize;
    for (const int offset : {0, 5, 7, 9, 16, kSaltOffset, kSaltOffset + 31, kHeadSize, tagOffset, tagOffset + 15})
        EXPECT_EQ(messageWithFlippedByte(offset), "Brick file is corrupted.") << "byte " << offset;
}

TEST_F(AuthenticatedCipherBrick, EveryTruncationOrExtensionIsCorruption)
{
    const Bytes file = prepared(4, plain);
    for (int size = 0; size < file.getUsed(); ++size) {
        Bytes cut;
        cut.append(file.getData(), size);
        EXPECT_EQ(unprepareMessage(preparer, cut, 4), "Brick file is corrupted.") << size << " bytes";
    }
    Bytes extended(file);
    extended.append(file.getData(), 1);
    EXPECT_EQ(unprepareMessage(preparer, extended, 4), "Brick file is corrupted.");
}

TEST_F(AuthenticatedCipherBrick, ABrickOfAnotherIndexNamesItsIndex)
{
    const Bytes moved = prepared(3, plain);
    Bytes restored;
    try {
        preparer.unprepareData(moved, restored, 4);
        FAIL() << "a brick file of index 3 was read at index 4";
    } catch (const zo::CError& e) {
        EXPECT_STREQ(e.what(), "Brick file belongs to another brick index.");
        EXPECT_EQ(e.getProps().lookup("storedBrickIndex"), "3");
    }
}

TEST_F(AuthenticatedCipherBrick, ABrickOfADiskWithAnotherKeyIsCorruption)
{
    CBrickDataPreparer foreign(sealedHeader(), keyOf(2));
    Bytes file;
    foreign.prepareData(plain, file, 4);
    EXPECT_EQ(unprepareMessage(preparer, file, 4), "Brick file is corrupted.");
}

TEST_F(AuthenticatedCipherBrick, ABrickOfTheDigestedFormatIsCorruption)
{
    brick::CBrickDiskHeader digestedHeader = sealedHeader();
    digestedHeader.setCipherID("aes256cbc");
    CBrickDataPreparer digested(digestedHeader, keyOf(1));
    Bytes file;
    digested.prepareData(plain, file, 4);
    EXPECT_EQ(unprepareMessage(preparer, file, 4), "Brick file is corrupted.");
    EXPECT_EQ(unprepareMessage(digested, prepared(4, plain), 4), "Brick file is corrupted.");
}

TEST(AuthenticatedCipherBrickSetUp, NeedsTheIndexBoundChecksum)
{
    brick::CBrickDiskHeader header = sealedHeader();
    header.setCheckSumHashID("sha256");
    try {
        CBrickDataPreparer preparer(header, keyOf(1));
        FAIL() << "aes256gcm was set up with sha256 digests";
    } catch (const zo::CError& e) {
        EXPECT_STREQ(e.what(), "An authenticated cipher needs the checksum ID hmac-sha256.");
        EXPECT_EQ(e.getProps().lookup("cipherID"), "aes256gcm");
    }
}

} // namespace
