#include "brick/BrickDiskKeyWrap.h"

#include "brick/BrickDiskError.h"
#include "brick/BrickDiskHeaderLimits.h"
#include "brick/detail/PasswordBytes.h"
#include "seal/KeyWrap.h"
#include "zo/BufferStream.h"
#include "zo/DataStream.h"
#include "seal/Random.h"
#include "zo/Error.h"

#include <algorithm>
#include <vector>

namespace brick {

namespace {

constexpr int kKeySize = 32;
constexpr int kSaltSize = 16;
constexpr char kKeyCheckInfo[] = "brickdisk key check";
constexpr char kWrapLabel[] = "brickdisk wrapped cipher key";
constexpr char kIdentityLabel[] = "with identity";

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
    return *stream->getBuffer();
}

// The key that wraps the disk's key: Argon2id of the password with the
// header's salt and cost. A cost beyond the limits is refused before any
// work, so that a changed header cannot make the derivation run for hours.
zo::TCryptBuffer<zo::uint8> wrappingKeyFor(const CBrickDiskHeader& header, const zo::String& password)
{
    const seal::Argon2idCost cost{header.getCipherKeyDerivationIterations(), header.getCipherKeyDerivationMemoryKiB(),
                                  header.getCipherKeyDerivationLanes()};
    const seal::Argon2idCost limit = CBrickDiskKeyWrap::getCostLimit();
    if (cost.passes > limit.passes || cost.memoryKiB > limit.memoryKiB || cost.lanes > limit.lanes)
        throw zo::CError("The key derivation cost of the disk is beyond the limits.", zo::String(), -1,
                         zo::CProps()
                             .add("passes", cost.passes)
                             .add("memoryKiB", cost.memoryKiB)
                             .add("lanes", cost.lanes));
    const detail::CPasswordBytes passwordBytes(password);
    const zo::TBuffer<zo::uint8>& salt = header.getCipherKeyDerivationSalt();
    zo::TCryptBuffer<zo::uint8> wrappingKey(kKeySize);
    seal::deriveKey_Argon2id(passwordBytes.getData(), passwordBytes.getSize(), salt.getData(), salt.getUsed(), cost,
                             kKeySize, wrappingKey.getData());
    return wrappingKey;
}

void wrapUnder(CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key, const zo::String& password,
               const seal::Argon2idCost& cost)
{
    zo::TBuffer<zo::uint8> salt(kSaltSize);
    seal::fillRandomBytes(salt.getData(), kSaltSize);
    CBrickDiskHeader wrapped(header);
    wrapped.setCipherKeyDeriverID(CBrickDiskHeader::kKeyWrappingDeriverID);
    wrapped.setCipherKeyDerivationSalt(salt);
    wrapped.setCipherKeyDerivationIterations(cost.passes);
    wrapped.setCipherKeyDerivationMemoryKiB(cost.memoryKiB);
    wrapped.setCipherKeyDerivationLanes(cost.lanes);
    wrapped.setCryptoHashID(CBrickDiskKeyWrap::kKeyCheckID);
    wrapped.setCipherKeyHash(CBrickDiskKeyWrap::keyCheckValue(key));
    wrapped.setWrappedCipherKey(seal::wrapKey(wrappingKeyFor(wrapped, password), key, boundFields(wrapped)));
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
    if (!isKeyWrapped(header))
        throw zo::CInvalidArgError("CBrickDiskKeyWrap::unwrapKey",
                                   "The disk's key is not wrapped: its key deriver is " +
                                       header.getCipherKeyDeriverID() + ".");
    zo::TCryptBuffer<zo::uint8> key;
    if (!seal::unwrapKey(wrappingKeyFor(header, password), header.getWrappedCipherKey(), boundFields(header), key))
        return false;
    // The key hash must belong to the same key, or the header was put
    // together from two disks.
    if (!(keyCheckValue(key) == header.getCipherKeyHash()))
        return false;
    keyOut = key;
    return true;
}

void CBrickDiskKeyWrap::rewrapKey(CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key,
                                  const zo::String& newPassword, const seal::Argon2idCost& cost)
{
    if (!(keyCheckValue(key) == header.getCipherKeyHash()))
        throw zo::CInvalidArgError("CBrickDiskKeyWrap::rewrapKey", "The key is not the disk's key.");
    wrapUnder(header, key, newPassword, cost);
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
    constexpr const char* where = "CBrickDiskKeyWrap::changePassword";
    if (diskFolders.empty())
        throw zo::CInvalidArgError(where, "There is no disk to change the password of.");
    if (newPassword.isEmpty())
        throw zo::CInvalidArgError(where, "The new password is empty.");

    std::vector<CBrickDiskHeader> headers;
    for (const zo::CURI& folder : diskFolders) {
        headers.emplace_back();
        headers.back().load(fs, folder);
        if (!isKeyWrapped(headers.back()) || !headers.back().isEncrypted())
            throw zo::CInvalidArgError(where, "The disk's key is not wrapped, so its password cannot change.",
                                       zo::CProps().add("diskFolder", folder.toString(true)));
        CBrickDiskHeaderLimits::checkKeyDerivationCost(headers.back(), allowExpensiveKeyDerivation);
    }

    // Every header must open with one of the passwords and hold the same key.
    // Headers with the same wrapped key (a disk and the children copied from
    // it) are opened once.
    zo::TCryptBuffer<zo::uint8> key;
    std::vector<zo::TBuffer<zo::uint8>> opened;
    auto folder = diskFolders.begin();
    for (const CBrickDiskHeader& header : headers) {
        const zo::CURI& diskFolder = *folder++;
        if (!key.isEmpty() && !(keyCheckValue(key) == header.getCipherKeyHash()))
            throw zo::CError("Disk does not share the key of the other disks.", zo::String(), -1,
                             zo::CProps().add("diskFolder", diskFolder.toString(true)));
        if (std::find(opened.begin(), opened.end(), header.getWrappedCipherKey()) != opened.end())
            continue;
        zo::TCryptBuffer<zo::uint8> headerKey;
        if (!unwrapKey(header, oldPassword, headerKey) && !unwrapKey(header, newPassword, headerKey))
            throw CBrickDiskError(CBrickDiskError::IncorrectPassword, diskFolder);
        key = headerKey;
        opened.push_back(header.getWrappedCipherKey());
    }

    // One wrap for all: the disks share the key, so they share its wrap.
    CBrickDiskHeader rewrapped(headers.front());
    rewrapKey(rewrapped, key, newPassword, cost);
    folder = diskFolders.begin();
    for (CBrickDiskHeader& header : headers) {
        header.setCipherKeyDerivationSalt(rewrapped.getCipherKeyDerivationSalt());
        header.setCipherKeyDerivationIterations(rewrapped.getCipherKeyDerivationIterations());
        header.setCipherKeyDerivationMemoryKiB(rewrapped.getCipherKeyDerivationMemoryKiB());
        header.setCipherKeyDerivationLanes(rewrapped.getCipherKeyDerivationLanes());
        header.setWrappedCipherKey(rewrapped.getWrappedCipherKey());
        header.store(fs, *folder++);
    }
}

zo::TBuffer<zo::uint8> CBrickDiskKeyWrap::keyCheckValue(const zo::TCryptBuffer<zo::uint8>& key)
{
    zo::TBuffer<zo::uint8> value(kKeySize);
    seal::deriveKey_HKDF_SHA256(key.getData(), key.getUsed(), nullptr, 0, kKeyCheckInfo,
                                static_cast<int>(sizeof(kKeyCheckInfo) - 1), kKeySize, value.getData());
    return value;
}

} // namespace brick
