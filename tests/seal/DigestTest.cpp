#include "seal/Digest.h"
#include "zo/Error.h"

#include "Hex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>

namespace {

std::string digestOf(seal::IDigestContext& context, const std::string& message)
{
    context.reset();
    context.update(message.data(), static_cast<int>(message.size()));
    context.finish();
    return sealtest::toHex(context.getDigest(), static_cast<size_t>(context.getSize()));
}

struct DigestVector {
    std::string message;
    std::string expectedHex;
};

void PrintTo(const DigestVector& vector, std::ostream* out)
{
    *out << '"' << vector.message << '"';
}

// The test suite of RFC 1321.
const DigestVector md5Vectors[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

// The one- and two-block examples of FIPS 180 and the empty message.
const DigestVector sha256Vectors[] = {
    {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
};

class MD5Digest : public ::testing::TestWithParam<DigestVector> {};

TEST_P(MD5Digest, GivesPublishedDigest)
{
    auto context = seal::CDigestType_MD5().createContext();
    EXPECT_EQ(digestOf(*context, GetParam().message), GetParam().expectedHex);
}

INSTANTIATE_TEST_SUITE_P(RFC1321, MD5Digest, ::testing::ValuesIn(md5Vectors));

class SHA256Digest : public ::testing::TestWithParam<DigestVector> {};

TEST_P(SHA256Digest, GivesPublishedDigest)
{
    auto context = seal::CDigestManager().getType("sha256")->createContext();
    EXPECT_EQ(digestOf(*context, GetParam().message), GetParam().expectedHex);
}

INSTANTIATE_TEST_SUITE_P(FIPS180, SHA256Digest, ::testing::ValuesIn(sha256Vectors));

TEST(DigestManager, MakesMD5AndSHA256WithTheirSizes)
{
    seal::CDigestManager manager;
    auto md5 = manager.getType("md5");
    auto sha256 = manager.getType("sha256");
    EXPECT_EQ(md5->getID(), "md5");
    EXPECT_EQ(md5->getSize(), 16);
    EXPECT_EQ(md5->createContext()->getSize(), 16);
    EXPECT_EQ(sha256->getID(), "sha256");
    EXPECT_EQ(sha256->getSize(), 32);
    EXPECT_EQ(sha256->createContext()->getSize(), 32);
}

TEST(DigestManager, MD5FromManagerMatchesDirectType)
{
    auto context = seal::CDigestManager().getType("md5")->createContext();
    EXPECT_EQ(digestOf(*context, "abc"), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(DigestManager, RefusesUnknownDigestID)
{
    seal::CDigestManager manager;
    for (const char* id : {"sha1", "SHA256", "", "md5 "}) {
        try {
            manager.getType(id);
            ADD_FAILURE() << "no error for digest ID '" << id << "'";
        } catch (const zo::CError& e) {
            EXPECT_EQ(e.getMessage(), "Unknown digest ID: " + zo::String(id));
        }
    }
}

TEST(DigestContext, SplitUpdatesEqualOneUpdate)
{
    // A million times "a" (FIPS 180), fed in pieces that straddle block borders.
    auto context = seal::CDigestManager().getType("sha256")->createContext();
    const std::string piece(999, 'a');
    int fed = 0;
    while (fed < 1000000) {
        const int size = std::min(static_cast<int>(piece.size()), 1000000 - fed);
        context->update(piece.data(), size);
        fed += size;
    }
    context->finish();
    EXPECT_EQ(sealtest::toHex(context->getDigest(), 32),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(DigestContext, ResetStartsANewDigestOnTheSameContext)
{
    auto context = seal::CDigestType_MD5().createContext();
    context->update("garbage", 7);
    context->reset();
    context->update("abc", 3);
    context->finish();
    EXPECT_EQ(sealtest::toHex(context->getDigest(), 16), "900150983cd24fb0d6963f7d28e17f72");

    EXPECT_EQ(digestOf(*context, "message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(digestOf(*context, ""), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(DigestContext, NewContextStartsEmpty)
{
    auto context = seal::CDigestManager().getType("sha256")->createContext();
    context->finish();
    EXPECT_EQ(sealtest::toHex(context->getDigest(), 32),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(DigestContext, RefusesUpdateAndFinishAfterFinish)
{
    auto context = seal::CDigestType_MD5().createContext();
    context->update("abc", 3);
    context->finish();
    EXPECT_THROW(context->update("d", 1), zo::CError);
    EXPECT_THROW(context->finish(), zo::CError);
    EXPECT_EQ(sealtest::toHex(context->getDigest(), 16), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(DigestContext, RefusesNegativeSize)
{
    auto context = seal::CDigestType_MD5().createContext();
    EXPECT_THROW(context->update("abc", -1), zo::CInvalidArgError);
}

} // namespace
