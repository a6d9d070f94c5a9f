// Headers edited by hand: every field of every kind of header set to hostile
// values, with the framing's digest made right again, as anyone can do with
// a header that is not authenticated. Each opening ends in a clear error that
// names the field, or opens (or finds the password wrong) where the value is
// legal. The checks come before any allocation or key derivation by the
// header's values, so no case can cost more than a small disk's opening.
#include "RecordBytes.h"
#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskAuxFileBase.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "support/DiskTestHelpers.h"

#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskAuxFileBase;
using brick::CBrickDiskChain;
using brick::CBrickDiskError;
using brick::CBrickDiskHeader;
using brick::CBrickDiskHeaderLimits;
using recordtest::RecordBytes;
using testsupport::kTestKdfCost;
using zo::CError;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using zo::TBuffer;
using zo::uint8;

constexpr int kBrickSize = 4096;
constexpr int64 kDiskSize = 16 * kBrickSize;
const char* const kPassword = "secret";
const CURI kFolder("/disks/tampered");

using Values = std::vector<int64>;
using Texts = std::vector<std::string>;

// The kinds of header on file.
// Argon2id disks with the cipher "aes256gcm" (the default) or "aes256cbc".
enum class Format { PBKDF2, Argon2id, Argon2idCBC, Unencrypted, UnencryptedAuthenticated };

std::string nameOf(Format format)
{
    switch (format) {
    case Format::PBKDF2:
        return "PBKDF2";
    case Format::Argon2id:
        return "Argon2id";
    case Format::Argon2idCBC:
        return "Argon2idCBC";
    case Format::Unencrypted:
        return "Unencrypted";
    case Format::UnencryptedAuthenticated:
        return "UnencryptedAuthenticated";
    }
    return "?";
}

bool isWrapped(Format format)
{
    return format == Format::Argon2id || format == Format::Argon2idCBC;
}

bool isEncrypted(Format format)
{
    return format == Format::PBKDF2 || isWrapped(format);
}

// What opening an edited disk must end in.
enum class Outcome {
    InvalidField, // CError naming the field, from loading the header
    Opens, // the disk opens with its password
    WrongKey, // CBrickDiskError IncorrectPassword: legal, but not the disk's key
    NewerSoftware, // CBrickDiskError NewerSoftwareRequired
    CostRefused, // CError of a key derivation costlier than allowed
    NotAuthentic, // CError "The disk's identity is not authentic."
};

struct Case {
    std::string field;
    std::string value;
    std::function<void(CBrickDiskHeader&)> edit;
    Outcome outcome;
};

TBuffer<uint8> bytesOfSize(int size)
{
    TBuffer<uint8> bytes(size);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8>(i * 31 + 7);
    return bytes;
}

Case intCase(const std::string& field, int64 value, void (CBrickDiskHeader::*setter)(int), Outcome outcome)
{
    return {field, std::to_string(value), [=](CBrickDiskHeader& h) { (h.*setter)(static_cast<int>(value)); }, outcome};
}

Case textCase(const std::string& field, const std::string& value, void (CBrickDiskHeader::*setter)(const zo::String&),
              Outcome outcome)
{
    return {field, "\"" + value.substr(0, 40) + "\"", [=](CBrickDiskHeader& h) { (h.*setter)(zo::String(value)); },
            outcome};
}

Case blockCase(const std::string& field, int size, void (CBrickDiskHeader::*setter)(const TBuffer<uint8>&),
               Outcome outcome)
{
    return {field, std::to_string(size) + " bytes", [=](CBrickDiskHeader& h) { (h.*setter)(bytesOfSize(size)); },
            outcome};
}

// A legal change of a field: the PBKDF2 disk still opens, unless the key's
// derivation or check changes; the authenticated header no longer opens
// with its password, as its wrap covers every field.
Outcome legal(Format format, bool changesKey = false)
{
    if (isWrapped(format) || (changesKey && isEncrypted(format)))
        return Outcome::WrongKey;
    return Outcome::Opens;
}

std::vector<Case> casesFor(Format format)
{
    using H = CBrickDiskHeader;
    const Outcome bad = Outcome::InvalidField;
    const bool wrapped = isWrapped(format);
    const int64 maxDiskSize = CBrickDiskHeaderLimits::getMaxBrickCount() * kBrickSize;
    std::vector<Case> cases;

    for (const int64 value : Values{0, -1, INT_MIN})
        cases.push_back(intCase("version", value, &H::setVersion, bad));
    cases.push_back(intCase("version", INT_MAX, &H::setVersion, legal(format)));

    for (const int64 value : Values{0, -1, INT_MIN})
        cases.push_back(intCase("minReaderVersion", value, &H::setMinReaderVersion, bad));
    for (const int64 value : Values{2, INT_MAX})
        cases.push_back(intCase("minReaderVersion", value, &H::setMinReaderVersion, Outcome::NewerSoftware));

    for (const int64 value : Values{0, -1, INT_MIN})
        cases.push_back(intCase("minWriterVersion", value, &H::setMinWriterVersion, bad));
    cases.push_back(intCase("minWriterVersion", INT_MAX, &H::setMinWriterVersion, legal(format)));

    for (const int64 value : Values{0, -1, 1, 4095, 4097, 6144, 128 << 20, 1 << 30, INT_MAX, INT_MIN})
        cases.push_back(intCase("brickSize", value, &H::setBrickSize, bad));
    cases.push_back(intCase("brickSize", 2 * kBrickSize, &H::setBrickSize, legal(format)));

    for (const int64 value : Values{0, -1, kBrickSize + 1, INT_MAX, INT_MIN})
        cases.push_back(intCase("payloadBlockSize", value, &H::setPayloadBlockSize, bad));
    for (const int64 value : Values{2, kBrickSize})
        cases.push_back(intCase("payloadBlockSize", value, &H::setPayloadBlockSize, legal(format)));

    for (const int64 value : Values{0, -1, std::numeric_limits<int64>::min(), std::numeric_limits<int64>::max(),
                                    int64(1) << 62, maxDiskSize + 1})
        cases.push_back({"diskSize", std::to_string(value), [=](H& h) { h.setDiskSize(value); }, bad});
    for (const int64 value : Values{1, maxDiskSize})
        cases.push_back({"diskSize", std::to_string(value), [=](H& h) { h.setDiskSize(value); }, legal(format)});

    for (const std::string& id : Texts{"", "md4", "sha1", "HMAC-SHA256", "sha256 ", std::string(5000, 'x')})
        cases.push_back(textCase("checkSumHashID", id, &H::setCheckSumHashID, bad));

    for (const std::string& id : Texts{"", "sha1", "sha512", std::string(5000, 'y')})
        cases.push_back(textCase("cryptoHashID", id, &H::setCryptoHashID, bad));
    cases.push_back(textCase("cryptoHashID", wrapped ? "sha256" : "hkdf-sha256", &H::setCryptoHashID, bad));

    for (const std::string& id : Texts{"", "aes128cbc", "NULL", "aes256cbc\n", "aes256gcm "})
        cases.push_back(textCase("cipherID", id, &H::setCipherID, bad));
    // The authenticated cipher only with keyed, index-bound bricks and a wrapped key.
    if (!wrapped)
        cases.push_back(textCase("cipherID", "aes256gcm", &H::setCipherID, bad));
    if (wrapped) {
        cases.push_back(textCase("cipherID", format == Format::Argon2id ? "aes256cbc" : "aes256gcm", &H::setCipherID,
                                 Outcome::WrongKey));
        cases.push_back({"cipherID", "aes256gcm with sha256 bricks",
                         [](H& h) {
                             h.setCipherID("aes256gcm");
                             h.setCheckSumHashID("sha256");
                         },
                         bad});
    }

    for (const int size : std::vector<int>{0, 1, 31, 33, 4096})
        cases.push_back(blockCase("cipherKeyHash", size, &H::setCipherKeyHash, bad));

    for (const std::string& id : Texts{
             "",         "zlib--1", "zlib-10",          "zlib-99", "zlib-x", "zlib-1 ", "lzma-",  "lzma-9-99999999999",
             "lzma-1-2", "lzma-10", "lzma-1-",          "LZ4",     "lz5",    "zstd-",   "zstd-0", "zstd-01",
             "zstd--1",  "zstd-20", "zstd-99999999999", "zstd-3 "})
        cases.push_back(textCase("compressID", id, &H::setCompressID, bad));
    for (const std::string& id : Texts{"null", "zlib-9", "lzma-9-1", "lz4hc", "zstd-1", "zstd-19"})
        cases.push_back(textCase("compressID", id, &H::setCompressID, legal(format)));

    for (const std::string& id : Texts{"", "argon2", "pbkdf2", "PKCS5-PBKDF2-HMAC-SHA256"})
        cases.push_back(textCase("cipherKeyDeriverID", id, &H::setCipherKeyDeriverID, bad));

    for (const int size : std::vector<int>{1, 7, 65, 100000})
        cases.push_back(blockCase("cipherKeyDerivationSalt", size, &H::setCipherKeyDerivationSalt, bad));
    cases.push_back(blockCase("cipherKeyDerivationSalt", 64, &H::setCipherKeyDerivationSalt, legal(format, true)));
    if (isEncrypted(format))
        cases.push_back(blockCase("cipherKeyDerivationSalt", 0, &H::setCipherKeyDerivationSalt, bad));

    const char* iterations = "cipherKeyDerivationIterations";
    if (wrapped) {
        for (const int64 value : Values{0, -1, 65, INT_MAX, INT_MIN})
            cases.push_back(intCase(iterations, value, &H::setCipherKeyDerivationIterations, bad));
        cases.push_back(intCase(iterations, 2, &H::setCipherKeyDerivationIterations, Outcome::WrongKey));
        // 64 passes are within the limits, but over 1 GiB cost more than allowed.
        cases.push_back({iterations, "64 passes over 1 GiB",
                         [](H& h) {
                             h.setCipherKeyDerivationIterations(64);
                             h.setCipherKeyDerivationMemoryKiB(1024 * 1024);
                         },
                         Outcome::CostRefused});

        const char* memory = "cipherKeyDerivationMemoryKiB";
        for (const int64 value : Values{0, -1, 7, 4 * 1024 * 1024 + 1, INT_MAX, INT_MIN})
            cases.push_back(intCase(memory, value, &H::setCipherKeyDerivationMemoryKiB, bad));
        for (const int64 value : Values{2 * 1024 * 1024, 4 * 1024 * 1024})
            cases.push_back(intCase(memory, value, &H::setCipherKeyDerivationMemoryKiB, Outcome::CostRefused));
        cases.push_back(intCase(memory, 16, &H::setCipherKeyDerivationMemoryKiB, Outcome::WrongKey));

        const char* lanes = "cipherKeyDerivationLanes";
        for (const int64 value : Values{0, -1, 65, INT_MAX})
            cases.push_back(intCase(lanes, value, &H::setCipherKeyDerivationLanes, bad));

        for (const int size : std::vector<int>{0, 1, 59, 61, 100000})
            cases.push_back(blockCase("wrappedCipherKey", size, &H::setWrappedCipherKey, bad));
    } else {
        for (const int64 value : Values{0, -1, 999, 10000001, INT_MAX, INT_MIN})
            cases.push_back(intCase(iterations, value, &H::setCipherKeyDerivationIterations, bad));
        cases.push_back(intCase(iterations, 1000, &H::setCipherKeyDerivationIterations, legal(format, true)));
        cases.push_back(intCase(iterations, 1000001, &H::setCipherKeyDerivationIterations,
                                isEncrypted(format) ? Outcome::CostRefused : Outcome::Opens));
    }

    // The identity of the authenticated formats: sizes are field errors;
    // another ID or tag of the right size is not the disk's (its tag is
    // made under the key); an identity cut off is found by the key wrap.
    if (format == Format::Argon2id || format == Format::Argon2idCBC || format == Format::UnencryptedAuthenticated) {
        for (const int size : std::vector<int>{1, 15, 17, 100000})
            cases.push_back(blockCase("diskID", size, &H::setDiskID, bad));
        for (const int size : std::vector<int>{0, 31, 33, 100000})
            cases.push_back(blockCase("identityTag", size, &H::setIdentityTag, bad));
        cases.push_back(blockCase("diskID", 16, &H::setDiskID, Outcome::NotAuthentic));
        cases.push_back(blockCase("identityTag", 32, &H::setIdentityTag, Outcome::NotAuthentic));
        cases.push_back({"hasParent", "true", [](H& h) { h.setHasParent(true); }, Outcome::NotAuthentic});
        cases.push_back({"diskID", "cut off", [](H& h) { h.setDiskID(TBuffer<uint8>()); },
                         wrapped ? Outcome::WrongKey : Outcome::Opens});
    }
    return cases;
}

class HeaderTamper : public ::testing::TestWithParam<Format> {
protected:
    void SetUp() override
    {
        const Format format = GetParam();
        const char* password = isEncrypted(format) ? kPassword : "";
        if (format == Format::PBKDF2 || format == Format::Unencrypted)
            CBrickDisk::create(fs.get(), kFolder, kDiskSize, 1, password, "lz4", kBrickSize);
        else
            CBrickDisk::createAuthenticated(fs.get(), kFolder, kDiskSize, 1, password, "lz4", kBrickSize, kTestKdfCost,
                                            format == Format::Argon2idCBC ? "aes256cbc" : "aes256gcm");
        original.load(fs.get(), kFolder);
    }

    const char* password() const { return isEncrypted(GetParam()) ? kPassword : ""; }

    // Writes the edited header in place of the disk's, both copies, with
    // their digests recomputed.
    void storeEdited(const Case& edit)
    {
        CBrickDiskHeader header(original);
        edit.edit(header);
        header.store(fs.get(), kFolder);
    }

    void expectOutcome(const Case& edit)
    {
        SCOPED_TRACE(edit.field + " = " + edit.value);
        storeEdited(edit);
        try {
            const P<CBrickDisk> disk(new CBrickDisk(fs.get(), kFolder, password(), IIOStream::AccessRead, 1));
            EXPECT_EQ(edit.outcome, Outcome::Opens);
            if (edit.outcome == Outcome::Opens) {
                // The first bytes, or all of a smaller disk, read as zeros.
                std::vector<char> buffer(static_cast<size_t>(std::min<int64>(disk->getSize(), 16)), 1);
                disk->read(buffer.data(), static_cast<int>(buffer.size()));
                EXPECT_EQ(buffer, std::vector<char>(buffer.size(), 0));
            }
        } catch (const CBrickDiskError& e) {
            EXPECT_EQ(e.getErrorCode(),
                      edit.outcome == Outcome::WrongKey ? CBrickDiskError::IncorrectPassword
                                                        : CBrickDiskError::NewerSoftwareRequired)
                << e.toString().toUTF8();
            EXPECT_TRUE(edit.outcome == Outcome::WrongKey || edit.outcome == Outcome::NewerSoftware)
                << e.toString().toUTF8();
        } catch (const CError& e) {
            const std::string text = e.toString().toUTF8();
            if (edit.outcome == Outcome::NotAuthentic) {
                EXPECT_EQ(e.getMessage().toUTF8(), "The disk's identity is not authentic.") << text;
                return;
            }
            if (edit.outcome == Outcome::CostRefused) {
                EXPECT_NE(text.find("key derivation of the disk"), std::string::npos) << text;
                return;
            }
            ASSERT_EQ(edit.outcome, Outcome::InvalidField) << text;
            EXPECT_EQ(e.getProps().lookup("field").toUTF8(), edit.field) << text;
            EXPECT_EQ(e.getProps().lookup("diskFolder").toUTF8(), kFolder.toString(true).toUTF8()) << text;
            EXPECT_EQ(e.getMessage().toUTF8().rfind("Invalid ", 0), 0u) << text;
            // The chain inspection and a bare header load refuse it too.
            EXPECT_THROW(CBrickDiskChain(fs.get(), kFolder), CError);
            CBrickDiskHeader loaded;
            EXPECT_THROW(loaded.load(fs.get(), kFolder), CError);
        }
    }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
    CBrickDiskHeader original;
};

TEST_P(HeaderTamper, EveryHostileFieldValueEndsInAClearErrorOrOpens)
{
    const std::vector<Case> cases = casesFor(GetParam());
    for (const Case& edit : cases)
        expectOutcome(edit);
}

TEST_P(HeaderTamper, UneditedHeaderOpens)
{
    storeEdited({"", "", [](CBrickDiskHeader&) {}, Outcome::Opens});
    EXPECT_NO_THROW(P<CBrickDisk>(new CBrickDisk(fs.get(), kFolder, password(), IIOStream::AccessRead, 1)));
}

// The cost of a key derivation that is dear yet quick enough for a test is
// an edit of the PBKDF2 format only: any Argon2id cost above the limit takes
// far longer.
class HeaderTamperCost : public HeaderTamper {};

TEST_P(HeaderTamperCost, ExpensiveKeyDerivationRunsWhenAllowed)
{
    // 1000001 iterations: beyond the allowed cost, yet about a second of work.
    storeEdited(intCase("cipherKeyDerivationIterations", 1000001, &CBrickDiskHeader::setCipherKeyDerivationIterations,
                        Outcome::WrongKey));
    CBrickDisk::OpenOptions options;
    options.allowExpensiveKeyDerivation = true;
    try {
        const P<CBrickDisk> disk(new CBrickDisk(fs.get(), kFolder, kPassword, IIOStream::AccessRead, 1, options));
        ADD_FAILURE() << "another iteration count cannot give the disk's key";
    } catch (const CBrickDiskError& e) {
        EXPECT_EQ(e.getErrorCode(), CBrickDiskError::IncorrectPassword);
    }
}

TEST(HeaderTamperPassword, CostlyKeyDerivationIsRefusedBeforeAPasswordChangeWritesAnything)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem());
    CBrickDisk::createAuthenticated(fs.get(), kFolder, kDiskSize, 1, kPassword, "lz4", kBrickSize, kTestKdfCost);
    CBrickDiskHeader header;
    header.load(fs.get(), kFolder);
    header.setCipherKeyDerivationMemoryKiB(2 * 1024 * 1024);
    header.store(fs.get(), kFolder);
    const P<TBuffer<uint8>> before = fs->getFileData(CBrickDiskHeader::getHeaderURI(kFolder, 0));

    try {
        brick::CBrickDiskKeyWrap::changePassword(fs.get(), {kFolder}, kPassword, "new", kTestKdfCost);
        ADD_FAILURE() << "the password changed";
    } catch (const CBrickDiskError& e) {
        ADD_FAILURE() << e.toString().toUTF8();
    } catch (const CError& e) {
        EXPECT_NE(e.getMessage().toUTF8().find("key derivation of the disk"), std::string::npos)
            << e.toString().toUTF8();
    }
    EXPECT_EQ(*fs->getFileData(CBrickDiskHeader::getHeaderURI(kFolder, 0)), *before);
}

// Versions and iteration counts are 64-bit fields of the record: values
// beyond 32 bits in an authenticated header are refused before their use.
TEST(HeaderTamperRecord, AuthenticatedHeaderWithAnIterationCountBeyond32BitsIsRefused)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem());
    CBrickDisk::createAuthenticated(fs.get(), kFolder, kDiskSize, 1, kPassword, "lz4", kBrickSize, kTestKdfCost);
    CBrickDiskHeader header;
    header.load(fs.get(), kFolder);

    RecordBytes record;
    record.text("BRCKDISK").int64(1).int64(1).int64(1).int32(kBrickSize).int32(1).int64(kDiskSize);
    record.string("hmac-sha256").string("hkdf-sha256").string("aes256cbc");
    record.int32(header.getCipherKeyHash().getUsed())
        .raw(std::vector<uint8>(header.getCipherKeyHash().getData(),
                                header.getCipherKeyHash().getData() + header.getCipherKeyHash().getUsed()));
    record.string("lz4").string("argon2id");
    record.int32(16).raw(std::vector<uint8>(16, 1));
    record.int64((int64(1) << 32) + 1).int32(8).int32(1);
    record.int32(60).raw(std::vector<uint8>(60, 2));
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), kFolder, "disk.brickdisk", record.buffer());

    CBrickDiskHeader loaded;
    EXPECT_THROW(loaded.load(fs.get(), kFolder), CError);
}

TEST(HeaderTamperRecord, OriginalHeaderWithTheLargestIterationCountIsRefusedByName)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem());
    fs->createFolder(kFolder, 0x1ff);
    RecordBytes record;
    record.text("BRCKDISK").int64(1).int64(1).int64(1).int32(kBrickSize).int32(1).int64(kDiskSize);
    record.string("sha256").string("sha256").string("aes256cbc");
    record.int32(32).raw(std::vector<uint8>(32, 3));
    record.string("lz4").string("PKCS5-PBKDF2-HMAC-SHA1");
    record.int32(8).raw(std::vector<uint8>(8, 4));
    record.int64(INT_MAX);
    CBrickDiskAuxFileBase::storeAuxFile(fs.get(), kFolder, "disk.brickdisk", record.buffer());

    try {
        const P<CBrickDisk> disk(new CBrickDisk(fs.get(), kFolder, kPassword, IIOStream::AccessRead, 1));
        ADD_FAILURE() << "the disk opened";
    } catch (const CError& e) {
        EXPECT_EQ(e.getProps().lookup("field").toUTF8(), "cipherKeyDerivationIterations") << e.toString().toUTF8();
        EXPECT_EQ(e.getProps().lookup("value").toUTF8(), "2147483647");
    }
}

INSTANTIATE_TEST_SUITE_P(EveryFormat, HeaderTamper,
                         ::testing::Values(Format::PBKDF2, Format::Argon2id, Format::Argon2idCBC, Format::Unencrypted,
                                           Format::UnencryptedAuthenticated),
                         [](const ::testing::TestParamInfo<Format>& info) { return nameOf(info.param); });
INSTANTIATE_TEST_SUITE_P(PBKDF2, HeaderTamperCost, ::testing::Values(Format::PBKDF2),
                         [](const ::testing::TestParamInfo<Format>& info) { return nameOf(info.param); });

} // namespace
