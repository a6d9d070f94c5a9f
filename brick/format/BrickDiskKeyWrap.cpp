#include "brick/format/BrickDiskKeyWrap.h"

#include "brick/detail/PasswordBytes.h"
#include "brick/format/BrickDiskIdentity.h"
#include "brick/format/BrickDiskKeys.h"
#include "seal/Digest.h"
#include "seal/KeyWrap.h"
#include "seal/Random.h"
#include "zo/BufferStream.h"
#include "zo/DataStream.h"
#include "zo/Error.h"

#include <vector>

namespace brick {

namespace {

constexpr int kKeySize = 32;
constexpr int kSaltSize = 16;
constexpr char kKeyCheckInfo[] = "brickdisk key check";
constexpr char kWrapLabel[] = "brickdisk wrapped cipher key";
constexpr char kIdentityLabel[] = "with identity";
constexpr char kKeyListLabel[] = "with key list";
constexpr char kKeyListTagLabel[] = "brickdisk key list";

// What the wrap authenticates besides the key: a label and every field of
// the header that the password does not choose, so that a header changed
// anywhere no longer opens. (The derivation fields choose the wrapping key
// and the key hash is checked against the key, so they are covered too.)
zo::TBuffer<zo::uint8> boundFields(const CBrickDiskHeader& header)
{
    const zo::P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, 2.0));
    zo::CDataOutStream out(stream.get());
    out.write(kWrapLabel, static_cast<int>(sizeof(kWrapLabel) - 1));
    out.writeInt64(header.getVersion());
    out.writeInt64(header.getMinReaderVersion());
    out.writeInt64(header.getMinWriterVersion());
    out.writeInt32(header.getBrickSize());
    out.writeInt32(header.getPayloadBlockSize());
    out.writeInt64(header.getDiskSize());
    out.writeString(header.getCheckSumHashID());
    out.writeString(header.getCryptoHashID());
    out.writeString(header.getCipherID());
    out.writeString(header.getCompressID());
    out.writeString(header.getCipherKeyDeriverID());
    // That the disk has an identity (not which: a child shares its parent's
    // wrap), so that cutting the identity off the header is found.
    if (header.hasIdentity())
        out.write(kIdentityLabel, static_cast<int>(sizeof(kIdentityLabel) - 1));
    // That the header has a key list, so that cutting the list off is found.
    if (header.hasKeyList())
        out.write(kKeyListLabel, static_cast<int>(sizeof(kKeyListLabel) - 1));
    return *stream->getBuffer();
}

// The tag of the key list of `header` under `key`: over every key in
// order, each with its name, creation time, derivation fields and wrap.
zo::TBuffer<zo::uint8> keyListTag(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key)
{
    const zo::P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, 2.0));
    zo::CDataOutStream out(stream.get());
    const std::vector<CBrickDiskHeader::KeySlot> keys = CBrickDiskKeyWrap::getKeys(header);
    out.writeInt32(static_cast<zo::int32>(keys.size()));
    for (const CBrickDiskHeader::KeySlot& slot : keys) {
        out.writeString(slot.name);
        out.writeInt64(slot.creationTime);
        out.writeInt32(slot.salt.getUsed());
        out.write(slot.salt.getData(), slot.salt.getUsed());
        out.writeInt32(slot.passes);
        out.writeInt32(slot.memoryKiB);
        out.writeInt32(slot.lanes);
        out.writeInt32(slot.wrappedKey.getUsed());
        out.write(slot.wrappedKey.getData(), slot.wrappedKey.getUsed());
    }
    return CBrickDiskIdentity::makeRecordTag(key, kKeyListTagLabel, *stream->getBuffer());
}

bool isKeyListAuthentic(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key)
{
    const zo::TBuffer<zo::uint8> tag = keyListTag(header, key);
    const zo::TBuffer<zo::uint8>& stored = header.getKeyListTag();
    return stored.getUsed() == tag.getUsed() &&
        seal::equalInConstantTime(stored.getData(), tag.getData(), tag.getUsed());
}

// The key that wraps the disk's key in `slot`: Argon2id of the password
// with the key's salt and cost. A cost beyond the limits is refused before
// any work, so that a changed header cannot make the derivation run for hours.
zo::TCryptBuffer<zo::uint8> wrappingKeyFor(const CBrickDiskHeader::KeySlot& slot, const zo::String& password)
{
    const seal::Argon2idCost cost{slot.passes, slot.memoryKiB, slot.lanes};
    const seal::Argon2idCost limit = CBrickDiskKeyWrap::getCostLimit();
    if (cost.passes > limit.passes || cost.memoryKiB > limit.memoryKiB || cost.lanes > limit.lanes)
        throw zo::CError(
            "The key derivation cost of the disk is beyond the limits.", zo::String(), -1,
            zo::CProps().add("passes", cost.passes).add("memoryKiB", cost.memoryKiB).add("lanes", cost.lanes));
    const detail::CPasswordBytes passwordBytes(password);
    zo::TCryptBuffer<zo::uint8> wrappingKey(kKeySize);
    seal::deriveKey_Argon2id(passwordBytes.getData(), passwordBytes.getSize(), slot.salt.getData(), slot.salt.getUsed(),
                             cost, kKeySize, wrappingKey.getData());
    return wrappingKey;
}

// Writes the derivation fields and wrap of `slot` into `header` as its
// first key.
void setFirstKey(CBrickDiskHeader& header, const CBrickDiskHeader::KeySlot& slot)
{
    header.setCipherKeyDerivationSalt(slot.salt);
    header.setCipherKeyDerivationIterations(slot.passes);
    header.setCipherKeyDerivationMemoryKiB(slot.memoryKiB);
    header.setCipherKeyDerivationLanes(slot.lanes);
    header.setWrappedCipherKey(slot.wrappedKey);
}

void wrapUnder(CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key, const zo::String& password,
               const seal::Argon2idCost& cost)
{
    CBrickDiskHeader wrapped(header);
    wrapped.setCipherKeyDeriverID(CBrickDiskHeader::kKeyWrappingDeriverID);
    wrapped.setCryptoHashID(CBrickDiskKeyWrap::kKeyCheckID);
    wrapped.setCipherKeyHash(CBrickDiskKeyWrap::keyCheckValue(key));
    setFirstKey(wrapped, CBrickDiskKeyWrap::makeKey(wrapped, key, zo::String(), 0, password, cost));
    header = wrapped;
}

} // namespace

seal::Argon2idCost CBrickDiskKeyWrap::getDefaultCost()
{
    return seal::Argon2idCost{12, 64 * 1024, 4};
}

seal::Argon2idCost CBrickDiskKeyWrap::getCostLimit()
{
    return seal::Argon2idCost{64, 4 * 1024 * 1024, 64};
}

bool CBrickDiskKeyWrap::isKeyWrapped(const CBrickDiskHeader& header)
{
    return header.getCipherKeyDeriverID() == CBrickDiskHeader::kKeyWrappingDeriverID;
}

void CBrickDiskKeyWrap::setUpNewKey(CBrickDiskHeader& header, const zo::String& password,
                                    const seal::Argon2idCost& cost, zo::TCryptBuffer<zo::uint8>& keyOut)
{
    zo::TCryptBuffer<zo::uint8> key(kKeySize);
    seal::fillRandomBytes(key.getData(), kKeySize);
    wrapUnder(header, key, password, cost);
    keyOut = key;
}

bool CBrickDiskKeyWrap::unwrapKey(const CBrickDiskHeader& header, const zo::String& password,
                                  zo::TCryptBuffer<zo::uint8>& keyOut)
{
    return findKey(header, password, keyOut) >= 0;
}

int CBrickDiskKeyWrap::findKey(const CBrickDiskHeader& header, const zo::String& password,
                               zo::TCryptBuffer<zo::uint8>& keyOut)
{
    if (!isKeyWrapped(header))
        throw zo::CInvalidArgError("CBrickDiskKeyWrap::unwrapKey",
                                   "The disk's key is not wrapped: its key deriver is " +
                                       header.getCipherKeyDeriverID() + ".");
    const std::vector<CBrickDiskHeader::KeySlot> keys = getKeys(header);
    for (size_t index = 0; index < keys.size(); ++index) {
        zo::TCryptBuffer<zo::uint8> key;
        if (!opensKey(header, keys[index], password, key))
            continue;
        // A key list changed without the key (a key put in, taken out,
        // renamed or moved) opens with none of its keys.
        if (header.hasKeyList() && !isKeyListAuthentic(header, key))
            return -1;
        keyOut = key;
        return static_cast<int>(index);
    }
    return -1;
}

bool CBrickDiskKeyWrap::opensKey(const CBrickDiskHeader& header, const CBrickDiskHeader::KeySlot& slot,
                                 const zo::String& password, zo::TCryptBuffer<zo::uint8>& keyOut)
{
    zo::TCryptBuffer<zo::uint8> key;
    if (!seal::unwrapKey(wrappingKeyFor(slot, password), slot.wrappedKey, boundFields(header), key))
        return false;
    // The key hash must belong to the same key, or the header was put
    // together from two disks.
    if (!(keyCheckValue(key) == header.getCipherKeyHash()))
        return false;
    keyOut = key;
    return true;
}

std::vector<CBrickDiskHeader::KeySlot> CBrickDiskKeyWrap::getKeys(const CBrickDiskHeader& header)
{
    CBrickDiskHeader::KeySlot first;
    first.name = header.hasKeyList() ? header.getFirstKeyName() : zo::String(CBrickDiskHeader::kDefaultKeyName);
    first.creationTime = header.hasKeyList() ? header.getFirstKeyCreationTime() : 0;
    first.salt = header.getCipherKeyDerivationSalt();
    first.passes = header.getCipherKeyDerivationIterations();
    first.memoryKiB = header.getCipherKeyDerivationMemoryKiB();
    first.lanes = header.getCipherKeyDerivationLanes();
    first.wrappedKey = header.getWrappedCipherKey();
    std::vector<CBrickDiskHeader::KeySlot> keys{first};
    if (header.hasKeyList())
        keys.insert(keys.end(), header.getFurtherKeys().begin(), header.getFurtherKeys().end());
    return keys;
}

CBrickDiskHeader::KeySlot CBrickDiskKeyWrap::makeKey(const CBrickDiskHeader& header,
                                                     const zo::TCryptBuffer<zo::uint8>& key, const zo::String& name,
                                                     zo::int64 creationTime, const zo::String& password,
                                                     const seal::Argon2idCost& cost)
{
    if (!(keyCheckValue(key) == header.getCipherKeyHash()))
        throw zo::CInvalidArgError("CBrickDiskKeyWrap::makeKey", "The key is not the disk's key.");
    CBrickDiskHeader::KeySlot slot;
    slot.name = name;
    slot.creationTime = creationTime;
    slot.salt.setUsed(kSaltSize);
    seal::fillRandomBytes(slot.salt.getData(), kSaltSize);
    slot.passes = cost.passes;
    slot.memoryKiB = cost.memoryKiB;
    slot.lanes = cost.lanes;
    slot.wrappedKey = seal::wrapKey(wrappingKeyFor(slot, password), key, boundFields(header));
    return slot;
}

void CBrickDiskKeyWrap::setKeys(CBrickDiskHeader& header, const std::vector<CBrickDiskHeader::KeySlot>& keys,
                                const zo::TCryptBuffer<zo::uint8>& key)
{
    if (keys.empty() || (!header.hasKeyList() && keys.size() != 1))
        throw zo::CInvalidArgError("CBrickDiskKeyWrap::setKeys",
                                   "A header holds one key without a key list, and at least one with it.");
    setFirstKey(header, keys.front());
    if (!header.hasKeyList())
        return;
    header.setFirstKeyName(keys.front().name);
    header.setFirstKeyCreationTime(keys.front().creationTime);
    header.setFurtherKeys(std::vector<CBrickDiskHeader::KeySlot>(keys.begin() + 1, keys.end()));
    header.setKeyListTag(keyListTag(header, key));
}

void CBrickDiskKeyWrap::rewrapKey(CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key,
                                  const zo::String& newPassword, const seal::Argon2idCost& cost)
{
    if (!(keyCheckValue(key) == header.getCipherKeyHash()))
        throw zo::CInvalidArgError("CBrickDiskKeyWrap::rewrapKey", "The key is not the disk's key.");
    wrapUnder(header, key, newPassword, cost);
    if (header.hasKeyList())
        header.setKeyListTag(keyListTag(header, key));
}

void CBrickDiskKeyWrap::changePassword(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders,
                                       const zo::String& oldPassword, const zo::String& newPassword,
                                       const seal::Argon2idCost& cost)
{
    changePassword(fs, diskFolders, oldPassword, newPassword, cost, false);
}

void CBrickDiskKeyWrap::changePassword(zo::IFileSystem* fs, const zo::TList<zo::CURI>& diskFolders,
                                       const zo::String& oldPassword, const zo::String& newPassword,
                                       const seal::Argon2idCost& cost, bool allowExpensiveKeyDerivation)
{
    CBrickDiskKeys::changePassword(fs, diskFolders, oldPassword, newPassword, zo::String(), cost,
                                   allowExpensiveKeyDerivation);
}

zo::TBuffer<zo::uint8> CBrickDiskKeyWrap::keyCheckValue(const zo::TCryptBuffer<zo::uint8>& key)
{
    zo::TBuffer<zo::uint8> value(kKeySize);
    seal::deriveKey_HKDF_SHA256(key.getData(), key.getUsed(), nullptr, 0, kKeyCheckInfo,
                                static_cast<int>(sizeof(kKeyCheckInfo) - 1), kKeySize, value.getData());
    return value;
}

} // namespace brick
