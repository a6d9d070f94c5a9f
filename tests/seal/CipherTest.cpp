#include "seal/Cipher.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<zo::uint8>;

Bytes randomBytes(size_t size, unsigned seed)
{
    std::mt19937 rng(seed);
    Bytes bytes(size);
    for (auto& b : bytes)
        b = static_cast<zo::uint8>(rng());
    return bytes;
}

zo::TCryptBuffer<zo::uint8> keyOfSize(int size, zo::uint8 fill = 0x5A)
{
    zo::TCryptBuffer<zo::uint8> key(size);
    if (size > 0)
        std::memset(key.getData(), fill, static_cast<size_t>(size));
    return key;
}

Bytes bytesOf(const zo::TBuffer<zo::uint8>& buffer)
{
    return Bytes(buffer.getData(), buffer.getData() + buffer.getUsed());
}

// --- manager ---------------------------------------------------------------

TEST(CipherManager, MakesAES256CBCWithItsSizes)
{
    auto cipher = seal::CCipherManager().getCipher("aes256cbc");
    ASSERT_TRUE(cipher);
    EXPECT_EQ(cipher->getID(), "aes256cbc");
    EXPECT_EQ(cipher->getKeySize(), 32);
    EXPECT_EQ(cipher->getMaxPrefixSize(), 16);
    EXPECT_EQ(cipher->getMaxPaddingSize(), 16);
}

TEST(CipherManager, MakesNullCipherWithoutOverhead)
{
    auto cipher = seal::CCipherManager().getCipher("null");
    ASSERT_TRUE(cipher);
    EXPECT_EQ(cipher->getID(), "null");
    EXPECT_EQ(cipher->getKeySize(), 0);
    EXPECT_EQ(cipher->getMaxPrefixSize(), 0);
    EXPECT_EQ(cipher->getMaxPaddingSize(), 0);
}

TEST(CipherManager, RefusesUnknownCipherID)
{
    seal::CCipherManager manager;
    for (const char* id : {"aes128cbc", "AES256CBC", "", "aes256cbc "}) {
        try {
            manager.getCipher(id);
            ADD_FAILURE() << "no error for cipher ID '" << id << "'";
        } catch (const zo::CError& e) {
            EXPECT_EQ(e.getMessage(), "Unknown cipher ID: " + zo::String(id));
        }
    }
}

// --- AES-256-CBC -------------------------------------------------------------

class AES256CBCCipher : public ::testing::Test {
protected:
    zo::P<seal::ICipher> cipher = seal::CCipherManager().getCipher("aes256cbc");
    zo::TCryptBuffer<zo::uint8> key = keyOfSize(32);

    zo::TBuffer<zo::uint8> encrypt(const Bytes& plain)
    {
        zo::TBuffer<zo::uint8> out;
        cipher->encrypt(key, plain.data(), static_cast<int>(plain.size()), out, false, 0);
        return out;
    }
    Bytes decrypt(const Bytes& ciphertext)
    {
        zo::TBuffer<zo::uint8> out;
        cipher->decrypt(key, ciphertext.data(), static_cast<int>(ciphertext.size()), out, false, 0);
        return bytesOf(out);
    }
};

class AES256CBCRoundTrip : public AES256CBCCipher, public ::testing::WithParamInterface<int> {};

TEST_P(AES256CBCRoundTrip, DecryptRestoresPlaintextFromCiphertextAlone)
{
    const int size = GetParam();
    const Bytes plain = randomBytes(static_cast<size_t>(size), static_cast<unsigned>(size) + 1);
    const auto ciphertext = encrypt(plain);

    // IV plus the message padded to the next whole block (a full block when it
    // is whole already).
    EXPECT_EQ(ciphertext.getUsed(), 16 + (size / 16 + 1) * 16);
    EXPECT_LE(ciphertext.getUsed(), cipher->getMaxPrefixSize() + size + cipher->getMaxPaddingSize());
    if (size >= 16) {
        EXPECT_NE(std::memcmp(ciphertext.getData() + 16, plain.data(), 16), 0);
    }

    auto other = seal::CCipherManager().getCipher("aes256cbc");
    zo::TBuffer<zo::uint8> restored;
    other->decrypt(key, ciphertext.getData(), ciphertext.getUsed(), restored, false, 0);
    EXPECT_EQ(bytesOf(restored), plain);
}

INSTANTIATE_TEST_SUITE_P(Sizes, AES256CBCRoundTrip, ::testing::Values(0, 1, 15, 16, 17, 4096, 524288));

TEST_F(AES256CBCCipher, DrawsAFreshIVForEveryEncryption)
{
    const Bytes plain(100, 0x42);
    const auto first = encrypt(plain);
    const auto second = encrypt(plain);
    ASSERT_EQ(first.getUsed(), second.getUsed());
    EXPECT_NE(std::memcmp(first.getData(), second.getData(), 16), 0);
    EXPECT_FALSE(first == second);
    EXPECT_EQ(decrypt(bytesOf(first)), plain);
    EXPECT_EQ(decrypt(bytesOf(second)), plain);
}

TEST_F(AES256CBCCipher, EncryptAppendsAfterExistingBytes)
{
    const Bytes plain = randomBytes(33, 7);
    zo::TBuffer<zo::uint8> out(reinterpret_cast<const zo::uint8*>("HEAD"), 4);
    cipher->encrypt(key, plain.data(), static_cast<int>(plain.size()), out, true, 0);
    ASSERT_EQ(out.getUsed(), 4 + 16 + 48);
    EXPECT_EQ(std::memcmp(out.getData(), "HEAD", 4), 0);
    EXPECT_EQ(decrypt(Bytes(out.getData() + 4, out.getData() + out.getUsed())), plain);
}

TEST_F(AES256CBCCipher, EncryptReplacesExistingBytes)
{
    const Bytes plain = randomBytes(33, 8);
    zo::TBuffer<zo::uint8> out(reinterpret_cast<const zo::uint8*>("HEAD"), 4);
    cipher->encrypt(key, plain.data(), static_cast<int>(plain.size()), out, false, 0);
    ASSERT_EQ(out.getUsed(), 16 + 48);
    EXPECT_EQ(decrypt(bytesOf(out)), plain);
}

TEST_F(AES256CBCCipher, DecryptAppendsOrReplaces)
{
    const Bytes plain = randomBytes(20, 9);
    const auto ciphertext = encrypt(plain);

    zo::TBuffer<zo::uint8> appended(reinterpret_cast<const zo::uint8*>("HEAD"), 4);
    cipher->decrypt(key, ciphertext.getData(), ciphertext.getUsed(), appended, true, 0);
    ASSERT_EQ(appended.getUsed(), 24);
    EXPECT_EQ(std::memcmp(appended.getData(), "HEAD", 4), 0);
    EXPECT_EQ(Bytes(appended.getData() + 4, appended.getData() + 24), plain);

    zo::TBuffer<zo::uint8> replaced(reinterpret_cast<const zo::uint8*>("HEAD"), 4);
    cipher->decrypt(key, ciphertext.getData(), ciphertext.getUsed(), replaced, false, 0);
    EXPECT_EQ(bytesOf(replaced), plain);
}

TEST_F(AES256CBCCipher, WritesInPlaceIntoReservedRoom)
{
    // With room reserved for the worst case the buffer is never moved.
    const Bytes plain = randomBytes(5000, 10);
    zo::TBuffer<zo::uint8> out;
    out.reserve(cipher->getMaxPrefixSize() + 5000 + cipher->getMaxPaddingSize());
    const zo::uint8* const data = out.getData();
    cipher->encrypt(key, plain.data(), 5000, out, false, 0);
    EXPECT_EQ(out.getData(), data);

    zo::TBuffer<zo::uint8> back;
    back.reserve(out.getUsed());
    const zo::uint8* const backData = back.getData();
    cipher->decrypt(key, out.getData(), out.getUsed(), back, false, 0);
    EXPECT_EQ(back.getData(), backData);
    EXPECT_EQ(bytesOf(back), plain);
}

TEST_F(AES256CBCCipher, RefusesKeyOfWrongLength)
{
    const Bytes plain(10, 1);
    const auto ciphertext = encrypt(plain);
    for (int size : {0, 16, 31, 33}) {
        const auto wrongKey = keyOfSize(size);
        zo::TBuffer<zo::uint8> out;
        EXPECT_THROW(cipher->encrypt(wrongKey, plain.data(), 10, out, false, 0), zo::CInvalidArgError) << size;
        EXPECT_THROW(cipher->decrypt(wrongKey, ciphertext.getData(), ciphertext.getUsed(), out, false, 0),
                     zo::CInvalidArgError)
            << size;
    }
}

TEST_F(AES256CBCCipher, RefusesCiphertextOfBadLength)
{
    const auto ciphertext = encrypt(Bytes(40, 3)); // 16 + 48 bytes
    for (int size : {0, 1, 15, 16, 31, 33, 63}) {
        zo::TBuffer<zo::uint8> out;
        try {
            cipher->decrypt(key, ciphertext.getData(), size, out, false, 0);
            ADD_FAILURE() << "no error for " << size << " bytes";
        } catch (const zo::CError& e) {
            EXPECT_EQ(e.getMessage(), "Invalid size of AES-256-CBC ciphertext.");
            EXPECT_EQ(e.getProps().lookup("size"), zo::toDecimalString(size));
        }
    }
}

TEST_F(AES256CBCCipher, RefusesCiphertextCutByAWholeBlock)
{
    // Without its padding block the last block left decrypts to plaintext
    // ending in 'A' (0x41), which is no valid padding.
    const auto ciphertext = encrypt(Bytes(64, 'A'));
    zo::TBuffer<zo::uint8> out;
    EXPECT_THROW(cipher->decrypt(key, ciphertext.getData(), ciphertext.getUsed() - 16, out, false, 0), zo::CError);
}

TEST_F(AES256CBCCipher, RefusesBadPadding)
{
    // Flipping the lowest bit of the last byte of the block before the padding
    // block turns the padding byte 0x10 into 0x11.
    auto ciphertext = bytesOf(encrypt(Bytes(32, 7)));
    ciphertext[ciphertext.size() - 17] ^= 1;
    zo::TBuffer<zo::uint8> out(reinterpret_cast<const zo::uint8*>("HEAD"), 4);
    try {
        cipher->decrypt(key, ciphertext.data(), static_cast<int>(ciphertext.size()), out, true, 0);
        ADD_FAILURE() << "bad padding accepted";
    } catch (const zo::CError& e) {
        EXPECT_EQ(e.getMessage(), "AES-256-CBC decryption failed: wrong key or damaged ciphertext.");
    }
    EXPECT_EQ(out.getUsed(), 4);
}

TEST_F(AES256CBCCipher, WrongKeyNeverRestoresThePlaintext)
{
    const Bytes plain = randomBytes(1000, 11);
    const auto ciphertext = bytesOf(encrypt(plain));
    for (zo::uint8 fill = 0; fill < 32; ++fill) {
        const auto otherKey = keyOfSize(32, fill);
        zo::TBuffer<zo::uint8> out;
        try {
            cipher->decrypt(otherKey, ciphertext.data(), static_cast<int>(ciphertext.size()), out, false, 0);
            EXPECT_NE(bytesOf(out), plain);
        } catch (const zo::CError&) {
            EXPECT_EQ(out.getUsed(), 0);
        }
    }
}

TEST_F(AES256CBCCipher, DamagedCiphertextThrowsOrDecryptsToSomethingNoLonger)
{
    const Bytes plain = randomBytes(300, 12);
    const auto ciphertext = bytesOf(encrypt(plain));
    std::mt19937 rng(13);
    for (int round = 0; round < 500; ++round) {
        Bytes damaged = ciphertext;
        if (round % 2 == 0)
            damaged.resize(rng() % damaged.size());
        else
            damaged[rng() % damaged.size()] ^= static_cast<zo::uint8>(1u << (rng() % 8));
        zo::TBuffer<zo::uint8> out;
        try {
            cipher->decrypt(key, damaged.data(), static_cast<int>(damaged.size()), out, false, 0);
            EXPECT_LE(out.getUsed(), static_cast<int>(damaged.size()) - 17);
            EXPECT_NE(bytesOf(out), plain);
        } catch (const zo::CError&) {
        }
    }
}

TEST_F(AES256CBCCipher, RefusesNonZeroFlagsAndNegativeSize)
{
    const Bytes plain(10, 1);
    zo::TBuffer<zo::uint8> out;
    EXPECT_THROW(cipher->encrypt(key, plain.data(), 10, out, false, 1), zo::CInvalidArgError);
    EXPECT_THROW(cipher->encrypt(key, plain.data(), -1, out, false, 0), zo::CInvalidArgError);
    EXPECT_THROW(cipher->decrypt(key, plain.data(), -1, out, false, 0), zo::CInvalidArgError);
}

// --- null cipher ---------------------------------------------------------------

TEST(NullCipher, CopiesBytesBothWaysWhateverTheKey)
{
    auto cipher = seal::CCipherManager().getCipher("null");
    const Bytes plain = randomBytes(1000, 14);
    zo::TBuffer<zo::uint8> encrypted;
    cipher->encrypt(keyOfSize(0), plain.data(), 1000, encrypted, false, 0);
    EXPECT_EQ(bytesOf(encrypted), plain);
    zo::TBuffer<zo::uint8> decrypted;
    cipher->decrypt(keyOfSize(32), encrypted.getData(), encrypted.getUsed(), decrypted, false, 0);
    EXPECT_EQ(bytesOf(decrypted), plain);
}

TEST(NullCipher, AppendsOrReplaces)
{
    auto cipher = seal::CCipherManager().getCipher("null");
    zo::TBuffer<zo::uint8> out(reinterpret_cast<const zo::uint8*>("HEAD"), 4);
    cipher->encrypt(keyOfSize(0), "tail", 4, out, true, 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.getData()), 8), "HEADtail");
    cipher->decrypt(keyOfSize(0), "new", 3, out, false, 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.getData()), static_cast<size_t>(out.getUsed())), "new");
    cipher->encrypt(keyOfSize(0), nullptr, 0, out, false, 0);
    EXPECT_EQ(out.getUsed(), 0);
}

} // namespace
