#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "zo/Error.h"
#include "zo/LZ4Compressor.h"
#include "zo/LZMACompressor.h"
#include "zo/NullCompressor.h"
#include "zo/ZLibCompressor.h"
#include "zo/ZstdCompressor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

using brick::CBrickDataPreparer;
using brick::CBrickDiskHeader;
using Bytes = zo::TBuffer<zo::uint8>;
using Key = zo::TCryptBuffer<zo::uint8>;

constexpr int kDefaultBrickSize = 0x80000;
constexpr char kUnprepareAction[] = "CBrickDataPreparer::unprepareData";

CBrickDiskHeader makeHeader(const char* compressID = "lz4", const char* cipherID = "aes256cbc",
                            const char* checkSumHashID = "md5", int brickSize = kDefaultBrickSize)
{
    CBrickDiskHeader header;
    header.setCompressID(compressID);
    header.setCipherID(cipherID);
    header.setCheckSumHashID(checkSumHashID);
    header.setBrickSize(brickSize);
    return header;
}

// A 32-byte key made from `seed` for "aes256cbc", the empty key for "null".
Key makeKey(const zo::String& cipherID, int seed = 1)
{
    Key key;
    if (cipherID == "null")
        return key;
    key.setUsed(32);
    for (int i = 0; i < 32; ++i)
        key[i] = static_cast<zo::uint8>(seed * 31 + i * 7);
    return key;
}

Bytes bytesOf(const std::string& text)
{
    return Bytes(reinterpret_cast<const zo::uint8*>(text.data()), static_cast<int>(text.size()));
}

Bytes zeroBytes(int size)
{
    Bytes bytes(size);
    if (size > 0)
        std::memset(bytes.getData(), 0, static_cast<size_t>(size));
    return bytes;
}

Bytes randomBytes(int size, unsigned seed = 7)
{
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<zo::uint8>(random());
    return bytes;
}

// Words drawn from a small vocabulary: compressible, but not trivially.
Bytes textLikeBytes(int size, unsigned seed = 11)
{
    static const std::vector<std::string> words = {"brick", "disk ", "the ",   "folder ", "of ",  "sector ", "file\n",
                                                   "data ", "zero ", "child ", "parent ", "key ", "block "};
    std::mt19937 random(seed);
    std::string text;
    while (static_cast<int>(text.size()) < size)
        text += words[random() % words.size()];
    text.resize(static_cast<size_t>(size));
    return bytesOf(text);
}

struct DataKind {
    const char* name;
    Bytes (*make)(int size);
};

const DataKind kDataKinds[] = {
    {"zeros", [](int size) { return zeroBytes(size); }},
    {"text", [](int size) { return textLikeBytes(size); }},
    {"random", [](int size) { return randomBytes(size); }},
};

std::string hexOf(const zo::uint8* data, int size)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (int i = 0; i < size; ++i) {
        hex += digits[data[i] >> 4];
        hex += digits[data[i] & 15];
    }
    return hex;
}

std::string hexOf(const Bytes& bytes)
{
    return hexOf(bytes.getData(), bytes.getUsed());
}

std::string propsText(const zo::CProps& props)
{
    std::string text;
    for (const auto& [name, value] : props)
        text += name.toUTF8() + "=" + value.toUTF8() + ";";
    return text;
}

int digestSizeOf(const char* hashID)
{
    return seal::CDigestManager().getType(hashID)->getSize();
}

Bytes digestOf(const char* hashID, const zo::uint8* data, int size)
{
    const zo::P<seal::IDigestContext> digest = seal::CDigestManager().getType(hashID)->createContext();
    digest->update(data, size);
    digest->finish();
    return Bytes(digest->getDigest(), digest->getSize());
}

// `body` followed by its digest: a brick file whose outer digest checks out.
Bytes withOuterDigest(const Bytes& body, const char* hashID = "md5")
{
    Bytes file(body);
    const Bytes digest = digestOf(hashID, body.getData(), body.getUsed());
    file.append(digest.getData(), digest.getUsed());
    return file;
}

// The bytes of a brick file without its outer digest.
Bytes withoutOuterDigest(const Bytes& file, const char* hashID = "md5")
{
    return Bytes(file.getData(), file.getUsed() - digestSizeOf(hashID));
}

// "BRICK", the two versions and `rest`.
Bytes brickBody(int minReadVersion, int writeVersion, const Bytes& rest)
{
    Bytes body = bytesOf("BRICK");
    const zo::uint8 versions[4] = {static_cast<zo::uint8>(minReadVersion), static_cast<zo::uint8>(minReadVersion >> 8),
                                   static_cast<zo::uint8>(writeVersion), static_cast<zo::uint8>(writeVersion >> 8)};
    body.append(versions, 4);
    if (!rest.isEmpty())
        body.append(rest.getData(), rest.getUsed());
    return body;
}

Bytes prepare(CBrickDataPreparer& preparer, const Bytes& source)
{
    Bytes prepared;
    preparer.prepareData(source, prepared);
    return prepared;
}

// The error that unpreparing `prepared` raises; a test failure when it succeeds.
zo::CError unprepareFailure(CBrickDataPreparer& preparer, const Bytes& prepared)
{
    Bytes plain;
    try {
        preparer.unprepareData(prepared, plain);
    } catch (const zo::CError& error) {
        return error;
    }
    ADD_FAILURE() << "the brick file was accepted";
    return zo::CError("no error");
}

// The code that goes with each message of a damaged brick file.
zo::int64 unprepareCodeOf(const std::string& message)
{
    if (message == "Brick file is corrupted.")
        return CBrickDataPreparer::CorruptedFile;
    if (message == "Invalid ID in brick data.")
        return CBrickDataPreparer::NotABrickFile;
    if (message == "Newer software version required to read brick data.")
        return CBrickDataPreparer::NewerSoftwareRequired;
    if (message == "Invalid size of prepared brick data.")
        return CBrickDataPreparer::InvalidSize;
    if (message == "Decrypted and decompressed brick data does not match hash.")
        return CBrickDataPreparer::PlainDigestMismatch;
    ADD_FAILURE() << "no code for " << message;
    return -1;
}

void expectUnprepareError(const zo::CError& error, const char* message, const zo::CProps& extraProps = zo::CProps())
{
    EXPECT_EQ(error.getMessage().toUTF8(), message);
    EXPECT_EQ(propsText(error.getProps()), propsText(zo::CProps().add("action", kUnprepareAction).addAll(extraProps)));
    EXPECT_EQ(error.getCode(), unprepareCodeOf(message));
    EXPECT_EQ(error.getDomain().toUTF8(), CBrickDataPreparer::kErrorDomain);
}

bool isUnprepareMessage(const std::string& message)
{
    return message == "Brick file is corrupted." || message == "Invalid ID in brick data." ||
        message == "Newer software version required to read brick data." ||
        message == "Invalid size of prepared brick data." ||
        message == "Decrypted and decompressed brick data does not match hash.";
}

// ---------------------------------------------------------------------------
// Round trips over every compressor, cipher and digest.

struct PreparerConfig {
    const char* compressID;
    const char* cipherID;
    const char* checkSumHashID;
};

void PrintTo(const PreparerConfig& config, std::ostream* out)
{
    *out << config.compressID << ", " << config.cipherID << ", " << config.checkSumHashID;
}

class BrickDataPreparerRoundTrip : public testing::TestWithParam<PreparerConfig> {};

TEST_P(BrickDataPreparerRoundTrip, RestoresZerosTextAndRandomBricks)
{
    const PreparerConfig config = GetParam();
    constexpr int brickSize = 0x20000;
    const CBrickDiskHeader header = makeHeader(config.compressID, config.cipherID, config.checkSumHashID, brickSize);
    const Key key = makeKey(config.cipherID);
    CBrickDataPreparer preparer(header, key);
    const int overhead = 9 + 2 * digestSizeOf(config.checkSumHashID);

    for (const DataKind& kind : kDataKinds) {
        for (int size : {0, 1, 1000, brickSize}) {
            SCOPED_TRACE(std::string(kind.name) + " of " + std::to_string(size) + " bytes");
            const Bytes source = kind.make(size);
            const Bytes prepared = prepare(preparer, source);
            EXPECT_GE(prepared.getUsed(), overhead);
            Bytes plain = randomBytes(100);
            preparer.unprepareData(prepared, plain);
            EXPECT_TRUE(plain == source);
        }
    }
}

std::string configName(const testing::TestParamInfo<PreparerConfig>& info)
{
    std::string name = std::string(info.param.compressID) + "_" + info.param.cipherID + "_" + info.param.checkSumHashID;
    for (char& c : name)
        if (c == '-')
            c = '_';
    return name;
}

std::vector<PreparerConfig> allConfigs()
{
    std::vector<PreparerConfig> configs;
    for (const char* compressID : {"null", "zlib-1", "zlib-6", "zlib-9", "lz4", "lz4hc", "lzma-0", "lzma-6", "lzma-9",
                                   "lzma-5-1", "zstd-1", "zstd-3", "zstd-19"})
        for (const char* cipherID : {"aes256cbc", "null"})
            for (const char* hashID : {"md5", "sha256"})
                configs.push_back({compressID, cipherID, hashID});
    return configs;
}

INSTANTIATE_TEST_SUITE_P(EveryAlgorithm, BrickDataPreparerRoundTrip, testing::ValuesIn(allConfigs()), configName);

// The same for bricks bound to their index, with keyed digests or sealed by
// the authenticated cipher, over every compressor.
class BrickDataPreparerIndexedRoundTrip : public testing::TestWithParam<PreparerConfig> {};

TEST_P(BrickDataPreparerIndexedRoundTrip, RestoresZerosTextAndRandomBricksAtTheirIndex)
{
    const PreparerConfig config = GetParam();
    constexpr int brickSize = 0x20000;
    const CBrickDiskHeader header = makeHeader(config.compressID, config.cipherID, config.checkSumHashID, brickSize);
    CBrickDataPreparer preparer(header, makeKey(config.cipherID));
    for (const DataKind& kind : kDataKinds) {
        for (int size : {0, 1, 1000, brickSize}) {
            SCOPED_TRACE(std::string(kind.name) + " of " + std::to_string(size) + " bytes");
            const Bytes source = kind.make(size);
            Bytes prepared;
            preparer.prepareData(source, prepared, size);
            Bytes plain = randomBytes(100);
            preparer.unprepareData(prepared, plain, size);
            EXPECT_TRUE(plain == source);
        }
    }
}

std::vector<PreparerConfig> indexedConfigs()
{
    std::vector<PreparerConfig> configs;
    for (const char* compressID : {"null", "zlib-6", "lz4", "lz4hc", "lzma-0", "lzma-5-1"})
        for (const char* cipherID : {"aes256gcm", "aes256cbc", "null"})
            configs.push_back({compressID, cipherID, "hmac-sha256"});
    return configs;
}

INSTANTIATE_TEST_SUITE_P(EveryAlgorithm, BrickDataPreparerIndexedRoundTrip, testing::ValuesIn(indexedConfigs()),
                         configName);

TEST(BrickDataPreparer, RoundTripsFullBricksWithTheDefaultHeader)
{
    const CBrickDiskHeader header;
    CBrickDataPreparer preparer(header, makeKey("aes256cbc"));
    for (const DataKind& kind : kDataKinds) {
        SCOPED_TRACE(kind.name);
        const Bytes source = kind.make(kDefaultBrickSize);
        Bytes plain;
        preparer.unprepareData(prepare(preparer, source), plain);
        EXPECT_TRUE(plain == source);
    }
}

TEST(BrickDataPreparer, CompressesBeforeEncrypting)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    EXPECT_LT(prepare(preparer, zeroBytes(kDefaultBrickSize)).getUsed(), 4096);
}

TEST(BrickDataPreparer, EncryptsWithAFreshIVEachTime)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes source = textLikeBytes(5000);
    EXPECT_FALSE(prepare(preparer, source) == prepare(preparer, source));
}

TEST(BrickDataPreparer, ReplacesWhatTheOutputBuffersHeld)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes source = textLikeBytes(3000);
    Bytes prepared = randomBytes(777);
    preparer.prepareData(source, prepared);
    ASSERT_GE(prepared.getUsed(), 5);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(prepared.getData()), 5), "BRICK");

    Bytes plain = randomBytes(9000);
    preparer.unprepareData(prepared, plain);
    EXPECT_TRUE(plain == source);
}

TEST(BrickDataPreparer, ReservesThePreparedBufferOnceForTheWorstCase)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const int maxCompressed = zo::CLZ4Compressor(false).getMaxCompressedSize(kDefaultBrickSize);
    const int worstCase = 16 + 9 + 2 * 16 + 16 + maxCompressed;

    Bytes prepared;
    preparer.prepareData(randomBytes(kDefaultBrickSize), prepared);
    EXPECT_EQ(prepared.getCapacity(), worstCase);
    const zo::uint8* memory = prepared.getData();

    for (const DataKind& kind : kDataKinds) {
        preparer.prepareData(kind.make(kDefaultBrickSize), prepared);
        EXPECT_EQ(prepared.getData(), memory) << kind.name;
        EXPECT_EQ(prepared.getCapacity(), worstCase) << kind.name;
    }
}

// ---------------------------------------------------------------------------
// Compressor IDs.

struct CompressorCase {
    const char* compressID;
    std::function<zo::P<zo::ICompressor>()> make;
};

void PrintTo(const CompressorCase& compressorCase, std::ostream* out)
{
    *out << compressorCase.compressID;
}

class BrickDataPreparerCompressorID : public testing::TestWithParam<CompressorCase> {};

// With the "null" cipher the ciphertext is the compressor's output, so the
// payload shows which compressor the ID chose.
Bytes payloadOf(const Bytes& prepared)
{
    return Bytes(prepared.getData() + 25, prepared.getUsed() - 25 - 16);
}

Bytes compressWith(zo::ICompressor& compressor, const Bytes& source)
{
    Bytes compressed(compressor.getMaxCompressedSize(source.getUsed()));
    compressed.setUsed(
        compressor.compress(source.getData(), source.getUsed(), compressed.getData(), compressed.getUsed()));
    return compressed;
}

TEST_P(BrickDataPreparerCompressorID, CompressesWithTheCompressorItsIDNames)
{
    const CompressorCase& compressorCase = GetParam();
    CBrickDataPreparer preparer(makeHeader(compressorCase.compressID, "null"), Key());
    const Bytes source = textLikeBytes(0x10000);

    const Bytes prepared = prepare(preparer, source);
    EXPECT_EQ(hexOf(payloadOf(prepared)), hexOf(compressWith(*compressorCase.make(), source)));

    Bytes plain;
    preparer.unprepareData(prepared, plain);
    EXPECT_TRUE(plain == source);
}

std::string compressorCaseName(const testing::TestParamInfo<CompressorCase>& info)
{
    std::string name = info.param.compressID;
    for (char& c : name)
        if (c == '-')
            c = '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(
    Grammar, BrickDataPreparerCompressorID,
    testing::Values(CompressorCase{"null", [] { return zo::P<zo::ICompressor>(new zo::CNullCompressor()); }},
                    CompressorCase{"zlib-1", [] { return zo::P<zo::ICompressor>(new zo::CZLibCompressor(1)); }},
                    CompressorCase{"zlib-6", [] { return zo::P<zo::ICompressor>(new zo::CZLibCompressor(6)); }},
                    CompressorCase{"zlib-9", [] { return zo::P<zo::ICompressor>(new zo::CZLibCompressor(9)); }},
                    CompressorCase{"lz4", [] { return zo::P<zo::ICompressor>(new zo::CLZ4Compressor(false)); }},
                    CompressorCase{"lz4hc", [] { return zo::P<zo::ICompressor>(new zo::CLZ4Compressor(true)); }},
                    CompressorCase{"lzma-0", [] { return zo::P<zo::ICompressor>(new zo::CLZMACompressor(0, 0)); }},
                    CompressorCase{"lzma-9", [] { return zo::P<zo::ICompressor>(new zo::CLZMACompressor(9, 0)); }},
                    CompressorCase{"lzma-5-1", [] { return zo::P<zo::ICompressor>(new zo::CLZMACompressor(5, 1)); }},
                    CompressorCase{"lzma-6-0", [] { return zo::P<zo::ICompressor>(new zo::CLZMACompressor(6, 0)); }},
                    CompressorCase{"zstd-1", [] { return zo::P<zo::ICompressor>(new zo::CZstdCompressor(1)); }},
                    CompressorCase{"zstd-19", [] { return zo::P<zo::ICompressor>(new zo::CZstdCompressor(19)); }}),
    compressorCaseName);

TEST(BrickDataPreparer, IncompressibleBrickIsStoredAsLZ4LiteralsAndReadBack)
{
    CBrickDataPreparer writer(makeHeader("lz4hc", "null"), Key());
    const Bytes source = randomBytes(kDefaultBrickSize);
    const Bytes prepared = prepare(writer, source);

    // The size, a token of 15 literals, the rest of the count, the bytes.
    const Bytes payload = payloadOf(prepared);
    const int countBytes = (kDefaultBrickSize - 15) / 255 + 1;
    ASSERT_EQ(payload.getUsed(), 4 + 1 + countBytes + kDefaultBrickSize);
    EXPECT_EQ(payload[4], 0xF0);
    EXPECT_EQ(std::memcmp(payload.getData() + 5 + countBytes, source.getData(), kDefaultBrickSize), 0);

    // A reader of the fast compressor reads it as any LZ4 brick.
    CBrickDataPreparer reader(makeHeader("lz4", "null"), Key());
    Bytes plain;
    reader.unprepareData(prepared, plain);
    EXPECT_TRUE(plain == source);
}

// The cases above can only tell compressors apart when their outputs differ.
TEST(BrickDataPreparer, CompressorIDsOfDifferentLevelsGiveDifferentPayloads)
{
    const Bytes source = textLikeBytes(0x10000);
    const auto payloadFor = [&](const char* compressID) {
        CBrickDataPreparer preparer(makeHeader(compressID, "null"), Key());
        return hexOf(payloadOf(prepare(preparer, source)));
    };
    EXPECT_NE(payloadFor("lz4"), payloadFor("lz4hc"));
    EXPECT_NE(payloadFor("zlib-1"), payloadFor("zlib-9"));
    EXPECT_NE(payloadFor("lzma-0"), payloadFor("lzma-9"));
    EXPECT_NE(payloadFor("zstd-1"), payloadFor("zstd-19"));
    EXPECT_NE(payloadFor("null"), payloadFor("lz4"));
}

TEST(BrickDataPreparer, RefusesUnknownCompressorIDs)
{
    for (const char* compressID :
         {"LZ4", "Lz4hc", "lz4 ", "lz4hc-9", "zlib", "lzma", "nul", "null-1", "NULL", "zstd", "gzip-6", "", "zlib6"}) {
        SCOPED_TRACE(compressID);
        try {
            CBrickDataPreparer preparer(makeHeader(compressID), makeKey("aes256cbc"));
            ADD_FAILURE() << "the compressor ID was accepted";
        } catch (const zo::CInvalidArgError&) {
            ADD_FAILURE() << "an unknown ID is not a bad number";
        } catch (const zo::CError& error) {
            EXPECT_EQ(error.getMessage().toUTF8(), std::string("Unknown compressor ID: ") + compressID);
            EXPECT_EQ(error.getCode(), -1);
            EXPECT_TRUE(error.getDomain().isEmpty());
            EXPECT_TRUE(error.getProps().isEmpty());
        }
    }
}

TEST(BrickDataPreparer, RefusesCompressorIDsWithBadNumbersAsUnknown)
{
    for (const char* compressID : {"zlib-",    "zlib-x",   "zlib-6x",          "zlib-6 ",
                                   "zlib--1",  "zlib-10",  "zlib-06",          "lzma-",
                                   "lzma-x",   "lzma-5-",  "lzma--3",          "lzma-5-3-1",
                                   "lzma-5-y", "lzma-5-3", "lzma-10",          "lzma-9-99999999999",
                                   "zstd-",    "zstd-0",   "zstd-01",          "zstd--1",
                                   "zstd-+3",  "zstd-20",  "zstd-99999999999", "zstd-3x"}) {
        SCOPED_TRACE(compressID);
        try {
            CBrickDataPreparer preparer(makeHeader(compressID), makeKey("aes256cbc"));
            ADD_FAILURE() << "the compressor ID was accepted";
        } catch (const zo::CError& error) {
            EXPECT_EQ(error.getMessage().toUTF8(), std::string("Unknown compressor ID: ") + compressID);
        }
    }
}

std::string constructionFailure(const CBrickDiskHeader& header)
{
    try {
        CBrickDataPreparer preparer(header, makeKey("aes256cbc"));
    } catch (const zo::CError& error) {
        return error.getMessage().toUTF8();
    }
    return "no error";
}

TEST(BrickDataPreparer, PassesOnTheErrorOfAnUnknownCipherOrDigest)
{
    EXPECT_EQ(constructionFailure(makeHeader("lz4", "aes128cbc")), "Unknown cipher ID: aes128cbc");
    EXPECT_EQ(constructionFailure(makeHeader("lz4", "aes256cbc", "sha1")), "Unknown digest ID: sha1");
}

// ---------------------------------------------------------------------------
// Layout of a brick file.

TEST(BrickDataPreparer, LaysOutAnUnencryptedUncompressedBrickExactly)
{
    CBrickDataPreparer preparer(makeHeader("null", "null"), Key());
    // "BRICK", versions 1 and 1, MD5("abc"), "abc", MD5 of all of that.
    EXPECT_EQ(hexOf(prepare(preparer, bytesOf("abc"))),
              "425249434b"
              "0100"
              "0100"
              "900150983cd24fb0d6963f7d28e17f72"
              "616263"
              "544ec3b52fac50e8a3a0b6df865d90cb");
}

TEST(BrickDataPreparer, LaysOutAnEncryptedBrick)
{
    const Key key = makeKey("aes256cbc");
    CBrickDataPreparer preparer(makeHeader(), key);
    const Bytes source = bytesOf("abc");
    const Bytes prepared = prepare(preparer, source);
    const int size = prepared.getUsed();
    ASSERT_GE(size, 25 + 16);

    EXPECT_EQ(hexOf(prepared.getData(), 9), "425249434b01000100");
    EXPECT_EQ(hexOf(prepared.getData() + 9, 16), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(hexOf(prepared.getData() + size - 16, 16), hexOf(digestOf("md5", prepared.getData(), size - 16)));

    // The ciphertext: IV and whole AES blocks, decrypting to the LZ4 form of the plain bytes.
    const int cipherTextSize = size - 25 - 16;
    EXPECT_EQ(cipherTextSize % 16, 0);
    Bytes compressed;
    seal::CCipherManager()
        .getCipher("aes256cbc")
        ->decrypt(key, prepared.getData() + 25, cipherTextSize, compressed, false, 0);
    zo::CLZ4Compressor lz4(false);
    EXPECT_EQ(hexOf(compressed), hexOf(compressWith(lz4, source)));
}

TEST(BrickDataPreparer, UsesTheHeadersChecksumDigestForBothDigests)
{
    CBrickDataPreparer preparer(makeHeader("lz4", "aes256cbc", "sha256"), makeKey("aes256cbc"));
    const Bytes source = textLikeBytes(2000);
    const Bytes prepared = prepare(preparer, source);
    const int size = prepared.getUsed();
    ASSERT_GE(size, 9 + 32 + 32);
    EXPECT_EQ(hexOf(prepared.getData() + 9, 32), hexOf(digestOf("sha256", source.getData(), source.getUsed())));
    EXPECT_EQ(hexOf(prepared.getData() + size - 32, 32), hexOf(digestOf("sha256", prepared.getData(), size - 32)));
}

// ---------------------------------------------------------------------------
// Sizes of the plain bytes.

TEST(BrickDataPreparer, PreparesAnEmptySourceAndRestoresIt)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    zo::CLZ4Compressor lz4(false);
    const int compressedSize = compressWith(lz4, Bytes()).getUsed();
    const int cipherTextSize = 16 + (compressedSize / 16 + 1) * 16;

    const Bytes prepared = prepare(preparer, Bytes());
    EXPECT_EQ(prepared.getUsed(), 9 + 2 * 16 + cipherTextSize);
    Bytes plain = randomBytes(50);
    preparer.unprepareData(prepared, plain);
    EXPECT_EQ(plain.getUsed(), 0);
}

TEST(BrickDataPreparer, PreparesAnEmptySourceWithoutCipherOrCompressorToTheBareFrame)
{
    CBrickDataPreparer preparer(makeHeader("null", "null", "sha256"), Key());
    const Bytes prepared = prepare(preparer, Bytes());
    EXPECT_EQ(prepared.getUsed(), 9 + 2 * 32);
    Bytes plain = randomBytes(50);
    preparer.unprepareData(prepared, plain);
    EXPECT_EQ(plain.getUsed(), 0);
}

TEST(BrickDataPreparer, AcceptsASourceOfExactlyTheBrickSize)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes source = textLikeBytes(kDefaultBrickSize);
    Bytes plain;
    preparer.unprepareData(prepare(preparer, source), plain);
    EXPECT_TRUE(plain == source);
}

TEST(BrickDataPreparer, RefusesASourceOneByteBiggerThanTheBrick)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    Bytes prepared;
    try {
        preparer.prepareData(zeroBytes(kDefaultBrickSize + 1), prepared);
        FAIL() << "the source was accepted";
    } catch (const zo::CInvalidArgError& error) {
        EXPECT_EQ(error.getWhere().toUTF8(), "CBrickDataPreparer::prepareData");
        EXPECT_EQ(error.getMessage().toUTF8(), "source buffer is bigger than brick size (524289).");
        EXPECT_TRUE(error.getProps().isEmpty());
    }
}

TEST(BrickDataPreparer, TakesTheBrickSizeFromTheHeader)
{
    CBrickDataPreparer preparer(makeHeader("lz4", "aes256cbc", "md5", 4096), makeKey("aes256cbc"));
    Bytes prepared;
    EXPECT_NO_THROW(preparer.prepareData(textLikeBytes(4096), prepared));
    EXPECT_THROW(preparer.prepareData(textLikeBytes(4097), prepared), zo::CInvalidArgError);
}

TEST(BrickDataPreparer, RefusesToRestoreMoreThanABrick)
{
    // A preparer for bigger bricks writes a file that one for 4 KiB bricks cannot hold.
    CBrickDataPreparer bigBricks(makeHeader("lz4", "aes256cbc", "md5", 8192), makeKey("aes256cbc"));
    CBrickDataPreparer smallBricks(makeHeader("lz4", "aes256cbc", "md5", 4096), makeKey("aes256cbc"));
    const zo::CError error = unprepareFailure(smallBricks, prepare(bigBricks, textLikeBytes(8192)));
    EXPECT_FALSE(error.getProps().contains("action"));
}

// ---------------------------------------------------------------------------
// Damaged files: the outer digest.

TEST(BrickDataPreparer, CatchesEveryChangeOfEveryByteOfASmallBrick)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes prepared = prepare(preparer, textLikeBytes(40));
    ASSERT_LT(prepared.getUsed(), 128);
    int checked = 0;
    for (int offset = 0; offset < prepared.getUsed(); ++offset) {
        for (int change = 1; change < 256; ++change) {
            Bytes damaged(prepared);
            damaged[offset] = static_cast<zo::uint8>(damaged[offset] ^ change);
            Bytes plain;
            try {
                preparer.unprepareData(damaged, plain);
                ADD_FAILURE() << "change " << change << " at offset " << offset << " was not caught";
            } catch (const zo::CError& error) {
                if (error.getMessage() != "Brick file is corrupted.")
                    ADD_FAILURE() << "offset " << offset << ": " << error.what();
            }
            ++checked;
        }
    }
    EXPECT_EQ(checked, prepared.getUsed() * 255);
}

TEST(BrickDataPreparer, CatchesChangedBytesAcrossAFullBrick)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes prepared = prepare(preparer, randomBytes(kDefaultBrickSize));
    const int size = prepared.getUsed();
    ASSERT_GT(size, kDefaultBrickSize);

    std::vector<int> offsets;
    for (int offset = 0; offset < 64; ++offset) {
        offsets.push_back(offset);
        offsets.push_back(size - 1 - offset);
    }
    for (int offset = 64; offset < size - 64; offset += 4099)
        offsets.push_back(offset);

    Bytes damaged(prepared);
    for (int offset : offsets) {
        SCOPED_TRACE("offset " + std::to_string(offset));
        const zo::uint8 original = damaged[offset];
        damaged[offset] = static_cast<zo::uint8>(original ^ (1 + offset % 255));
        expectUnprepareError(unprepareFailure(preparer, damaged), "Brick file is corrupted.");
        damaged[offset] = original;
    }
}

TEST(BrickDataPreparer, CatchesDamageBeforeDecrypting)
{
    // Decrypting with the wrong key would fail differently; the damage is found first.
    CBrickDataPreparer writer(makeHeader(), makeKey("aes256cbc", 1));
    CBrickDataPreparer otherKey(makeHeader(), makeKey("aes256cbc", 2));
    Bytes damaged = prepare(writer, textLikeBytes(1000));
    damaged[30] = static_cast<zo::uint8>(damaged[30] ^ 0x40);
    expectUnprepareError(unprepareFailure(otherKey, damaged), "Brick file is corrupted.");
}

TEST(BrickDataPreparer, CatchesTruncatedAndExtendedFiles)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes prepared = prepare(preparer, textLikeBytes(300));
    for (int size = 0; size < prepared.getUsed(); ++size) {
        SCOPED_TRACE("cut to " + std::to_string(size));
        expectUnprepareError(unprepareFailure(preparer, Bytes(prepared.getData(), size)), "Brick file is corrupted.");
    }
    Bytes extended(prepared);
    const zo::uint8 extra = 0;
    extended.append(&extra, 1);
    expectUnprepareError(unprepareFailure(preparer, extended), "Brick file is corrupted.");
}

TEST(BrickDataPreparer, CallsAFileShorterThanADigestCorrupted)
{
    CBrickDataPreparer preparer(makeHeader("lz4", "aes256cbc", "sha256"), makeKey("aes256cbc"));
    expectUnprepareError(unprepareFailure(preparer, Bytes()), "Brick file is corrupted.");
    expectUnprepareError(unprepareFailure(preparer, zeroBytes(31)), "Brick file is corrupted.");
}

TEST(BrickDataPreparer, ReadsTheFileIDOfAFileThatIsOnlyADigestOfNothing)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    expectUnprepareError(unprepareFailure(preparer, withOuterDigest(Bytes())), "Invalid ID in brick data.");
}

// ---------------------------------------------------------------------------
// Intact files that are not good bricks.

TEST(BrickDataPreparer, RefusesAFileWithAnotherID)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes body = withoutOuterDigest(prepare(preparer, textLikeBytes(500)));
    for (int offset = 0; offset < 5; ++offset) {
        SCOPED_TRACE("offset " + std::to_string(offset));
        Bytes otherID(body);
        otherID[offset] = static_cast<zo::uint8>(otherID[offset] + 1);
        expectUnprepareError(unprepareFailure(preparer, withOuterDigest(otherID)), "Invalid ID in brick data.");
    }
}

TEST(BrickDataPreparer, RefusesABrickThatNeedsANewerReader)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes body = withoutOuterDigest(prepare(preparer, textLikeBytes(500)));
    for (int minReadVersion : {2, 0x7fff}) {
        Bytes newer(body);
        newer[5] = static_cast<zo::uint8>(minReadVersion);
        newer[6] = static_cast<zo::uint8>(minReadVersion >> 8);
        newer[7] = 7;
        newer[8] = 0;
        expectUnprepareError(unprepareFailure(preparer, withOuterDigest(newer)),
                             "Newer software version required to read brick data.",
                             zo::CProps().add("minReadVersion", minReadVersion).add("writeVersion", 7));
    }
}

TEST(BrickDataPreparer, ReadsBricksOfAnyWriterThatAllowsThisReader)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const Bytes source = textLikeBytes(500);
    const Bytes body = withoutOuterDigest(prepare(preparer, source));
    for (const auto& [minReadVersion, writeVersion] : {std::pair{1, 9}, std::pair{0, 1}, std::pair{-1, 2}}) {
        SCOPED_TRACE(std::to_string(minReadVersion) + ", " + std::to_string(writeVersion));
        Bytes versions(body);
        versions[5] = static_cast<zo::uint8>(minReadVersion);
        versions[6] = static_cast<zo::uint8>(minReadVersion >> 8);
        versions[7] = static_cast<zo::uint8>(writeVersion);
        versions[8] = static_cast<zo::uint8>(writeVersion >> 8);
        Bytes plain;
        preparer.unprepareData(withOuterDigest(versions), plain);
        EXPECT_TRUE(plain == source);
    }
}

TEST(BrickDataPreparer, RefusesAFileTooShortForBothDigests)
{
    CBrickDataPreparer md5(makeHeader(), makeKey("aes256cbc"));
    // The fixed fields alone, then one byte short of the inner digest.
    expectUnprepareError(unprepareFailure(md5, withOuterDigest(brickBody(1, 1, Bytes()))),
                         "Invalid size of prepared brick data.",
                         zo::CProps().add("fullSize", 25).add("headerSize", 25));
    expectUnprepareError(unprepareFailure(md5, withOuterDigest(brickBody(1, 1, zeroBytes(15)))),
                         "Invalid size of prepared brick data.",
                         zo::CProps().add("fullSize", 40).add("headerSize", 25));

    CBrickDataPreparer sha256(makeHeader("lz4", "aes256cbc", "sha256"), makeKey("aes256cbc"));
    expectUnprepareError(unprepareFailure(sha256, withOuterDigest(brickBody(1, 1, zeroBytes(31)), "sha256")),
                         "Invalid size of prepared brick data.",
                         zo::CProps().add("fullSize", 72).add("headerSize", 41));
}

TEST(BrickDataPreparer, HandsAnEmptyCipherTextToTheCipher)
{
    // 9 + 2D bytes pass the size check; AES-256-CBC has no empty ciphertext.
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    const zo::CError error = unprepareFailure(preparer, withOuterDigest(brickBody(1, 1, zeroBytes(16))));
    EXPECT_FALSE(error.getProps().contains("action")) << error.what();
    EXPECT_FALSE(isUnprepareMessage(error.getMessage().toUTF8())) << error.what();
}

TEST(BrickDataPreparer, ChecksTheInnerDigestOfAnEmptyCipherText)
{
    CBrickDataPreparer preparer(makeHeader("null", "null"), Key());
    const Bytes emptyDigest = digestOf("md5", nullptr, 0);

    Bytes plain = randomBytes(10);
    preparer.unprepareData(withOuterDigest(brickBody(1, 1, emptyDigest)), plain);
    EXPECT_EQ(plain.getUsed(), 0);

    expectUnprepareError(unprepareFailure(preparer, withOuterDigest(brickBody(1, 1, zeroBytes(16)))),
                         "Decrypted and decompressed brick data does not match hash.");
}

TEST(BrickDataPreparer, RefusesBytesThatDoNotMatchTheInnerDigest)
{
    CBrickDataPreparer preparer(makeHeader("null", "null"), Key());
    const Bytes body = withoutOuterDigest(prepare(preparer, bytesOf("brick data")));

    Bytes otherPayload(body);
    otherPayload[25] = static_cast<zo::uint8>(otherPayload[25] ^ 1);
    expectUnprepareError(unprepareFailure(preparer, withOuterDigest(otherPayload)),
                         "Decrypted and decompressed brick data does not match hash.");

    Bytes otherDigest(body);
    otherDigest[9] = static_cast<zo::uint8>(otherDigest[9] ^ 1);
    expectUnprepareError(unprepareFailure(preparer, withOuterDigest(otherDigest)),
                         "Decrypted and decompressed brick data does not match hash.");
}

TEST(BrickDataPreparer, RefusesAnEncryptedBrickWhoseInnerDigestWasReplaced)
{
    CBrickDataPreparer preparer(makeHeader(), makeKey("aes256cbc"));
    Bytes body = withoutOuterDigest(prepare(preparer, textLikeBytes(700)));
    body[20] = static_cast<zo::uint8>(body[20] ^ 0x80);
    expectUnprepareError(unprepareFailure(preparer, withOuterDigest(body)),
                         "Decrypted and decompressed brick data does not match hash.");
}

TEST(BrickDataPreparer, FailsWithAnotherKey)
{
    CBrickDataPreparer writer(makeHeader(), makeKey("aes256cbc", 1));
    CBrickDataPreparer reader(makeHeader(), makeKey("aes256cbc", 2));
    for (unsigned seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const zo::CError error = unprepareFailure(reader, prepare(writer, randomBytes(1000, seed)));
        // Either the padding gives the wrong key away in the cipher, or the
        // decompressor or the inner digest does.
        if (error.getProps().contains("action")) {
            EXPECT_EQ(error.getMessage().toUTF8(), "Decrypted and decompressed brick data does not match hash.");
        }
    }
}

TEST(BrickDataPreparer, FailsWhenTheDigestAlgorithmDiffers)
{
    CBrickDataPreparer md5(makeHeader(), makeKey("aes256cbc"));
    CBrickDataPreparer sha256(makeHeader("lz4", "aes256cbc", "sha256"), makeKey("aes256cbc"));
    expectUnprepareError(unprepareFailure(sha256, prepare(md5, textLikeBytes(1000))), "Brick file is corrupted.");
}

} // namespace
