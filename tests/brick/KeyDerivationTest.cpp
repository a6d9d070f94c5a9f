#include "seal/KeyDerivation.h"
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskHeader;
using Bytes = zo::TBuffer<zo::uint8>;
using Key = zo::TCryptBuffer<zo::uint8>;

constexpr char kDeriveSource[] = "CBrickDisk::deriveCypherKey";
constexpr char kPassword[] = "correct horse battery staple";
// PBKDF2-HMAC-SHA1 of kPassword with the salt 01 02 ... 08 and 1000
// iterations, 32 bytes, and the SHA-256 of that key; both computed with an
// independent PBKDF2 implementation.
constexpr char kPasswordKey[] = "f99280e7c9df79fa4120ad113be815d6f9a3ec168f91265bfa00ecd9522694af";
constexpr char kPasswordKeySha256[] = "3a0d1e6815fc9279ec051cb8d39451a701a735d16073cb1f7c4f57a87e751814";

std::string hexOf(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (int i = 0; i < bytes.getUsed(); ++i) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 15];
    }
    return hex;
}

Bytes fromHex(const std::string& hex)
{
    Bytes bytes(static_cast<int>(hex.size() / 2));
    for (int i = 0; i < bytes.getUsed(); ++i)
        bytes[i] = static_cast<zo::uint8>(std::stoi(hex.substr(static_cast<size_t>(i) * 2, 2), nullptr, 16));
    return bytes;
}

Key keyFromHex(const std::string& hex)
{
    const Bytes bytes = fromHex(hex);
    return Key(bytes.getData(), bytes.getUsed());
}

Bytes countingBytes(int size, int first = 1)
{
    Bytes bytes(size);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<zo::uint8>(first + i);
    return bytes;
}

// An encrypted disk's header whose key hash belongs to kPassword.
CBrickDiskHeader encryptedHeader()
{
    CBrickDiskHeader header;
    header.setCipherKeyDerivationSalt(countingBytes(8));
    header.setCipherKeyDerivationIterations(1000);
    header.setCipherKeyHash(fromHex(kPasswordKeySha256));
    return header;
}

CBrickDiskHeader unencryptedHeader()
{
    CBrickDiskHeader header;
    header.setCipherID("null");
    return header;
}

Key derive(const zo::String& password, const CBrickDiskHeader& header)
{
    Key key;
    CBrickDisk::deriveCipherKey(key, password, header);
    return key;
}

// The error of deriving a key for `header`; a test failure when there is none.
zo::CInvalidArgError deriveFailure(const CBrickDiskHeader& header, Key& key)
{
    try {
        CBrickDisk::deriveCipherKey(key, "password", header);
    } catch (const zo::CInvalidArgError& error) {
        return error;
    }
    ADD_FAILURE() << "the key was derived";
    return zo::CInvalidArgError("", "no error");
}

void expectDeriveError(const CBrickDiskHeader& header, const std::string& message)
{
    Key key;
    const zo::CInvalidArgError error = deriveFailure(header, key);
    EXPECT_EQ(error.getWhere().toUTF8(), kDeriveSource);
    EXPECT_EQ(error.getMessage().toUTF8(), message);
    EXPECT_TRUE(error.getProps().isEmpty());
}

// ---------------------------------------------------------------------------
// deriveCipherKey

TEST(CipherKeyDerivation, MatchesThePublishedPbkdf2HmacSha1Vector)
{
    // The PBKDF2-HMAC-SHA1 test vector with the 36-byte salt and 4096
    // iterations; its published 25 bytes start the 32-byte key.
    CBrickDiskHeader header;
    const std::string salt = "saltSALTsaltSALTsaltSALTsaltSALTsalt";
    header.setCipherKeyDerivationSalt(Bytes(reinterpret_cast<const zo::uint8*>(salt.data()), 36));
    header.setCipherKeyDerivationIterations(4096);

    const std::string key = hexOf(derive("passwordPASSWORDpassword", header));
    EXPECT_EQ(key.substr(0, 50), "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038");
    EXPECT_EQ(key, "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038b6b89a48612c5a");
}

TEST(CipherKeyDerivation, DerivesTheKeyOfTheCipherFromThePassword)
{
    EXPECT_EQ(hexOf(derive(kPassword, encryptedHeader())), kPasswordKey);
}

TEST(CipherKeyDerivation, GivesTheSameKeyOnEveryCall)
{
    const CBrickDiskHeader header = encryptedHeader();
    const Key first = derive("same password", header);
    EXPECT_TRUE(derive("same password", header) == first);
    EXPECT_TRUE(derive("same password", header) == first);
}

TEST(CipherKeyDerivation, DependsOnPasswordSaltAndIterations)
{
    const CBrickDiskHeader header = encryptedHeader();
    const Key key = derive(kPassword, header);

    EXPECT_FALSE(derive("correct horse battery stapler", header) == key);
    CBrickDiskHeader otherSalt = header;
    otherSalt.setCipherKeyDerivationSalt(countingBytes(8, 2));
    EXPECT_FALSE(derive(kPassword, otherSalt) == key);
    CBrickDiskHeader otherIterations = header;
    otherIterations.setCipherKeyDerivationIterations(1001);
    EXPECT_FALSE(derive(kPassword, otherIterations) == key);
}

TEST(CipherKeyDerivation, DerivesFromTheUtf8BytesOfThePassword)
{
    // "pässwörd€" and U+1F600, given as UTF-16 code units.
    const zo::String password(u"p\u00e4ssw\u00f6rd\u20ac\U0001F600");
    const Bytes utf8 = fromHex("70c3a4737377c3b67264e282acf09f9880");
    const CBrickDiskHeader header = encryptedHeader();

    const Key key = derive(password, header);
    EXPECT_EQ(hexOf(key), "9b651ec71c679f6c504aedccbb8cac0713388678aa873efe5c6da236fdfdbdfc");

    Key expected(32);
    seal::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(
        utf8.getData(), utf8.getUsed(), header.getCipherKeyDerivationSalt().getData(), 8, 1000, 32, expected.getData());
    EXPECT_TRUE(key == expected);
}

TEST(CipherKeyDerivation, SizesTheKeyForTheHeadersCipher)
{
    Key key(5);
    CBrickDisk::deriveCipherKey(key, kPassword, encryptedHeader());
    EXPECT_EQ(key.getUsed(), 32);
    EXPECT_EQ(hexOf(key), kPasswordKey);
}

TEST(CipherKeyDerivation, SizesTheKeyBeforeRefusingAnUnknownDeriver)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDeriverID("PKCS5-PBKDF2-HMAC-SHA256");
    Key key(5);
    deriveFailure(header, key);
    EXPECT_EQ(key.getUsed(), 32);
}

TEST(CipherKeyDerivation, RefusesAnUnknownKeyDeriver)
{
    for (const char* deriverID :
         {"PKCS5-PBKDF2-HMAC-SHA256", "pkcs5-pbkdf2-hmac-sha1", "PKCS5-PBKDF2-HMAC-SHA1 ", ""}) {
        SCOPED_TRACE(deriverID);
        CBrickDiskHeader header = encryptedHeader();
        header.setCipherKeyDeriverID(deriverID);
        expectDeriveError(header, std::string("Unknown key deriver ID: ") + deriverID);
    }
}

TEST(CipherKeyDerivation, ChecksTheDeriverBeforeTheSalt)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDeriverID("scrypt");
    header.setCipherKeyDerivationSalt(countingBytes(3));
    header.setCipherKeyDerivationIterations(10);
    expectDeriveError(header, "Unknown key deriver ID: scrypt");
}

TEST(CipherKeyDerivation, RefusesASaltOfSevenBytes)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDerivationSalt(countingBytes(7));
    expectDeriveError(header, "Key derivation salt is too small: 7 bytes");
}

TEST(CipherKeyDerivation, RefusesTheEmptySaltOfADefaultHeader)
{
    expectDeriveError(CBrickDiskHeader(), "Key derivation salt is too small: 0 bytes");
}

TEST(CipherKeyDerivation, AcceptsASaltOfEightBytes)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDerivationSalt(countingBytes(8, 40));
    EXPECT_EQ(derive(kPassword, header).getUsed(), 32);
}

TEST(CipherKeyDerivation, Refuses999Iterations)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDerivationIterations(999);
    expectDeriveError(header, "Key derivation iterations are too small: 999");
}

TEST(CipherKeyDerivation, RefusesANegativeIterationCount)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDerivationIterations(-5);
    expectDeriveError(header, "Key derivation iterations are too small: -5");
}

TEST(CipherKeyDerivation, Accepts1000Iterations)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDerivationIterations(1000);
    EXPECT_EQ(hexOf(derive(kPassword, header)), kPasswordKey);
}

TEST(CipherKeyDerivation, ReportsTheSaltWhenSaltAndIterationsAreBothTooSmall)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyDerivationSalt(countingBytes(7));
    header.setCipherKeyDerivationIterations(999);
    expectDeriveError(header, "Key derivation salt is too small: 7 bytes");
}

TEST(CipherKeyDerivation, PassesOnTheErrorOfAnUnknownCipher)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherID("aes128cbc");
    Key key;
    try {
        CBrickDisk::deriveCipherKey(key, kPassword, header);
        FAIL() << "the key was derived";
    } catch (const zo::CError& error) {
        EXPECT_EQ(error.getMessage().toUTF8(), "Unknown cipher ID: aes128cbc");
    }
}

// ---------------------------------------------------------------------------
// isCipherKeyCorrect

TEST(CipherKeyCheck, AcceptsTheKeyWhoseDigestIsTheKeyHash)
{
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(encryptedHeader(), keyFromHex(kPasswordKey)));
}

TEST(CipherKeyCheck, HashesTheKeyWithTheHeadersCryptoHash)
{
    // SHA-256 and MD5 of the key 00 01 ... 1f.
    const Key key(countingBytes(32, 0).getData(), 32);
    CBrickDiskHeader header;
    header.setCipherKeyHash(fromHex("630dcd2966c4336691125448bbb25b4ff412a49c732db2c8abc1b8581bd710dd"));
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(header, key));

    header.setCryptoHashID("md5");
    EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(header, key));
    header.setCipherKeyHash(fromHex("b4ffcb23737cec315a4a4d1aa2a620ce"));
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(header, key));
}

TEST(CipherKeyCheck, RefusesAKeyThatDiffersInAnyByte)
{
    const CBrickDiskHeader header = encryptedHeader();
    for (int i = 0; i < 32; ++i) {
        Key key = keyFromHex(kPasswordKey);
        key[i] = static_cast<zo::uint8>(key[i] ^ 1);
        EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(header, key)) << "byte " << i;
    }
}

TEST(CipherKeyCheck, RefusesAKeyOfTheWrongLengthWithoutHashingIt)
{
    // The header's hash is that of the 31-byte key itself: only the length
    // check can refuse it.
    const Key shortKey(countingBytes(31).getData(), 31);
    CBrickDiskHeader header;
    header.setCryptoHashID("md5");
    header.setCipherKeyHash(fromHex("d3896a4978b90f9c4703c09c01050ae7"));
    EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(header, shortKey));

    EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(encryptedHeader(), Key()));
    Key longKey = keyFromHex(kPasswordKey);
    const zo::uint8 extra = 0;
    longKey.append(&extra, 1);
    EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(encryptedHeader(), longKey));
}

TEST(CipherKeyCheck, RefusesEveryKeyWhenTheHeaderHasNoKeyHash)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setCipherKeyHash(Bytes());
    EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(header, keyFromHex(kPasswordKey)));
}

TEST(CipherKeyCheck, AcceptsAnyKeyForAnUnencryptedDisk)
{
    CBrickDiskHeader header = unencryptedHeader();
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(header, Key()));
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(header, keyFromHex(kPasswordKey)));
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(header, Key(countingBytes(5).getData(), 5)));
    // Nothing else of the header is looked at.
    header.setCryptoHashID("no such digest");
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(header, Key()));
}

std::string keyCheckFailure(const CBrickDiskHeader& header)
{
    try {
        CBrickDisk::isCipherKeyCorrect(header, keyFromHex(kPasswordKey));
    } catch (const zo::CError& error) {
        return error.getMessage().toUTF8();
    }
    return "no error";
}

TEST(CipherKeyCheck, PassesOnTheErrorOfAnUnknownDigestOrCipher)
{
    CBrickDiskHeader unknownDigest = encryptedHeader();
    unknownDigest.setCryptoHashID("sha1");
    EXPECT_EQ(keyCheckFailure(unknownDigest), "Unknown digest ID: sha1");

    CBrickDiskHeader unknownCipher = encryptedHeader();
    unknownCipher.setCipherID("des");
    EXPECT_EQ(keyCheckFailure(unknownCipher), "Unknown cipher ID: des");
}

// ---------------------------------------------------------------------------
// isEncryptPasswordCorrect

TEST(EncryptPasswordCheck, AcceptsTheRightPasswordAndHandsOutItsKey)
{
    Key key(countingBytes(3).getData(), 3);
    EXPECT_TRUE(CBrickDisk::isEncryptPasswordCorrect(encryptedHeader(), kPassword, &key));
    EXPECT_EQ(hexOf(key), kPasswordKey);
}

TEST(EncryptPasswordCheck, AcceptsTheRightPasswordWithoutAKeyOut)
{
    EXPECT_TRUE(CBrickDisk::isEncryptPasswordCorrect(encryptedHeader(), kPassword, nullptr));
}

TEST(EncryptPasswordCheck, RefusesAWrongPasswordAndLeavesTheKeyAlone)
{
    for (const char* password : {"correct horse battery stapl", "Correct horse battery staple", ""}) {
        SCOPED_TRACE(password);
        Key key(countingBytes(3).getData(), 3);
        EXPECT_FALSE(CBrickDisk::isEncryptPasswordCorrect(encryptedHeader(), password, &key));
        EXPECT_EQ(hexOf(key), "010203");
        EXPECT_FALSE(CBrickDisk::isEncryptPasswordCorrect(encryptedHeader(), password, nullptr));
    }
}

TEST(EncryptPasswordCheck, UnencryptedDiskAcceptsOnlyTheEmptyPassword)
{
    Key key(countingBytes(32).getData(), 32);
    EXPECT_TRUE(CBrickDisk::isEncryptPasswordCorrect(unencryptedHeader(), "", &key));
    EXPECT_EQ(key.getUsed(), 0);
    EXPECT_TRUE(CBrickDisk::isEncryptPasswordCorrect(unencryptedHeader(), "", nullptr));

    Key untouched(countingBytes(3).getData(), 3);
    EXPECT_FALSE(CBrickDisk::isEncryptPasswordCorrect(unencryptedHeader(), "x", &untouched));
    EXPECT_EQ(hexOf(untouched), "010203");
    EXPECT_FALSE(CBrickDisk::isEncryptPasswordCorrect(unencryptedHeader(), kPassword, nullptr));
}

TEST(EncryptPasswordCheck, ThrowsInsteadOfRefusingWhenTheHeaderCannotDeriveAKey)
{
    CBrickDiskHeader unknownDeriver = encryptedHeader();
    unknownDeriver.setCipherKeyDeriverID("bcrypt");
    EXPECT_THROW(CBrickDisk::isEncryptPasswordCorrect(unknownDeriver, kPassword, nullptr), zo::CInvalidArgError);

    CBrickDiskHeader shortSalt = encryptedHeader();
    shortSalt.setCipherKeyDerivationSalt(countingBytes(4));
    EXPECT_THROW(CBrickDisk::isEncryptPasswordCorrect(shortSalt, kPassword, nullptr), zo::CInvalidArgError);
}

// ---------------------------------------------------------------------------
// The overloads that read the header of a disk folder.

class KeyChecksOfAStoredDisk : public testing::Test {
protected:
    // Stores `header` with what a header on file needs besides: a disk size
    // and, for an unencrypted one, a key hash of its digest's length.
    void storeHeader(CBrickDiskHeader header)
    {
        header.setDiskSize(1 << 20);
        if (header.getCipherKeyHash().getUsed() == 0)
            header.setCipherKeyHash(countingBytes(32));
        m_fs->createFolder(m_folder, 0x1ff);
        header.store(m_fs.get(), m_folder);
    }

    zo::P<zo::IFileSystem> m_fs = zo::P<zo::IFileSystem>(new zo::CMemoryFileSystem());
    zo::CURI m_folder = zo::CURI("/disks/one");
};

TEST_F(KeyChecksOfAStoredDisk, CheckTheKeyAgainstTheStoredHeader)
{
    storeHeader(encryptedHeader());
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(m_fs.get(), m_folder, keyFromHex(kPasswordKey)));
    EXPECT_FALSE(CBrickDisk::isCipherKeyCorrect(m_fs.get(), m_folder, Key(countingBytes(32).getData(), 32)));
}

TEST_F(KeyChecksOfAStoredDisk, CheckThePasswordAgainstTheStoredHeader)
{
    storeHeader(encryptedHeader());
    Key key;
    EXPECT_TRUE(CBrickDisk::isEncryptPasswordCorrect(m_fs.get(), m_folder, kPassword, &key));
    EXPECT_EQ(hexOf(key), kPasswordKey);

    Key untouched(countingBytes(3).getData(), 3);
    EXPECT_FALSE(CBrickDisk::isEncryptPasswordCorrect(m_fs.get(), m_folder, "wrong", &untouched));
    EXPECT_EQ(hexOf(untouched), "010203");
}

TEST_F(KeyChecksOfAStoredDisk, ApplyTheUnencryptedDiskRules)
{
    storeHeader(unencryptedHeader());
    EXPECT_TRUE(CBrickDisk::isCipherKeyCorrect(m_fs.get(), m_folder, Key(countingBytes(5).getData(), 5)));
    EXPECT_TRUE(CBrickDisk::isEncryptPasswordCorrect(m_fs.get(), m_folder, "", nullptr));
    EXPECT_FALSE(CBrickDisk::isEncryptPasswordCorrect(m_fs.get(), m_folder, "x", nullptr));
}

TEST_F(KeyChecksOfAStoredDisk, PassOnTheErrorOfAMissingHeader)
{
    m_fs->createFolder(m_folder, 0x1ff);
    EXPECT_THROW(CBrickDisk::isCipherKeyCorrect(m_fs.get(), m_folder, keyFromHex(kPasswordKey)), zo::CError);
    EXPECT_THROW(CBrickDisk::isEncryptPasswordCorrect(m_fs.get(), m_folder, kPassword, nullptr), zo::CError);
}

TEST_F(KeyChecksOfAStoredDisk, PassOnTheErrorOfAHeaderThatNeedsANewerReader)
{
    CBrickDiskHeader header = encryptedHeader();
    header.setMinReaderVersion(2);
    storeHeader(header);
    EXPECT_THROW(CBrickDisk::isCipherKeyCorrect(m_fs.get(), m_folder, keyFromHex(kPasswordKey)),
                 brick::CBrickDiskError);
    EXPECT_THROW(CBrickDisk::isEncryptPasswordCorrect(m_fs.get(), m_folder, kPassword, nullptr),
                 brick::CBrickDiskError);
}

// ---------------------------------------------------------------------------

TEST(BrickDiskVersion, IsOne)
{
    EXPECT_EQ(CBrickDisk::getImplementationVersion(), 1);
}

} // namespace
