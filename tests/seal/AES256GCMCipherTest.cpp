// The "aes256gcm" cipher: published answers, the framing of its ICipher calls
// and the refusal of anything whose tag does not check out.
#include "Hex.h"

#include "seal/Cipher.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using sealtest::fromHex;
using sealtest::toHex;

zo::TCryptBuffer<zo::uint8> keyFrom(const std::vector<std::uint8_t>& bytes)
{
    zo::TCryptBuffer<zo::uint8> key;
    key.append(bytes.data(), static_cast<int>(bytes.size()));
    return key;
}

zo::TCryptBuffer<zo::uint8> countingKey()
{
    std::vector<std::uint8_t> bytes(32);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i);
    return keyFrom(bytes);
}

std::string hexOf(const zo::TBuffer<zo::uint8>& buffer)
{
    return toHex(buffer.getData(), static_cast<size_t>(buffer.getUsed()));
}

class AES256GCMCipher : public testing::Test {
protected:
    zo::P<seal::IAEADCipher> m_cipher = seal::CCipherManager().getAEADCipher("aes256gcm");
    const std::vector<std::uint8_t> m_nonce = fromHex("6465666768696a6b6c6d6e6f");
    const std::string m_aad = "associated";
    const std::string m_message = "brick bytes";

    zo::TBuffer<zo::uint8> sealed(const zo::TCryptBuffer<zo::uint8>& key)
    {
        zo::TBuffer<zo::uint8> out;
        m_cipher->encryptWithNonce(key, m_nonce.data(), m_aad.data(), static_cast<int>(m_aad.size()), m_message.data(),
                                   static_cast<int>(m_message.size()), out);
        return out;
    }
    bool opens(const zo::TBuffer<zo::uint8>& ciphertext, const std::string& aad, zo::TBuffer<zo::uint8>& out)
    {
        return m_cipher->decryptWithNonce(countingKey(), m_nonce.data(), aad.data(), static_cast<int>(aad.size()),
                                          ciphertext.getData(), ciphertext.getUsed(), out);
    }
};

TEST(CipherManager, MakesAES256GCMWithItsSizes)
{
    const zo::P<seal::ICipher> cipher = seal::CCipherManager().getCipher("aes256gcm");
    ASSERT_TRUE(cipher);
    EXPECT_EQ(cipher->getID(), "aes256gcm");
    EXPECT_EQ(cipher->getKeySize(), 32);
    EXPECT_EQ(cipher->getMaxPrefixSize(), 12);
    EXPECT_EQ(cipher->getMaxPaddingSize(), 16);
    EXPECT_TRUE(seal::CCipherManager::isAuthenticated("aes256gcm"));
    EXPECT_FALSE(seal::CCipherManager::isAuthenticated("aes256cbc"));
    EXPECT_FALSE(seal::CCipherManager::isAuthenticated("null"));
}

TEST(CipherManager, GivesNoAuthenticatedCipherForOtherIDs)
{
    for (const char* id : {"aes256cbc", "null", "aes128gcm"}) {
        try {
            seal::CCipherManager().getAEADCipher(id);
            ADD_FAILURE() << id;
        } catch (const zo::CError& e) {
            EXPECT_EQ(std::string(e.what()), "Not an authenticated cipher ID: " + std::string(id));
        }
    }
}

TEST_F(AES256GCMCipher, MatchesThePublishedAnswersForZeroKeyAndNonce)
{
    const zo::TCryptBuffer<zo::uint8> key = keyFrom(std::vector<std::uint8_t>(32, 0));
    const zo::uint8 nonce[12] = {};
    const zo::uint8 zeros[16] = {};
    zo::TBuffer<zo::uint8> out;
    m_cipher->encryptWithNonce(key, nonce, nullptr, 0, nullptr, 0, out);
    EXPECT_EQ(hexOf(out), "530f8afbc74536b9a963b4f1c4cb738b");
    out.setUsed(0);
    m_cipher->encryptWithNonce(key, nonce, nullptr, 0, zeros, 16, out);
    EXPECT_EQ(hexOf(out), "cea7403d4d606b6e074ec5d3baf39d18d0d1c8a799996bf0265b98b5d48ab919");
}

TEST_F(AES256GCMCipher, AppendsCiphertextAndTagCoveringTheAssociatedData)
{
    zo::TBuffer<zo::uint8> out;
    out.append(reinterpret_cast<const zo::uint8*>("head"), 4);
    m_cipher->encryptWithNonce(countingKey(), m_nonce.data(), m_aad.data(), static_cast<int>(m_aad.size()),
                               m_message.data(), static_cast<int>(m_message.size()), out);
    EXPECT_EQ(hexOf(out),
              "68656164"
              "2a69b70512c934e74a072c"
              "a79f33f759e34ea5aed952e6716fdb45");
}

TEST_F(AES256GCMCipher, OpensWhatItSealedAndAppends)
{
    const zo::TBuffer<zo::uint8> ciphertext = sealed(countingKey());
    zo::TBuffer<zo::uint8> out;
    out.append(reinterpret_cast<const zo::uint8*>("x"), 1);
    ASSERT_TRUE(opens(ciphertext, m_aad, out));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.getData()), static_cast<size_t>(out.getUsed())),
              "x" + m_message);
}

TEST_F(AES256GCMCipher, RefusesEveryFlippedBitOfCiphertextOrTag)
{
    const zo::TBuffer<zo::uint8> ciphertext = sealed(countingKey());
    for (int byte = 0; byte < ciphertext.getUsed(); ++byte) {
        for (int bit = 0; bit < 8; ++bit) {
            zo::TBuffer<zo::uint8> damaged;
            damaged.append(ciphertext.getData(), ciphertext.getUsed());
            damaged.getData()[byte] ^= static_cast<zo::uint8>(1 << bit);
            zo::TBuffer<zo::uint8> out;
            EXPECT_FALSE(opens(damaged, m_aad, out)) << byte << ":" << bit;
            EXPECT_EQ(out.getUsed(), 0);
        }
    }
}

TEST_F(AES256GCMCipher, RefusesOtherAssociatedDataKeyOrNonce)
{
    const zo::TBuffer<zo::uint8> ciphertext = sealed(countingKey());
    zo::TBuffer<zo::uint8> out;
    EXPECT_FALSE(opens(ciphertext, "associatee", out));
    EXPECT_FALSE(opens(ciphertext, "", out));
    zo::TCryptBuffer<zo::uint8> otherKey = countingKey();
    otherKey.getData()[31] ^= 1;
    EXPECT_FALSE(m_cipher->decryptWithNonce(otherKey, m_nonce.data(), m_aad.data(), static_cast<int>(m_aad.size()),
                                            ciphertext.getData(), ciphertext.getUsed(), out));
    std::vector<std::uint8_t> otherNonce = m_nonce;
    otherNonce[0] ^= 1;
    EXPECT_FALSE(m_cipher->decryptWithNonce(countingKey(), otherNonce.data(), m_aad.data(),
                                            static_cast<int>(m_aad.size()), ciphertext.getData(), ciphertext.getUsed(),
                                            out));
    EXPECT_EQ(out.getUsed(), 0);
}

TEST_F(AES256GCMCipher, RefusesInputShorterThanATagAndKeysOfTheWrongLength)
{
    const zo::uint8 bytes[15] = {};
    zo::TBuffer<zo::uint8> out;
    EXPECT_THROW(m_cipher->decryptWithNonce(countingKey(), m_nonce.data(), nullptr, 0, bytes, 15, out),
                 zo::CInvalidArgError);
    const zo::TCryptBuffer<zo::uint8> shortKey = keyFrom(std::vector<std::uint8_t>(16, 1));
    EXPECT_THROW(m_cipher->encryptWithNonce(shortKey, m_nonce.data(), nullptr, 0, bytes, 15, out),
                 zo::CInvalidArgError);
    EXPECT_THROW(m_cipher->encryptWithNonce(countingKey(), m_nonce.data(), nullptr, 0, bytes, -1, out),
                 zo::CInvalidArgError);
}

TEST_F(AES256GCMCipher, FramesSelfContainedMessagesWithAFreshNonce)
{
    const zo::TCryptBuffer<zo::uint8> key = countingKey();
    zo::TBuffer<zo::uint8> first;
    zo::TBuffer<zo::uint8> second;
    m_cipher->encrypt(key, m_message.data(), static_cast<int>(m_message.size()), first, false, 0);
    m_cipher->encrypt(key, m_message.data(), static_cast<int>(m_message.size()), second, false, 0);
    ASSERT_EQ(first.getUsed(), 12 + static_cast<int>(m_message.size()) + 16);
    EXPECT_NE(std::memcmp(first.getData(), second.getData(), 12), 0);
    zo::TBuffer<zo::uint8> plain;
    m_cipher->decrypt(key, first.getData(), first.getUsed(), plain, false, 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(plain.getData()), static_cast<size_t>(plain.getUsed())),
              m_message);
}

TEST_F(AES256GCMCipher, DecryptThrowsOnADamagedOrCutFrame)
{
    const zo::TCryptBuffer<zo::uint8> key = countingKey();
    zo::TBuffer<zo::uint8> framed;
    m_cipher->encrypt(key, m_message.data(), static_cast<int>(m_message.size()), framed, false, 0);
    zo::TBuffer<zo::uint8> plain;
    plain.append(reinterpret_cast<const zo::uint8*>("old"), 3);
    framed.getData()[0] ^= 1;
    EXPECT_THROW(m_cipher->decrypt(key, framed.getData(), framed.getUsed(), plain, true, 0), zo::CError);
    EXPECT_EQ(plain.getUsed(), 3);
    EXPECT_THROW(m_cipher->decrypt(key, framed.getData(), 27, plain, false, 0), zo::CError);
    EXPECT_EQ(plain.getUsed(), 0);
    EXPECT_THROW(m_cipher->encrypt(key, m_message.data(), 1, framed, false, 1), zo::CInvalidArgError);
}

} // namespace
