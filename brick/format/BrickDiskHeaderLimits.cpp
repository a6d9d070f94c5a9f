#include "brick/format/BrickDiskHeaderLimits.h"

#include "brick/format/BrickDiskIdentity.h"
#include "brick/format/BrickDiskKeyWrap.h"

#include "seal/KeyWrap.h"
#include "zo/Error.h"
#include "zo/Machine.h"
#include "zo/ZstdCompressor.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace brick {

using zo::int64;
using zo::String;

namespace {

constexpr const char* kPBKDF2DeriverID = CBrickDiskHeader::kPBKDF2DeriverID;
constexpr int kCipherKeySize = 32;
constexpr int64 kMaxInt = std::numeric_limits<int>::max();
// Long text values are cut in messages: a record holds up to 1 MiB.
constexpr size_t kMaxShownValueLength = 64;

// The names of the header's fields, as properties and in messages.
struct Field {
    const char* name;
    const char* label;
};
constexpr Field kVersion{"version", "version"};
constexpr Field kMinReaderVersion{"minReaderVersion", "minimum reader version"};
constexpr Field kMinWriterVersion{"minWriterVersion", "minimum writer version"};
constexpr Field kBrickSize{"brickSize", "brick size"};
constexpr Field kPayloadBlockSize{"payloadBlockSize", "payload block size"};
constexpr Field kDiskSize{"diskSize", "disk size"};
constexpr Field kCheckSumHashID{"checkSumHashID", "brick checksum ID"};
constexpr Field kCryptoHashID{"cryptoHashID", "key hash ID"};
constexpr Field kCipherID{"cipherID", "cipher ID"};
constexpr Field kCipherKeyHash{"cipherKeyHash", "key hash length"};
constexpr Field kCompressID{"compressID", "compressor ID"};
constexpr Field kDeriverID{"cipherKeyDeriverID", "key deriver ID"};
constexpr Field kSalt{"cipherKeyDerivationSalt", "key derivation salt length"};
constexpr Field kIterations{"cipherKeyDerivationIterations", "key derivation iteration count"};
constexpr Field kMemory{"cipherKeyDerivationMemoryKiB", "key derivation memory (KiB)"};
constexpr Field kLanes{"cipherKeyDerivationLanes", "key derivation lane count"};
constexpr Field kWrappedKey{"wrappedCipherKey", "wrapped key length"};
constexpr Field kDiskID{"diskID", "disk ID length"};
constexpr Field kIdentityTag{"identityTag", "identity tag length"};
constexpr Field kKeyName{"keyName", "key name"};
constexpr Field kKeyNameLength{"keyName", "key name length"};
constexpr Field kKeyCreationTime{"keyCreationTime", "key creation time"};
constexpr Field kKeyListTag{"keyListTag", "key list tag length"};

String shown(const String& value)
{
    if (value.getLength() <= kMaxShownValueLength)
        return "\"" + value + "\"";
    return "\"" + value.Mid(0, static_cast<int64>(kMaxShownValueLength)) + "...\"";
}

[[noreturn]] void fail(const Field& field, const String& value, const String& allowed)
{
    throw zo::CError("Invalid " + String(field.label) + ": " + value + " (" + allowed + ").", String(), -1,
                     zo::CProps().add("field", field.name).add("value", value));
}

void checkRange(const Field& field, int64 value, int64 min, int64 max)
{
    if (value < min || value > max)
        fail(field, zo::toDecimalString(value), "from " + zo::toDecimalString(min) + " to " + zo::toDecimalString(max));
}

void checkOneOf(const Field& field, const String& value, std::initializer_list<const char*> allowed)
{
    String list;
    for (const char* id : allowed) {
        if (value == id)
            return;
        list += list.isEmpty() ? String(id) : ", " + String(id);
    }
    fail(field, shown(value), "one of " + list);
}

bool isDigit(char16_t c, char16_t last)
{
    return c >= u'0' && c <= last;
}

// True for the decimal form of a zstd level the compressor accepts, written
// without sign or leading zero.
bool isZstdLevel(const String& text)
{
    if (text.getLength() < 1 || text.getLength() > 2 || text[0] == u'0')
        return false;
    int level = 0;
    for (size_t i = 0; i < text.getLength(); ++i) {
        if (!isDigit(text[i], u'9'))
            return false;
        level = 10 * level + (text[i] - u'0');
    }
    return level >= zo::CZstdCompressor::kMinLevel && level <= zo::CZstdCompressor::kMaxLevel;
}

// The digest size of a key hash ID that checkOneOf accepted.
int keyHashSize(const String& cryptoHashID)
{
    return cryptoHashID == "md5" ? 16 : 32;
}

// The Argon2id cost and the wrapped key of one key.
void validateWrap(const CBrickDiskHeader::KeySlot& slot)
{
    const seal::Argon2idCost limit = CBrickDiskKeyWrap::getCostLimit();
    checkRange(kIterations, slot.passes, 1, limit.passes);
    checkRange(kLanes, slot.lanes, 1, limit.lanes);
    // Argon2 needs 8 KiB per lane.
    checkRange(kMemory, slot.memoryKiB, int64(8) * slot.lanes, limit.memoryKiB);
    checkRange(kWrappedKey, slot.wrappedKey.getUsed(), seal::kKeyWrapOverhead + kCipherKeySize,
               seal::kKeyWrapOverhead + kCipherKeySize);
}

void validateKeyDerivation(const CBrickDiskHeader& header)
{
    const bool encrypted = header.isEncrypted();
    const int saltSize = header.getCipherKeyDerivationSalt().getUsed();
    if (encrypted || saltSize != 0)
        checkRange(kSalt, saltSize, CBrickDiskHeaderLimits::kMinSaltSize, CBrickDiskHeaderLimits::kMaxSaltSize);
    if (!CBrickDiskKeyWrap::isKeyWrapped(header)) {
        checkRange(kIterations, header.getCipherKeyDerivationIterations(), CBrickDiskHeaderLimits::kMinPBKDF2Iterations,
                   CBrickDiskHeaderLimits::kMaxPBKDF2Iterations);
        return;
    }
    CBrickDiskHeader::KeySlot first;
    first.passes = header.getCipherKeyDerivationIterations();
    first.memoryKiB = header.getCipherKeyDerivationMemoryKiB();
    first.lanes = header.getCipherKeyDerivationLanes();
    first.wrappedKey = header.getWrappedCipherKey();
    validateWrap(first);
}

// The names, times and wraps of the keys of a key list.
void validateKeyList(const CBrickDiskHeader& header)
{
    std::vector<String> names{header.getFirstKeyName()};
    CBrickDiskHeaderLimits::checkKeyName(header.getFirstKeyName());
    checkRange(kKeyCreationTime, header.getFirstKeyCreationTime(), 0, std::numeric_limits<int64>::max());
    for (const CBrickDiskHeader::KeySlot& slot : header.getFurtherKeys()) {
        CBrickDiskHeaderLimits::checkKeyName(slot.name);
        if (std::find(names.begin(), names.end(), slot.name) != names.end())
            fail(kKeyName, shown(slot.name), "no two keys of the same name");
        names.push_back(slot.name);
        checkRange(kKeyCreationTime, slot.creationTime, 0, std::numeric_limits<int64>::max());
        checkRange(kSalt, slot.salt.getUsed(), CBrickDiskHeaderLimits::kMinSaltSize,
                   CBrickDiskHeaderLimits::kMaxSaltSize);
        validateWrap(slot);
    }
    checkRange(kKeyListTag, header.getKeyListTag().getUsed(), CBrickDiskIdentity::kTagSize,
               CBrickDiskIdentity::kTagSize);
}

} // namespace

int64 CBrickDiskHeaderLimits::getMaxBrickCount()
{
    const CBrickDiskHeader header;
    int64 count = 1;
    for (int level = 0; level < header.getTreeLevels(); ++level)
        count *= header.getObjectsPerTreeLevel();
    return count;
}

void CBrickDiskHeaderLimits::checkBrickSize(int64 brickSize)
{
    if (brickSize < kMinBrickSize || brickSize > kMaxBrickSize || (brickSize & (brickSize - 1)) != 0)
        fail(kBrickSize, zo::toDecimalString(brickSize),
             "a power of two from " + zo::toDecimalString(kMinBrickSize) + " to " + zo::toDecimalString(kMaxBrickSize));
}

void CBrickDiskHeaderLimits::checkDiskSize(int64 diskSize, int64 brickSize)
{
    // Within the addressable bricks, counted without overflow.
    const int64 maxDiskSize = getMaxBrickCount() * brickSize;
    checkRange(kDiskSize, diskSize, 1, maxDiskSize);
}

void CBrickDiskHeaderLimits::checkPayloadBlockSize(int64 payloadBlockSize, int64 brickSize)
{
    checkRange(kPayloadBlockSize, payloadBlockSize, 1, brickSize);
}

bool CBrickDiskHeaderLimits::isValidCompressID(const String& id)
{
    if (id == "null" || id == "lz4" || id == "lz4hc")
        return true;
    if (id.StartsWith("zlib-"))
        return id.getLength() == 6 && isDigit(id[5], u'9');
    if (id.StartsWith("lzma-"))
        return (id.getLength() == 6 && isDigit(id[5], u'9')) ||
            (id.getLength() == 8 && isDigit(id[5], u'9') && id[6] == u'-' && isDigit(id[7], u'1'));
    if (id.StartsWith("zstd-"))
        return isZstdLevel(id.Mid(5));
    return false;
}

void CBrickDiskHeaderLimits::checkCompressID(const String& id)
{
    if (!isValidCompressID(id))
        fail(kCompressID, shown(id),
             "null, lz4, lz4hc, zlib-L, lzma-P, lzma-P-E or zstd-Z; L and P 0 to 9, E 0 or 1, Z 1 to 19");
}

void CBrickDiskHeaderLimits::checkNewDiskAlgorithms(const String& keyDeriverID, const String& checkSumID,
                                                    const String& cipherID)
{
    checkOneOf(kDeriverID, keyDeriverID, {CBrickDiskHeader::kKeyWrappingDeriverID, kPBKDF2DeriverID});
    if (keyDeriverID == CBrickDiskHeader::kKeyWrappingDeriverID) {
        checkOneOf(kCheckSumHashID, checkSumID, {CBrickDiskHeader::kAuthenticatedCheckSumID});
        checkOneOf(kCipherID, cipherID,
                   {CBrickDiskHeader::kAuthenticatedCipherID, "aes256cbc", CBrickDiskHeader::kNoCipherID});
    } else {
        checkOneOf(kCheckSumHashID, checkSumID, {"sha256", "md5"});
        checkOneOf(kCipherID, cipherID, {"aes256cbc", CBrickDiskHeader::kNoCipherID});
    }
}

void CBrickDiskHeaderLimits::validate(const CBrickDiskHeader& header, const zo::CURI& diskFolder)
{
    try {
        checkRange(kVersion, header.getVersion(), 1, kMaxInt);
        checkRange(kMinReaderVersion, header.getMinReaderVersion(), 1, kMaxInt);
        checkRange(kMinWriterVersion, header.getMinWriterVersion(), 1, kMaxInt);
        checkBrickSize(header.getBrickSize());
        checkPayloadBlockSize(header.getPayloadBlockSize(), header.getBrickSize());
        checkDiskSize(header.getDiskSize(), header.getBrickSize());
        checkOneOf(kCheckSumHashID, header.getCheckSumHashID(),
                   {"md5", "sha256", CBrickDiskHeader::kAuthenticatedCheckSumID});
        // The deriver decides which key hash and derivation fields belong.
        checkOneOf(kDeriverID, header.getCipherKeyDeriverID(),
                   {kPBKDF2DeriverID, CBrickDiskHeader::kKeyWrappingDeriverID});
        const bool wrapped = CBrickDiskKeyWrap::isKeyWrapped(header);
        if (wrapped)
            checkOneOf(kCryptoHashID, header.getCryptoHashID(), {CBrickDiskKeyWrap::kKeyCheckID});
        else
            checkOneOf(kCryptoHashID, header.getCryptoHashID(), {"md5", "sha256"});
        // The authenticated cipher goes only with keyed, index-bound bricks and a wrapped key.
        if (wrapped && header.getCheckSumHashID() == CBrickDiskHeader::kAuthenticatedCheckSumID)
            checkOneOf(kCipherID, header.getCipherID(),
                       {CBrickDiskHeader::kAuthenticatedCipherID, "aes256cbc", CBrickDiskHeader::kNoCipherID});
        else
            checkOneOf(kCipherID, header.getCipherID(), {"aes256cbc", CBrickDiskHeader::kNoCipherID});
        const int keyHashLength = keyHashSize(header.getCryptoHashID());
        checkRange(kCipherKeyHash, header.getCipherKeyHash().getUsed(), keyHashLength, keyHashLength);
        checkCompressID(header.getCompressID());
        validateKeyDerivation(header);
        if (header.hasIdentity()) {
            checkRange(kDiskID, header.getDiskID().getUsed(), CBrickDiskIdentity::kDiskIDSize,
                       CBrickDiskIdentity::kDiskIDSize);
            checkRange(kIdentityTag, header.getIdentityTag().getUsed(), CBrickDiskIdentity::kTagSize,
                       CBrickDiskIdentity::kTagSize);
        }
        if (header.hasKeyList())
            validateKeyList(header);
    } catch (zo::CError& e) {
        e.getProps().add("diskFolder", diskFolder.toString(true));
        throw;
    }
}

void CBrickDiskHeaderLimits::checkKeyDerivationCost(const CBrickDiskHeader& header, bool allowExpensive)
{
    if (!header.isEncrypted())
        return;
    if (!CBrickDiskKeyWrap::isKeyWrapped(header)) {
        const int iterations = header.getCipherKeyDerivationIterations();
        if (!allowExpensive && iterations > kAllowedPBKDF2Iterations)
            throw zo::CError(
                "The key derivation of the disk costs more than allowed.", String(), -1,
                zo::CProps().add("iterations", iterations).add("allowedIterations", kAllowedPBKDF2Iterations));
        return;
    }
    for (const CBrickDiskHeader::KeySlot& slot : CBrickDiskKeyWrap::getKeys(header)) {
        const zo::CProps cost =
            zo::CProps().add("passes", slot.passes).add("memoryKiB", slot.memoryKiB).add("lanes", slot.lanes);
        const int64 machineMemory = zo::getPhysicalMemorySize();
        if (machineMemory > 0 && int64(slot.memoryKiB) * 1024 > machineMemory)
            throw zo::CError("The key derivation of the disk needs more memory than the machine has.", String(), -1,
                             zo::CProps(cost).add("machineMemory", machineMemory));
        if (!allowExpensive &&
            (slot.memoryKiB > kAllowedArgon2idMemoryKiB ||
             int64(slot.passes) * slot.memoryKiB > kAllowedArgon2idWorkKiB))
            throw zo::CError("The key derivation of the disk costs more than allowed.", String(), -1, cost);
    }
}

void CBrickDiskHeaderLimits::checkKeyName(const String& name)
{
    checkRange(kKeyNameLength, static_cast<int64>(name.toUTF8().size()), 1, kMaxKeyNameLength);
    for (size_t i = 0; i < name.getLength(); ++i)
        if (name[i] < u' ' || name[i] == u'\x7f')
            fail(kKeyName, shown(name), "no control characters");
}

} // namespace brick
