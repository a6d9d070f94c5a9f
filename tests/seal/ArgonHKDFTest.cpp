#include "seal/KeyDerivation.h"
#include "zo/Error.h"

#include "Hex.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct HKDFVector {
    std::string keyHex;
    std::string saltHex;
    std::string infoHex;
    std::string expectedHex;
};

// Test cases 1, 2 and 3 of RFC 5869 (the SHA-256 ones).
const HKDFVector rfc5869Vectors[] = {
    {"0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b", "000102030405060708090a0b0c", "f0f1f2f3f4f5f6f7f8f9",
     "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865"},
    {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f"
     "303132333435363738393a3b3c3d3e3f404142434445464748494a4b4c4d4e4f",
     "606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e7f808182838485868788898a8b8c8d8e8f"
     "909192939495969798999a9b9c9d9e9fa0a1a2a3a4a5a6a7a8a9aaabacadaeaf",
     "b0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3c4c5c6c7c8c9cacbcccdcecfd0d1d2d3d4d5d6d7d8d9dadbdcdddedf"
     "e0e1e2e3e4e5e6e7e8e9eaebecedeeeff0f1f2f3f4f5f6f7f8f9fafbfcfdfeff",
     "b11e398dc80327a1c8e7f78c596a49344f012eda2d4efad8a050cc4c19afa97c59045a99cac7827271cb41c65e590e09da32"
     "75600c2f09b8367793a9aca3db71cc30c58179ec3e87c14c01d5c1f3434f1d87"},
    {"0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b", "", "",
     "8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d9d201395faa4b61a96c8"},
};

class HKDFSHA256 : public ::testing::TestWithParam<HKDFVector> {};

TEST_P(HKDFSHA256, DerivesPublishedKey)
{
    const HKDFVector& v = GetParam();
    const std::vector<std::uint8_t> key = sealtest::fromHex(v.keyHex);
    const std::vector<std::uint8_t> salt = sealtest::fromHex(v.saltHex);
    const std::vector<std::uint8_t> info = sealtest::fromHex(v.infoHex);
    std::vector<std::uint8_t> out(v.expectedHex.size() / 2);
    seal::deriveKey_HKDF_SHA256(key.data(), static_cast<int>(key.size()), salt.data(), static_cast<int>(salt.size()),
                                info.data(), static_cast<int>(info.size()), static_cast<int>(out.size()), out.data());
    EXPECT_EQ(sealtest::toHex(out.data(), out.size()), v.expectedHex);
}

INSTANTIATE_TEST_SUITE_P(RFC5869, HKDFSHA256, ::testing::ValuesIn(rfc5869Vectors));

TEST(HKDFSHA256, RefusesEmptyKeyMaterial)
{
    std::uint8_t out[32];
    EXPECT_THROW(seal::deriveKey_HKDF_SHA256("", 0, nullptr, 0, nullptr, 0, sizeof(out), out), zo::CInvalidArgError);
}

// The Argon2id test vector of RFC 9106, section 5.3.
TEST(Argon2id, DerivesPublishedTag)
{
    const std::vector<std::uint8_t> password(32, 0x01);
    const std::vector<std::uint8_t> salt(16, 0x02);
    const std::vector<std::uint8_t> secret(8, 0x03);
    const std::vector<std::uint8_t> associatedData(12, 0x04);
    std::uint8_t tag[32];
    seal::deriveKey_Argon2id(password.data(), 32, salt.data(), 16, seal::Argon2idCost{3, 32, 4}, sizeof(tag), tag,
                             secret.data(), 8, associatedData.data(), 12);
    EXPECT_EQ(sealtest::toHex(tag, sizeof(tag)), "0d640df58d78766c08c037a34a8b53c9d01ef0452d75b65eb52520e96b01e659");
}

TEST(Argon2id, DependsOnEveryCostParameter)
{
    const auto derive = [](const seal::Argon2idCost& cost) {
        std::uint8_t key[32];
        seal::deriveKey_Argon2id("password", 8, "somesaltsomesalt", 16, cost, sizeof(key), key);
        return sealtest::toHex(key, sizeof(key));
    };
    const std::string base = derive({1, 64, 1});
    EXPECT_EQ(derive({1, 64, 1}), base);
    EXPECT_NE(derive({2, 64, 1}), base);
    EXPECT_NE(derive({1, 128, 1}), base);
    EXPECT_NE(derive({1, 64, 2}), base);
}

TEST(Argon2id, RefusesCostsAndSaltsThatArgon2Refuses)
{
    std::uint8_t key[32];
    EXPECT_THROW(seal::deriveKey_Argon2id("pw", 2, "somesaltsomesalt", 16, {0, 64, 1}, sizeof(key), key),
                 zo::CInvalidArgError);
    // Argon2 needs at least 8 KiB per lane.
    EXPECT_THROW(seal::deriveKey_Argon2id("pw", 2, "somesaltsomesalt", 16, {1, 4, 1}, sizeof(key), key),
                 zo::CInvalidArgError);
    // ... and a salt of at least 8 bytes.
    EXPECT_THROW(seal::deriveKey_Argon2id("pw", 2, "salt", 4, {1, 64, 1}, sizeof(key), key), zo::CInvalidArgError);
}

} // namespace
