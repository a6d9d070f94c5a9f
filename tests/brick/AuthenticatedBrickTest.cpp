// Brick files under the checksum ID "hmac-sha256": bound to the brick's
// index, with keyed digests (cipher "aes256cbc") or authenticated by the
// cipher itself ("aes256gcm").
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Digest.h"
#include "support/BrickTestHelpers.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

namespace {

using brick::CBrickDataPreparer;
using testsupport::Bytes;
using testsupport::Key;

constexpr int kBrickSize = 4096;
// "BRICK", the two versions and the brick index.
constexpr int kInnerDigestOffset = 5 + 2 + 2 + 8;

brick::CBrickDiskHeader authenticatedHeader(const char* cipherID = "aes256cbc")
{
    brick::CBrickDiskHeader header = testsupport::makeBrickHeader(kBrickSize, 3, 256, cipherID);
    header.setCheckSumHashID("hmac-sha256");
    return header;
}

Key keyOf(zo::uint8 seed)
{
    Key key(32);
    for (int i = 0; i < 32; ++i)
        key[i] = static_cast<zo::uint8>(seed + i);
    return key;
}

// The domain and code of the error that decoding `file` at `index` throws.
std::pair<std::string, zo::int64> unprepareCode(CBrickDataPreparer& preparer, const Bytes& file, zo::int64 index)
{
    Bytes plain;
    try {
        preparer.unprepareData(file, plain, index);
    } catch (const zo::CError& e) {
        return {e.getDomain().toUTF8(), e.getCode()};
    }
    return {std::string(), -1};
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

class AuthenticatedBrick : public ::testing::TestWithParam<const char*> {
protected:
    CBrickDataPreparer preparer{authenticatedHeader(GetParam()), keyOf(1)};
    const Bytes plain = testsupport::patternBytes(kBrickSize, 7);

    Bytes prepared(zo::int64 index, const Bytes& source)
    {
        Bytes file;
        preparer.prepareData(source, file, index);
        return file;
    }
};

TEST_P(AuthenticatedBrick, RestoresTheBrickAtItsIndex)
{
    ASSERT_TRUE(preparer.bindsBrickIndex());
    Bytes restored;
    preparer.unprepareData(prepared(12345, plain), restored, 12345);
    EXPECT_TRUE(testsupport::sameBytes(restored, plain));
}

TEST_P(AuthenticatedBrick, RefusesTheFileAtAnotherIndex)
{
    const Bytes file = prepared(3, plain);
    Bytes restored;
    try {
        preparer.unprepareData(file, restored, 4);
        FAIL() << "a brick file of index 3 was read at index 4";
    } catch (const zo::CError& e) {
        EXPECT_STREQ(e.what(), "Brick file belongs to another brick index.");
        EXPECT_EQ(e.getProps().lookup("brickIndex"), "4");
        EXPECT_EQ(e.getProps().lookup("storedBrickIndex"), "3");
        EXPECT_EQ(e.getProps().lookup("action"), "CBrickDataPreparer::unprepareData");
    }
}

TEST_P(AuthenticatedBrick, EverySingleByteChangeIsDetected)
{
    const Bytes file = prepared(9, plain);
    for (int i = 0; i < file.getUsed(); ++i) {
        for (const zo::uint8 mask : {zo::uint8(0x01), zo::uint8(0xFF)}) {
            Bytes changed(file);
            changed[i] ^= mask;
            EXPECT_EQ(unprepareMessage(preparer, changed, 9), "Brick file is corrupted.") << "byte " << i;
        }
    }
}

TEST_P(AuthenticatedBrick, ChangedStoredIndexWithoutTheKeyIsDamage)
{
    Bytes changed = prepared(9, plain);
    changed[5 + 2 + 2] = 8;
    EXPECT_EQ(unprepareMessage(preparer, changed, 8), "Brick file is corrupted.");
}

TEST_P(AuthenticatedBrick, AnotherKeyFailsAsDamage)
{
    CBrickDataPreparer other(authenticatedHeader(GetParam()), keyOf(2));
    EXPECT_EQ(unprepareMessage(other, prepared(1, plain), 1), "Brick file is corrupted.");
}

TEST_P(AuthenticatedBrick, DamageAndAnotherIndexCarryTheirErrorCodes)
{
    const std::pair<std::string, zo::int64> corrupted{CBrickDataPreparer::kErrorDomain,
                                                      CBrickDataPreparer::CorruptedFile};
    const std::pair<std::string, zo::int64> wrongIndex{CBrickDataPreparer::kErrorDomain,
                                                       CBrickDataPreparer::WrongBrickIndex};
    const Bytes file = prepared(5, plain);
    Bytes changed(file);
    changed[file.getUsed() - 1] ^= 0x01;
    EXPECT_EQ(unprepareCode(preparer, changed, 5), corrupted);
    EXPECT_EQ(unprepareCode(preparer, file, 6), wrongIndex);
    CBrickDataPreparer other(authenticatedHeader(GetParam()), keyOf(2));
    EXPECT_EQ(unprepareCode(other, file, 5), corrupted);
    // The same words from elsewhere are not the decoding's verdict.
    const zo::CError sameText("Brick file is corrupted.");
    EXPECT_FALSE(CBrickDataPreparer::isError(sameText, CBrickDataPreparer::CorruptedFile));
}

TEST_P(AuthenticatedBrick, InnerDigestIsNotThePlainSHA256)
{
    const Bytes file = prepared(0, plain);
    const zo::P<seal::IDigestContext> sha256 = seal::CDigestManager().getType("sha256")->createContext();
    sha256->update(plain.getData(), plain.getUsed());
    sha256->finish();
    for (int offset = 0; offset + 32 <= file.getUsed(); ++offset)
        EXPECT_NE(std::memcmp(file.getData() + offset, sha256->getDigest(), 32), 0) << "offset " << offset;
}

TEST_P(AuthenticatedBrick, EqualBricksAtTwoIndexesShowNoEqualBytes)
{
    const Bytes first = prepared(1, plain);
    const Bytes second = prepared(2, plain);
    EXPECT_NE(std::memcmp(first.getData() + kInnerDigestOffset, second.getData() + kInnerDigestOffset, 32), 0);
}

TEST_P(AuthenticatedBrick, CallsWithoutIndexAreRefused)
{
    Bytes file;
    EXPECT_THROW(preparer.prepareData(plain, file), zo::CInvalidArgError);
    EXPECT_THROW(preparer.unprepareData(prepared(0, plain), file), zo::CInvalidArgError);
}

INSTANTIATE_TEST_SUITE_P(EveryCipher, AuthenticatedBrick, testing::Values("aes256cbc", "aes256gcm"),
                         [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

// Prepares a brick at index 5 and reads it back at `readIndex`; true when
// it comes back whole.
bool readsBackAt(CBrickDataPreparer& preparer, zo::int64 readIndex)
{
    const Bytes plain = testsupport::patternBytes(kBrickSize, 3);
    Bytes file;
    preparer.prepareData(plain, file, 5);
    Bytes restored;
    preparer.unprepareData(file, restored, readIndex);
    return testsupport::sameBytes(restored, plain);
}

TEST(AuthenticatedUnencryptedBrick, StillBindsTheIndex)
{
    CBrickDataPreparer preparer(authenticatedHeader("null"), Key());
    EXPECT_TRUE(readsBackAt(preparer, 5));
    EXPECT_THROW(readsBackAt(preparer, 6), zo::CError);
}

TEST(TodaysBrickFormat, IgnoresTheIndex)
{
    CBrickDataPreparer preparer(testsupport::makeBrickHeader(kBrickSize), testsupport::makeBrickKey("aes256cbc"));
    EXPECT_FALSE(preparer.bindsBrickIndex());
    EXPECT_TRUE(readsBackAt(preparer, 6));
    const Bytes plain = testsupport::patternBytes(kBrickSize, 3);
    Bytes file;
    preparer.prepareData(plain, file);
    Bytes restored;
    preparer.unprepareData(file, restored);
    EXPECT_TRUE(testsupport::sameBytes(restored, plain));
}

} // namespace
