// NIST SP 800-38A, F.2.5 (CBC-AES256.Encrypt) and F.2.6 (CBC-AES256.Decrypt).
#include "seal/detail/AES256CBCCipher.h"

#include "Hex.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using sealtest::fromHex;
using sealtest::toHex;

const char* const nistKey = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const char* const nistIV = "000102030405060708090a0b0c0d0e0f";
const char* const nistPlaintext = "6bc1bee22e409f96e93d7e117393172a"
                                  "ae2d8a571e03ac9c9eb76fac45af8e51"
                                  "30c81c46a35ce411e5fbc1191a0a52ef"
                                  "f69f2445df4f9b17ad2b417be66c3710";
const char* const nistCiphertext = "f58c4c04d6e5f1ba779eabfb5f7bfbd6"
                                   "9cfc4e967edb808d679f777bc6702c7d"
                                   "39f23369a9d9bacfa530e26304231461"
                                   "b2eb05e2c39be9fcda6c19078c6a9d1b";

zo::TCryptBuffer<zo::uint8> makeKey(const char* hex)
{
    const auto bytes = fromHex(hex);
    return zo::TCryptBuffer<zo::uint8>(bytes.data(), static_cast<int>(bytes.size()));
}

std::string hexOf(const zo::TBuffer<zo::uint8>& buffer, int from, int count)
{
    return toHex(buffer.getData() + from, static_cast<size_t>(count));
}

class AES256CBCKnownAnswer : public ::testing::Test {
protected:
    zo::TBuffer<zo::uint8> encryptNISTPlaintext()
    {
        zo::TBuffer<zo::uint8> out;
        const auto plain = fromHex(nistPlaintext);
        cipher->encryptWithIV(key, fromHex(nistIV).data(), plain.data(), static_cast<int>(plain.size()), out, false);
        return out;
    }

    zo::P<seal::detail::CAES256CBCCipher> cipher{new seal::detail::CAES256CBCCipher()};
    zo::TCryptBuffer<zo::uint8> key = makeKey(nistKey);
};

TEST_F(AES256CBCKnownAnswer, EncryptsNISTVectorBehindItsIV)
{
    const auto out = encryptNISTPlaintext();
    // IV, the four NIST blocks, and one block of padding for the whole-block message.
    ASSERT_EQ(out.getUsed(), 16 + 64 + 16);
    EXPECT_EQ(hexOf(out, 0, 16), nistIV);
    EXPECT_EQ(hexOf(out, 16, 64), nistCiphertext);
}

TEST_F(AES256CBCKnownAnswer, DecryptsNISTCiphertext)
{
    // The last block is the padding block, which the NIST vector lacks; it is
    // taken from the encryption.
    const auto encrypted = encryptNISTPlaintext();
    auto ciphertext = fromHex(std::string(nistIV) + nistCiphertext);
    ciphertext.insert(ciphertext.end(), encrypted.getData() + 80, encrypted.getData() + 96);

    zo::TBuffer<zo::uint8> plain;
    cipher->decrypt(key, ciphertext.data(), static_cast<int>(ciphertext.size()), plain, false, 0);
    ASSERT_EQ(plain.getUsed(), 64);
    EXPECT_EQ(hexOf(plain, 0, 64), nistPlaintext);
}

TEST_F(AES256CBCKnownAnswer, DecryptsLaterNISTBlocksWithTheBlockBeforeAsIV)
{
    // In CBC each ciphertext block is the IV of the next, so the NIST blocks
    // C1..C4 decrypt to P2..P4.
    const auto encrypted = encryptNISTPlaintext();
    auto ciphertext = fromHex(nistCiphertext);
    ciphertext.insert(ciphertext.end(), encrypted.getData() + 80, encrypted.getData() + 96);

    zo::TBuffer<zo::uint8> plain;
    cipher->decrypt(key, ciphertext.data(), static_cast<int>(ciphertext.size()), plain, false, 0);
    ASSERT_EQ(plain.getUsed(), 48);
    EXPECT_EQ(hexOf(plain, 0, 48), std::string(nistPlaintext).substr(32));
}

TEST_F(AES256CBCKnownAnswer, ReusedCipherGivesSameResultAfterDecrypting)
{
    const auto first = encryptNISTPlaintext();
    zo::TBuffer<zo::uint8> plain;
    cipher->decrypt(key, first.getData(), first.getUsed(), plain, false, 0);
    const auto second = encryptNISTPlaintext();
    EXPECT_TRUE(first == second);
}

TEST_F(AES256CBCKnownAnswer, PartialLastBlockIsPaddedPKCS7)
{
    // 60 bytes get 4 padding bytes of value 4: their last block must equal the
    // fourth block of the 64 bytes that spell that padding out.
    const auto plain = fromHex(nistPlaintext);
    auto paddedByHand = plain;
    for (int i = 60; i < 64; ++i)
        paddedByHand[i] = 4;

    zo::TBuffer<zo::uint8> padded;
    zo::TBuffer<zo::uint8> byHand;
    cipher->encryptWithIV(key, fromHex(nistIV).data(), plain.data(), 60, padded, false);
    cipher->encryptWithIV(key, fromHex(nistIV).data(), paddedByHand.data(), 64, byHand, false);
    ASSERT_EQ(padded.getUsed(), 16 + 64);
    EXPECT_EQ(hexOf(padded, 16, 48), std::string(nistCiphertext).substr(0, 96));
    EXPECT_EQ(hexOf(padded, 0, 80), hexOf(byHand, 0, 80));

    zo::TBuffer<zo::uint8> back;
    cipher->decrypt(key, padded.getData(), padded.getUsed(), back, false, 0);
    ASSERT_EQ(back.getUsed(), 60);
    EXPECT_EQ(hexOf(back, 0, 60), std::string(nistPlaintext).substr(0, 120));
}

} // namespace
