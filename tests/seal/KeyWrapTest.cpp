#include "seal/KeyWrap.h"
#include "seal/Digest.h"
#include "seal/Random.h"
#include "zo/Error.h"

#include "Hex.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

zo::TCryptBuffer<zo::uint8> keyOf(zo::uint8 fill, int size = 32)
{
    zo::TCryptBuffer<zo::uint8> key(size);
    for (int i = 0; i < size; ++i)
        key[i] = static_cast<zo::uint8>(fill + i);
    return key;
}

const zo::TBuffer<zo::uint8> kLabel(reinterpret_cast<const zo::uint8*>("label"), 5);

TEST(KeyWrap, UnwrapsWhatItWrapped)
{
    const zo::TBuffer<zo::uint8> wrapped = seal::wrapKey(keyOf(1), keyOf(100), kLabel);
    EXPECT_EQ(wrapped.getUsed(), 32 + seal::kKeyWrapOverhead);
    zo::TCryptBuffer<zo::uint8> restored;
    ASSERT_TRUE(seal::unwrapKey(keyOf(1), wrapped, kLabel, restored));
    EXPECT_TRUE(restored == keyOf(100));
}

TEST(KeyWrap, TwoWrapsOfOneKeyDiffer)
{
    EXPECT_FALSE(seal::wrapKey(keyOf(1), keyOf(100), kLabel) == seal::wrapKey(keyOf(1), keyOf(100), kLabel));
}

TEST(KeyWrap, WrongWrappingKeyFailsAndLeavesOutputAlone)
{
    const zo::TBuffer<zo::uint8> wrapped = seal::wrapKey(keyOf(1), keyOf(100), kLabel);
    zo::TCryptBuffer<zo::uint8> restored = keyOf(7);
    EXPECT_FALSE(seal::unwrapKey(keyOf(2), wrapped, kLabel, restored));
    EXPECT_TRUE(restored == keyOf(7));
}

TEST(KeyWrap, EveryChangedByteIsDetected)
{
    const zo::TBuffer<zo::uint8> wrapped = seal::wrapKey(keyOf(1), keyOf(100), kLabel);
    for (int i = 0; i < wrapped.getUsed(); ++i) {
        zo::TBuffer<zo::uint8> changed(wrapped);
        changed[i] ^= 0x01;
        zo::TCryptBuffer<zo::uint8> restored;
        EXPECT_FALSE(seal::unwrapKey(keyOf(1), changed, kLabel, restored)) << "byte " << i;
    }
    zo::TBuffer<zo::uint8> shortened(wrapped.getData(), wrapped.getUsed() - 1);
    zo::TCryptBuffer<zo::uint8> restored;
    EXPECT_FALSE(seal::unwrapKey(keyOf(1), shortened, kLabel, restored));
}

TEST(KeyWrap, OtherAssociatedDataFails)
{
    const zo::TBuffer<zo::uint8> wrapped = seal::wrapKey(keyOf(1), keyOf(100), kLabel);
    zo::TCryptBuffer<zo::uint8> restored;
    EXPECT_FALSE(seal::unwrapKey(keyOf(1), wrapped, zo::TBuffer<zo::uint8>(), restored));
}

TEST(KeyWrap, RefusesWrappingKeyOfOtherLength)
{
    EXPECT_THROW(seal::wrapKey(keyOf(1, 16), keyOf(100), kLabel), zo::CInvalidArgError);
}

TEST(RandomBytes, TwoFillsDiffer)
{
    std::uint8_t a[32] = {};
    std::uint8_t b[32] = {};
    seal::fillRandomBytes(a, sizeof(a));
    seal::fillRandomBytes(b, sizeof(b));
    EXPECT_NE(sealtest::toHex(a, sizeof(a)), sealtest::toHex(b, sizeof(b)));
}

std::string hmacOf(const std::vector<std::uint8_t>& key, const std::string& message)
{
    const zo::P<seal::IDigestContext> context = seal::createHMACSHA256Context(key.data(), static_cast<int>(key.size()));
    // A context used before gives the same result after reset.
    context->update("earlier", 7);
    context->finish();
    context->reset();
    context->update(message.data(), static_cast<int>(message.size()));
    context->finish();
    return sealtest::toHex(context->getDigest(), static_cast<size_t>(context->getSize()));
}

// Test cases 1 and 2 of RFC 4231.
TEST(HMACSHA256, ComputesPublishedValues)
{
    EXPECT_EQ(hmacOf(std::vector<std::uint8_t>(20, 0x0b), "Hi There"),
              "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    EXPECT_EQ(hmacOf({'J', 'e', 'f', 'e'}, "what do ya want for nothing?"),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(HMACSHA256, AcceptsEmptyKey)
{
    EXPECT_EQ(hmacOf({}, ""), "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
}

} // namespace
