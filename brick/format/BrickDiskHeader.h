// CBrickDiskHeader: the description of one disk (its size, its brick size,
// the algorithms of its bricks and its key, and the software versions that
// may read and write it), stored in the disk folder as "disk.brickdisk"
// with the auxiliary file framing.
//
// The brick folder tree is always 97 objects per level and 5 levels: those
// two fields are not stored, so a loaded header has them whatever was set
// before storing. A header is used by one thread at a time.
#pragma once

#include "brick/format/BrickDiskAuxFileBase.h"
#include "zo/Export.h"

#include "zo/Buffer.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

#include <vector>

namespace brick {

class BRICKDISK_EXPORT CBrickDiskHeader : public CBrickDiskAuxFileBase {
public:
    // The deriver ID of disks whose cipher key is random and stored wrapped
    // under an Argon2id key derived from the password.
    static constexpr const char* kKeyWrappingDeriverID = "argon2id";
    // The deriver ID of disks whose cipher key is derived from the password
    // itself with PBKDF2.
    static constexpr const char* kPBKDF2DeriverID = "PKCS5-PBKDF2-HMAC-SHA1";
    // The checksum ID of authenticated disks: keyed digests (HMAC-SHA256)
    // that bind every brick file to its brick index.
    static constexpr const char* kAuthenticatedCheckSumID = "hmac-sha256";
    // The cipher of new encrypted authenticated disks: AES-256-GCM, which
    // authenticates each brick file itself (see CBrickDataPreparer).
    static constexpr const char* kAuthenticatedCipherID = "aes256gcm";
    // The cipher ID of an unencrypted disk.
    static constexpr const char* kNoCipherID = "null";
    // The name of a key-wrapped disk's only key before it has more.
    static constexpr const char* kDefaultKeyName = "default";

    // One of the keys of a key-wrapped disk: a password, known by its name,
    // that wraps the disk's key (see CBrickDiskKeyWrap).
    struct KeySlot {
        zo::String name;
        // Seconds since 1970-01-01 00:00:00 UTC when the key was added; 0
        // when it is not known (the first key of a disk made without a list).
        zo::int64 creationTime = 0;
        zo::TBuffer<zo::uint8> salt;
        int passes = 0;
        int memoryKiB = 0;
        int lanes = 0;
        zo::TBuffer<zo::uint8> wrappedKey;
    };

    // Version 1 everywhere, 512 KiB bricks, payload block size 1, disk size -1,
    // "md5", "sha256", "aes256cbc", empty key hash, "PKCS5-PBKDF2-HMAC-SHA1",
    // empty salt, 10000 iterations, "lz4", 97 objects per level, 5 levels,
    // no derivation memory or lanes and no wrapped key.
    CBrickDiskHeader() = default;
    CBrickDiskHeader(const CBrickDiskHeader& other) = default;
    CBrickDiskHeader(CBrickDiskHeader&& other) = default;
    CBrickDiskHeader& operator=(const CBrickDiskHeader& other) = default;
    CBrickDiskHeader& operator=(CBrickDiskHeader&& other) = default;
    ~CBrickDiskHeader() override = default;

    // The header's file name, "disk.brickdisk", as CBrickDiskAuxFileBase's
    // calls take it.
    static zo::String getHeaderFilename();
    // The header file of `folder`: copy 0 the primary, any other the fallback.
    static zo::CURI getHeaderURI(const zo::CURI& folder, int copy);

    // Writes the header record as "disk.brickdisk" into `folder` (which must
    // exist) and its fallback copy. File-system errors pass through unchanged.
    void store(zo::IFileSystem* fs, const zo::CURI& folder) const;
    // Reads "disk.brickdisk" of `folder` (falling back to the second copy)
    // into this object. Throws the framing's error when no copy is intact,
    // CError "brickdisk header file does not start with correct file ID."
    // for another kind of file, CBrickDiskError NewerSoftwareRequired (with
    // "diskFolder" = folder) when the disk needs a newer reader, CError
    // "Invalid key count: ..." (field "keyCount") for a key list of more keys
    // than CBrickDiskHeaderLimits::kMaxKeyCount, before any key is read, the
    // data stream's CIOError for a record that ends early, and the CError of
    // CBrickDiskHeaderLimits::validate (naming the field, its value and
    // "diskFolder") for a field outside its limits. After a failure the
    // object may hold part of the record; callers discard it.
    void load(zo::IFileSystem* fs, const zo::CURI& folder);

    int getVersion() const { return m_version; }
    void setVersion(int version) { m_version = version; }
    int getMinReaderVersion() const { return m_minReaderVersion; }
    void setMinReaderVersion(int version) { m_minReaderVersion = version; }
    int getMinWriterVersion() const { return m_minWriterVersion; }
    void setMinWriterVersion(int version) { m_minWriterVersion = version; }
    int getBrickSize() const { return m_brickSize; }
    void setBrickSize(int brickSize) { m_brickSize = brickSize; }
    int getPayloadBlockSize() const { return m_payloadBlockSize; }
    void setPayloadBlockSize(int payloadBlockSize) { m_payloadBlockSize = payloadBlockSize; }
    zo::int64 getDiskSize() const { return m_diskSize; }
    // The number of bricks the disk size takes (the last one may be cut
    // short), counted without overflow for any size; 0 for a header without
    // a brick size.
    zo::int64 getBrickCount() const { return countBricks(m_diskSize, m_brickSize); }
    // The same for a disk of `diskSize` bytes in bricks of `brickSize` bytes
    // (0 for a brick size below 1), for sizes not yet in a header.
    static zo::int64 countBricks(zo::int64 diskSize, zo::int64 brickSize)
    {
        return brickSize <= 0 ? 0 : diskSize / brickSize + (diskSize % brickSize != 0 ? 1 : 0);
    }
    void setDiskSize(zo::int64 diskSize) { m_diskSize = diskSize; }
    zo::String getCheckSumHashID() const { return m_checkSumHashID; }
    void setCheckSumHashID(const zo::String& id) { m_checkSumHashID = id; }
    zo::String getCryptoHashID() const { return m_cryptoHashID; }
    void setCryptoHashID(const zo::String& id) { m_cryptoHashID = id; }
    zo::String getCipherID() const { return m_cipherID; }
    void setCipherID(const zo::String& id) { m_cipherID = id; }
    // True unless the cipher is kNoCipherID: the bricks are encrypted and
    // the disk has a key (and a password).
    bool isEncrypted() const { return m_cipherID != kNoCipherID; }
    const zo::TBuffer<zo::uint8>& getCipherKeyHash() const { return m_cipherKeyHash; }
    void setCipherKeyHash(const zo::TBuffer<zo::uint8>& hash) { m_cipherKeyHash.assign(hash); }
    zo::String getCipherKeyDeriverID() const { return m_cipherKeyDeriverID; }
    void setCipherKeyDeriverID(const zo::String& id) { m_cipherKeyDeriverID = id; }
    const zo::TBuffer<zo::uint8>& getCipherKeyDerivationSalt() const { return m_cipherKeyDerivationSalt; }
    void setCipherKeyDerivationSalt(const zo::TBuffer<zo::uint8>& salt) { m_cipherKeyDerivationSalt.assign(salt); }
    int getCipherKeyDerivationIterations() const { return m_cipherKeyDerivationIterations; }
    void setCipherKeyDerivationIterations(int iterations) { m_cipherKeyDerivationIterations = iterations; }
    // The memory (KiB) and lanes of a memory-hard key derivation; 0 for the
    // derivers that use neither.
    int getCipherKeyDerivationMemoryKiB() const { return m_cipherKeyDerivationMemoryKiB; }
    void setCipherKeyDerivationMemoryKiB(int memoryKiB) { m_cipherKeyDerivationMemoryKiB = memoryKiB; }
    int getCipherKeyDerivationLanes() const { return m_cipherKeyDerivationLanes; }
    void setCipherKeyDerivationLanes(int lanes) { m_cipherKeyDerivationLanes = lanes; }
    // The disk's cipher key wrapped under the key derived from the password;
    // empty when the derived key is the cipher key itself. A header whose
    // deriver is kKeyWrappingDeriverID stores it, with the memory and lanes
    // above, after the iteration count, where other headers end.
    const zo::TBuffer<zo::uint8>& getWrappedCipherKey() const { return m_wrappedCipherKey; }
    void setWrappedCipherKey(const zo::TBuffer<zo::uint8>& wrapped) { m_wrappedCipherKey.assign(wrapped); }
    zo::String getCompressID() const { return m_compressID; }
    void setCompressID(const zo::String& id) { m_compressID = id; }
    int getObjectsPerTreeLevel() const { return m_objectsPerTreeLevel; }
    void setObjectsPerTreeLevel(int count) { m_objectsPerTreeLevel = count; }
    int getTreeLevels() const { return m_treeLevels; }
    void setTreeLevels(int levels) { m_treeLevels = levels; }

    // True when the record holds the memory, lanes and wrapped key fields.
    bool hasKeyWrapFields() const;

    // A disk of the authenticated format has an identity: a random ID of
    // its own, whether it has a parent disk, and a tag under the disk's key
    // over both (see CBrickDiskIdentity). Its header stores the three after
    // its last other field, behind the mark "BRCKIDNT"; its links name the
    // disks they tie by ID. A key-wrapped header binds into the wrap that it
    // has an identity, so the identity cannot be cut off unseen.
    bool hasIdentity() const { return !m_diskID.isEmpty(); }
    // The disk's ID: 16 random bytes, made with the disk; empty for a disk
    // without an identity.
    const zo::TBuffer<zo::uint8>& getDiskID() const { return m_diskID; }
    void setDiskID(const zo::TBuffer<zo::uint8>& id) { m_diskID.assign(id); }
    // True for a child disk: its parent link must be there.
    bool getHasParent() const { return m_hasParent; }
    void setHasParent(bool hasParent) { m_hasParent = hasParent; }
    // HMAC-SHA256 of the ID and the parent flag under the disk's record key.
    const zo::TBuffer<zo::uint8>& getIdentityTag() const { return m_identityTag; }
    void setIdentityTag(const zo::TBuffer<zo::uint8>& tag) { m_identityTag.assign(tag); }

    // A key-wrapped disk given a second key holds a key list from then on:
    // the first key stays in the derivation fields and the wrapped key
    // above, and the list, stored after the identity behind the mark
    // "BRCKKEYS", adds the first key's name and creation time, the further
    // keys and a tag under the disk's record key over all of them. A header
    // with a list binds into every wrap that it has one, so the list cannot
    // be cut off unseen. CBrickDiskKeyWrap reads and writes the keys.
    bool hasKeyList() const { return m_hasKeyList; }
    void setHasKeyList(bool hasKeyList) { m_hasKeyList = hasKeyList; }
    // The first key's name and creation time, as the list stores them.
    const zo::String& getFirstKeyName() const { return m_firstKeyName; }
    void setFirstKeyName(const zo::String& name) { m_firstKeyName = name; }
    zo::int64 getFirstKeyCreationTime() const { return m_firstKeyCreationTime; }
    void setFirstKeyCreationTime(zo::int64 time) { m_firstKeyCreationTime = time; }
    // The keys after the first, in the order they are tried.
    const std::vector<KeySlot>& getFurtherKeys() const { return m_furtherKeys; }
    void setFurtherKeys(const std::vector<KeySlot>& keys) { m_furtherKeys = keys; }
    // HMAC-SHA256 over every key of the list under the disk's record key.
    const zo::TBuffer<zo::uint8>& getKeyListTag() const { return m_keyListTag; }
    void setKeyListTag(const zo::TBuffer<zo::uint8>& tag) { m_keyListTag.assign(tag); }

private:
    int m_version = 1;
    int m_minReaderVersion = 1;
    int m_minWriterVersion = 1;
    int m_brickSize = 0x80000;
    int m_payloadBlockSize = 1;
    zo::int64 m_diskSize = -1;
    zo::String m_checkSumHashID = "md5";
    zo::String m_cryptoHashID = "sha256";
    zo::String m_cipherID = "aes256cbc";
    zo::TBuffer<zo::uint8> m_cipherKeyHash;
    zo::String m_cipherKeyDeriverID = "PKCS5-PBKDF2-HMAC-SHA1";
    zo::TBuffer<zo::uint8> m_cipherKeyDerivationSalt;
    int m_cipherKeyDerivationIterations = 10000;
    int m_cipherKeyDerivationMemoryKiB = 0;
    int m_cipherKeyDerivationLanes = 0;
    zo::TBuffer<zo::uint8> m_wrappedCipherKey;
    zo::String m_compressID = "lz4";
    zo::TBuffer<zo::uint8> m_diskID;
    bool m_hasParent = false;
    zo::TBuffer<zo::uint8> m_identityTag;
    bool m_hasKeyList = false;
    zo::String m_firstKeyName;
    zo::int64 m_firstKeyCreationTime = 0;
    std::vector<KeySlot> m_furtherKeys;
    zo::TBuffer<zo::uint8> m_keyListTag;
    static constexpr int kFixedObjectsPerTreeLevel = 97;
    static constexpr int kFixedTreeLevels = 5;
    int m_objectsPerTreeLevel = kFixedObjectsPerTreeLevel;
    int m_treeLevels = kFixedTreeLevels;
};

} // namespace brick
