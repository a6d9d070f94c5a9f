#include "brick/format/BrickDataPreparer.h"

#include "brick/Version.h"
#include "brick/detail/BrickFileLayout.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskHeaderLimits.h"
#include "seal/KeyDerivation.h"
#include "seal/Random.h"
#include "zo/BufferStream.h"
#include "zo/DataStream.h"
#include "zo/Error.h"
#include "zo/LZ4Compressor.h"
#include "zo/LZMACompressor.h"
#include "zo/NullCompressor.h"
#include "zo/ZLibCompressor.h"
#include "zo/ZstdCompressor.h"

#include <cstring>

namespace brick {

namespace {

using layout::kBrickFileID;
using layout::kBrickFileIDSize;
using layout::kBrickIndexSize;
using layout::kBrickKeySaltSize;
using layout::kFixedHeaderSize;
using layout::kSealedHeaderSize;
using layout::kSealedTagSize;
constexpr char kDigestKeyInfo[] = "brickdisk brick digest";
constexpr int kDigestKeySize = 32;
// Brick files of an authenticated cipher: see the header.
constexpr char kBrickKeyInfo[] = "brickdisk brick key";
constexpr char kChainIdentityInfo[] = "brickdisk chain identity";
constexpr char kSealedLabel[] = "brickdisk aes256gcm brick";
constexpr int kDerivedSize = 32;
// Every brick key encrypts a single file, so one nonce serves them all.
constexpr zo::uint8 kSealedNonce[12] = {};

// HKDF-SHA256 of the disk's key with `info` and no salt, 32 bytes.
void deriveFromDiskKey(const zo::TCryptBuffer<zo::uint8>& key, const char* info, int infoSize, zo::uint8* out)
{
    seal::deriveKey_HKDF_SHA256(key.getData(), key.getUsed(), nullptr, 0, info, infoSize, kDerivedSize, out);
}

// The brick index as the digests and the file hold it: 8 bytes, little-endian.
void encodeBrickIndex(zo::int64 brickIndex, zo::uint8* out)
{
    const auto value = static_cast<zo::uint64>(brickIndex);
    for (int i = 0; i < kBrickIndexSize; ++i)
        out[i] = static_cast<zo::uint8>(value >> (8 * i));
}

zo::int64 decodeBrickIndex(const zo::uint8* in)
{
    zo::uint64 value = 0;
    for (int i = kBrickIndexSize - 1; i >= 0; --i)
        value = (value << 8) | in[i];
    return static_cast<zo::int64>(value);
}

zo::CProps unprepareProps()
{
    return zo::CProps().add("action", "CBrickDataPreparer::unprepareData");
}

[[noreturn]] void throwUnprepareError(CBrickDataPreparer::ErrorCode code, const char* message,
                                      const zo::CProps& props = unprepareProps())
{
    throw zo::CError(message, CBrickDataPreparer::kErrorDomain, code, props);
}

int parseInt(const zo::String& text)
{
    return static_cast<int>(zo::parseInt64(text, false));
}

} // namespace

CBrickDataPreparer::CBrickDataPreparer(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key)
    : m_brickSize(header.getBrickSize()), m_cipher(seal::CCipherManager().getCipher(header.getCipherID())), m_key(key),
      m_digest(createDigest(header.getCheckSumHashID(), key)), m_digestSize(m_digest->getSize()),
      m_bindsBrickIndex(header.getCheckSumHashID() == CBrickDiskHeader::kAuthenticatedCheckSumID),
      m_fixedHeaderSize(kFixedHeaderSize + (m_bindsBrickIndex ? kBrickIndexSize : 0)),
      m_compressor(createCompressor(header.getCompressID()))
{
    if (!seal::CCipherManager::isAuthenticated(header.getCipherID()))
        return;
    if (!m_bindsBrickIndex)
        throw zo::CError("An authenticated cipher needs the checksum ID hmac-sha256.", zo::String(), -1,
                         zo::CProps().add("cipherID", header.getCipherID()));
    m_aead = seal::CCipherManager().getAEADCipher(header.getCipherID());
    zo::TCryptBuffer<zo::uint8> derived;
    derived.setUsed(kDerivedSize);
    deriveFromDiskKey(key, kBrickKeyInfo, static_cast<int>(sizeof(kBrickKeyInfo) - 1), derived.getData());
    m_brickKeyDeriver = seal::createHMACSHA256Context(derived.getData(), kDerivedSize);
    deriveFromDiskKey(key, kChainIdentityInfo, static_cast<int>(sizeof(kChainIdentityInfo) - 1), derived.getData());
    m_associated.append(reinterpret_cast<const zo::uint8*>(kSealedLabel), static_cast<int>(sizeof(kSealedLabel) - 1));
    m_associated.append(derived.getData(), kDerivedSize);
    m_associatedPrefixSize = m_associated.getUsed();
}

zo::P<seal::IDigestContext> CBrickDataPreparer::createDigest(const zo::String& checkSumHashID,
                                                             const zo::TCryptBuffer<zo::uint8>& key)
{
    if (checkSumHashID != CBrickDiskHeader::kAuthenticatedCheckSumID)
        return seal::CDigestManager().getType(checkSumHashID)->createContext();
    // The digest key is derived, so that it never equals the cipher key.
    zo::TCryptBuffer<zo::uint8> digestKey;
    if (key.getUsed() > 0) {
        digestKey.setUsed(kDigestKeySize);
        seal::deriveKey_HKDF_SHA256(key.getData(), key.getUsed(), nullptr, 0, kDigestKeyInfo,
                                    static_cast<int>(sizeof(kDigestKeyInfo) - 1), kDigestKeySize, digestKey.getData());
    }
    return seal::createHMACSHA256Context(digestKey.getData(), digestKey.getUsed());
}

void CBrickDataPreparer::checkIndexNotNeeded(const char* where) const
{
    if (m_bindsBrickIndex)
        throw zo::CInvalidArgError(where, "The disk's bricks are bound to their index: give the brick index.");
}

zo::P<zo::ICompressor> CBrickDataPreparer::createCompressor(const zo::String& compressID)
{
    if (!CBrickDiskHeaderLimits::isValidCompressID(compressID))
        throw zo::CError("Unknown compressor ID: " + compressID);
    if (compressID == "null")
        return zo::P<zo::ICompressor>(new zo::CNullCompressor());
    if (compressID == "lz4")
        return zo::P<zo::ICompressor>(new zo::CLZ4Compressor(false));
    if (compressID == "lz4hc")
        return zo::P<zo::ICompressor>(new zo::CLZ4Compressor(true));
    if (compressID.StartsWith("zlib-"))
        return zo::P<zo::ICompressor>(new zo::CZLibCompressor(parseInt(compressID.Mid(5))));
    if (compressID.StartsWith("lzma-")) {
        // "lzma-A" or "lzma-A-B": the first "-" after the prefix separates A from B.
        const size_t separator = compressID.find(L'-', 5);
        if (separator == zo::String::npos)
            return zo::P<zo::ICompressor>(new zo::CLZMACompressor(parseInt(compressID.Mid(5)), 0));
        const int preset = parseInt(compressID.Mid(5, static_cast<zo::int64>(separator - 5)));
        return zo::P<zo::ICompressor>(new zo::CLZMACompressor(preset, parseInt(compressID.Mid(separator + 1))));
    }
    if (compressID.StartsWith("zstd-"))
        return zo::P<zo::ICompressor>(new zo::CZstdCompressor(parseInt(compressID.Mid(5))));
    throw zo::CError("Unknown compressor ID: " + compressID);
}

bool CBrickDataPreparer::haveSamePlainDigest(const zo::uint8* a, const zo::uint8* b) const
{
    return std::memcmp(a + m_fixedHeaderSize, b + m_fixedHeaderSize, static_cast<size_t>(m_digestSize)) == 0;
}

const zo::uint8* CBrickDataPreparer::digestOf(const void* data, int size, const zo::int64* brickIndex)
{
    m_digest->reset();
    if (brickIndex) {
        zo::uint8 encoded[kBrickIndexSize];
        encodeBrickIndex(*brickIndex, encoded);
        m_digest->update(encoded, kBrickIndexSize);
    }
    m_digest->update(data, size);
    m_digest->finish();
    return m_digest->getDigest();
}

void CBrickDataPreparer::prepareData(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared)
{
    checkIndexNotNeeded("CBrickDataPreparer::prepareData");
    prepare(source, prepared, 0);
}

void CBrickDataPreparer::prepareData(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared,
                                     zo::int64 brickIndex)
{
    prepare(source, prepared, brickIndex);
}

void CBrickDataPreparer::unprepareData(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain)
{
    checkIndexNotNeeded("CBrickDataPreparer::unprepareData");
    unprepare(prepared, plain, 0);
}

void CBrickDataPreparer::unprepareData(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain,
                                       zo::int64 brickIndex)
{
    unprepare(prepared, plain, brickIndex);
}

void CBrickDataPreparer::prepare(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared,
                                 zo::int64 brickIndex)
{
    const zo::int64* boundIndex = m_bindsBrickIndex ? &brickIndex : nullptr;
    const int sourceSize = source.getUsed();
    if (sourceSize > m_brickSize)
        throw zo::CInvalidArgError("CBrickDataPreparer::prepareData",
                                   "source buffer is bigger than brick size (" + zo::toDecimalString(sourceSize) +
                                       ").");
    if (m_aead) {
        sealBrick(source, prepared, brickIndex);
        return;
    }
    const int maxCompressed = m_compressor->getMaxCompressedSize(sourceSize);

    // Room for the worst case, so that nothing below has to grow the buffer.
    prepared.setUsed(m_cipher->getMaxPrefixSize() + m_fixedHeaderSize + 2 * m_digestSize +
                     m_cipher->getMaxPaddingSize() + maxCompressed);
    prepared.setUsed(0);

    const zo::uint8* plainDigest = digestOf(source.getData(), sourceSize, boundIndex);
    {
        zo::CBufferStream stream(&prepared, 2.0);
        zo::CDataOutStream out(&stream);
        out.write(kBrickFileID, kBrickFileIDSize)
            .writeInt16(static_cast<int16_t>(kImplementationVersion))
            .writeInt16(static_cast<int16_t>(kImplementationVersion));
        if (boundIndex) {
            zo::uint8 encoded[kBrickIndexSize];
            encodeBrickIndex(brickIndex, encoded);
            out.write(encoded, kBrickIndexSize);
        }
        out.write(plainDigest, m_digestSize);
        stream.close();
    }

    m_work.setUsed(maxCompressed);
    const int compressedSize = m_compressor->compress(source.getData(), sourceSize, m_work.getData(), maxCompressed);
    m_work.setUsed(compressedSize);
    m_cipher->encrypt(m_key, m_work.getData(), compressedSize, prepared, true, 0);

    const zo::uint8* fileDigest = digestOf(prepared.getData(), prepared.getUsed());
    std::memcpy(prepared.getFreePtr(m_digestSize), fileDigest, static_cast<size_t>(m_digestSize));
    prepared.addUsed(m_digestSize);
}

void CBrickDataPreparer::unprepare(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain,
                                   zo::int64 brickIndex)
{
    if (m_aead) {
        unsealBrick(prepared, plain, brickIndex);
        return;
    }
    const zo::int64* boundIndex = m_bindsBrickIndex ? &brickIndex : nullptr;
    const int fullSize = prepared.getUsed();
    if (fullSize < m_digestSize)
        throwUnprepareError(CorruptedFile, "Brick file is corrupted.");
    const int digestedSize = fullSize - m_digestSize;
    if (std::memcmp(digestOf(prepared.getData(), digestedSize), prepared.getData() + digestedSize,
                    static_cast<size_t>(m_digestSize)) != 0)
        throwUnprepareError(CorruptedFile, "Brick file is corrupted.");

    const int headerSize = m_fixedHeaderSize + m_digestSize;
    const int cipherTextSize = fullSize - headerSize - m_digestSize;
    if (cipherTextSize < 0) {
        // Too short for the fields after the versions: only ID and versions are checked first.
        checkFileHead(prepared.getData(), nullptr);
        throwUnprepareError(InvalidSize, "Invalid size of prepared brick data.",
                            unprepareProps().add("fullSize", fullSize).add("headerSize", headerSize));
    }
    checkFileHead(prepared.getData(), boundIndex);

    m_cipher->decrypt(m_key, prepared.getData() + headerSize, cipherTextSize, m_work, false, 0);
    const int brickSize = static_cast<int>(m_brickSize);
    plain.setUsed(brickSize);
    plain.setUsed(m_compressor->decompress(m_work.getData(), m_work.getUsed(), plain.getData(), brickSize));

    if (std::memcmp(digestOf(plain.getData(), plain.getUsed(), boundIndex), prepared.getData() + m_fixedHeaderSize,
                    static_cast<size_t>(m_digestSize)) != 0)
        throwUnprepareError(PlainDigestMismatch, "Decrypted and decompressed brick data does not match hash.");
}

void CBrickDataPreparer::checkFileHead(const zo::uint8* fileHead, const zo::int64* brickIndex) const
{
    if (std::memcmp(fileHead, kBrickFileID, kBrickFileIDSize) != 0)
        throwUnprepareError(NotABrickFile, "Invalid ID in brick data.");
    const auto readInt16 = [fileHead](int offset) {
        return static_cast<int>(static_cast<int16_t>(fileHead[offset] | (fileHead[offset + 1] << 8)));
    };
    const int minReadVersion = readInt16(kBrickFileIDSize);
    const int writeVersion = readInt16(kBrickFileIDSize + 2);
    if (minReadVersion > kImplementationVersion)
        throwUnprepareError(NewerSoftwareRequired, "Newer software version required to read brick data.",
                            unprepareProps().add("minReadVersion", minReadVersion).add("writeVersion", writeVersion));
    if (!brickIndex)
        return;
    const zo::int64 storedIndex = decodeBrickIndex(fileHead + kFixedHeaderSize);
    if (storedIndex != *brickIndex)
        throwUnprepareError(WrongBrickIndex, "Brick file belongs to another brick index.",
                            unprepareProps().add("brickIndex", *brickIndex).add("storedBrickIndex", storedIndex));
}

void CBrickDataPreparer::deriveBrickKey(const zo::uint8* salt)
{
    m_brickKeyDeriver->reset();
    m_brickKeyDeriver->update(salt, kBrickKeySaltSize);
    m_brickKeyDeriver->finish();
    m_brickKey.setUsed(0);
    m_brickKey.append(m_brickKeyDeriver->getDigest(), m_brickKeyDeriver->getSize());
}

const zo::TBuffer<zo::uint8>& CBrickDataPreparer::associatedData(const zo::uint8* fileHead)
{
    m_associated.setUsed(m_associatedPrefixSize);
    m_associated.append(fileHead, kSealedHeaderSize);
    return m_associated;
}

void CBrickDataPreparer::sealBrick(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared,
                                   zo::int64 brickIndex)
{
    const int sourceSize = source.getUsed();
    const int maxCompressed = m_compressor->getMaxCompressedSize(sourceSize);
    // Room for the worst case, so that nothing below has to grow the buffer.
    prepared.setUsed(kSealedHeaderSize + maxCompressed + kSealedTagSize);
    zo::uint8* const head = prepared.getData();
    std::memcpy(head, kBrickFileID, kBrickFileIDSize);
    for (int offset = kBrickFileIDSize; offset < kFixedHeaderSize; offset += 2) {
        head[offset] = static_cast<zo::uint8>(kImplementationVersion & 0xff);
        head[offset + 1] = static_cast<zo::uint8>((kImplementationVersion >> 8) & 0xff);
    }
    encodeBrickIndex(brickIndex, head + kFixedHeaderSize);
    zo::uint8* const salt = head + kFixedHeaderSize + kBrickIndexSize;
    seal::fillRandomBytes(salt, kBrickKeySaltSize);
    deriveBrickKey(salt);
    const zo::TBuffer<zo::uint8>& associated = associatedData(head);
    prepared.setUsed(kSealedHeaderSize);

    m_work.setUsed(maxCompressed);
    const int compressedSize = m_compressor->compress(source.getData(), sourceSize, m_work.getData(), maxCompressed);
    m_work.setUsed(compressedSize);
    m_aead->encryptWithNonce(m_brickKey, kSealedNonce, associated.getData(), associated.getUsed(), m_work.getData(),
                             compressedSize, prepared);
}

void CBrickDataPreparer::unsealBrick(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain,
                                     zo::int64 brickIndex)
{
    const int fullSize = prepared.getUsed();
    if (fullSize < kSealedHeaderSize + kSealedTagSize)
        throwUnprepareError(CorruptedFile, "Brick file is corrupted.");
    const zo::uint8* const head = prepared.getData();
    deriveBrickKey(head + kFixedHeaderSize + kBrickIndexSize);
    const zo::TBuffer<zo::uint8>& associated = associatedData(head);
    m_work.setUsed(0);
    if (!m_aead->decryptWithNonce(m_brickKey, kSealedNonce, associated.getData(), associated.getUsed(),
                                  head + kSealedHeaderSize, fullSize - kSealedHeaderSize, m_work))
        throwUnprepareError(CorruptedFile, "Brick file is corrupted.");
    checkFileHead(head, &brickIndex);
    const int brickSize = static_cast<int>(m_brickSize);
    plain.setUsed(brickSize);
    plain.setUsed(m_compressor->decompress(m_work.getData(), m_work.getUsed(), plain.getData(), brickSize));
}

bool CBrickDataPreparer::isError(const zo::CError& error, ErrorCode code)
{
    return error.getDomain() == kErrorDomain && error.getCode() == code;
}

} // namespace brick
