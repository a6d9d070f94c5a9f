#include "seal/KeyDerivation.h"
#include "zo/Error.h"

#include "Hex.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace {

struct PBKDF2Vector {
    std::string password;
    std::string salt;
    int iterations;
    std::string expectedHex;
};

// The test vectors published for PBKDF2-HMAC-SHA1 in RFC 6070 (all but the
// one with 16777216 iterations, which is too slow for a unit test).
const PBKDF2Vector rfc6070Vectors[] = {
    {"password", "salt", 1, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
    {"password", "salt", 2, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957"},
    {"password", "salt", 4096, "4b007901b765489abead49d926f721d065a429c1"},
    {"passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096,
     "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
    {std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096, "56fa6aa75548099dcc37d7f03425e0c3"},
};

void PrintTo(const PBKDF2Vector& vector, std::ostream* out)
{
    *out << "password of " << vector.password.size() << " bytes, salt of " << vector.salt.size() << " bytes, "
         << vector.iterations << " iterations";
}

class PBKDF2HMACSHA1 : public ::testing::TestWithParam<PBKDF2Vector> {};

TEST_P(PBKDF2HMACSHA1, DerivesPublishedKey)
{
    const PBKDF2Vector& v = GetParam();
    std::vector<std::uint8_t> key(v.expectedHex.size() / 2);
    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(v.password.data(), static_cast<int>(v.password.size()), v.salt.data(),
                                           static_cast<int>(v.salt.size()), v.iterations, static_cast<int>(key.size()),
                                           key.data());
    EXPECT_EQ(sealtest::toHex(key.data(), key.size()), v.expectedHex);
}

INSTANTIATE_TEST_SUITE_P(RFC6070, PBKDF2HMACSHA1, ::testing::ValuesIn(rfc6070Vectors));

TEST(KeyDerivation, ShorterKeyIsPrefixOfLongerKey)
{
    std::uint8_t shortKey[8];
    std::uint8_t longKey[32];
    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("secret", 6, "saltsalt", 8, 1000, sizeof(shortKey), shortKey);
    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("secret", 6, "saltsalt", 8, 1000, sizeof(longKey), longKey);
    EXPECT_EQ(sealtest::toHex(shortKey, sizeof(shortKey)), sealtest::toHex(longKey, sizeof(shortKey)));
}

TEST(KeyDerivation, EmptyPasswordAndSaltDeriveAKey)
{
    std::uint8_t key[20] = {};
    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(nullptr, 0, nullptr, 0, 1, sizeof(key), key);
    // HMAC-SHA1 with an empty key over the block index 1 alone.
    EXPECT_EQ(sealtest::toHex(key, sizeof(key)), "1e437a1c79d75be61e91141dae20affc4892cc99");
}

TEST(KeyDerivation, ZeroKeySizeWritesNothing)
{
    std::uint8_t key[4] = {0xAA, 0xAA, 0xAA, 0xAA};
    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", 2, "saltsalt", 8, 1, 0, key);
    EXPECT_EQ(sealtest::toHex(key, sizeof(key)), "aaaaaaaa");
}

TEST(KeyDerivation, RefusesFewerThanOneIteration)
{
    std::uint8_t key[16];
    EXPECT_THROW(seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", 2, "saltsalt", 8, 0, sizeof(key), key),
                 zo::CInvalidArgError);
}

TEST(KeyDerivation, RefusesNegativeSizes)
{
    std::uint8_t key[16];
    EXPECT_THROW(seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", -1, "saltsalt", 8, 1, sizeof(key), key),
                 zo::CInvalidArgError);
    EXPECT_THROW(seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", 2, "saltsalt", -8, 1, sizeof(key), key),
                 zo::CInvalidArgError);
    EXPECT_THROW(seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("pw", 2, "saltsalt", 8, 1, -16, key), zo::CInvalidArgError);
}

} // namespace
