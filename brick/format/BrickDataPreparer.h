// CBrickDataPreparer: turns the plain bytes of one brick into the bytes of its
// brick file (compressed, encrypted, digested) and back.
//
// A brick file is laid out as follows, with D the length of the checksum
// digest named by the disk header (16 for "md5", 32 for "sha256"):
//
//   offset   size  field
//   0        5     "BRICK" (raw bytes, no terminator)
//   5        2     minReadVersion (int16, little-endian)
//   7        2     writeVersion   (int16, little-endian)
//   9        D     digest of the plain bytes
//   9 + D    ...   the cipher's output for the compressed plain bytes
//   end - D  D     digest of every byte before it
//
// The outer digest finds a damaged file before anything is decrypted; the
// inner one finds a wrong key or algorithm, which turns an intact file into
// garbage.
//
// Under the checksum ID "hmac-sha256" the file is bound to its brick index
// and both digests are keyed: after the version fields comes the brick's
// index (int64, little-endian), so every field moves 8 bytes on, and both
// digests are HMAC-SHA256 under a key derived from the disk's key (HKDF-
// SHA256, info "brickdisk brick digest"; an unencrypted disk's key is empty
// and so is the HMAC key). The inner one covers the brick index (8 bytes,
// little-endian) followed by the plain bytes, so equal bricks at different
// indexes do not show as equal; the outer one covers every byte before it,
// the stored index included. A file copied to another index, or changed
// anywhere, is refused before anything is decrypted.
//
// Under the cipher ID "aes256gcm" (only with "hmac-sha256", on disks whose
// key is wrapped) the cipher authenticates what it encrypts, so the file has
// no digests:
//
//   offset   size  field
//   0        5     "BRICK"
//   5        2     minReadVersion (int16, little-endian)
//   7        2     writeVersion   (int16, little-endian)
//   9        8     brick index    (int64, little-endian)
//   17       32    salt (random, new for every file)
//   49       n     AES-256-GCM ciphertext of the compressed plain bytes
//   49 + n   16    GCM tag
//
// Each file is encrypted under a key of its own, HMAC-SHA256 of the salt
// under a key derived from the disk's key (HKDF-SHA256, info "brickdisk
// brick key"), with an all-zero nonce: a key encrypts one message only. The
// tag covers, as associated data, the label "brickdisk aes256gcm brick", the
// chain's identity (HKDF-SHA256 of the disk's key, info "brickdisk chain
// identity", 32 bytes; every disk of a chain shares the key) and the
// file's first 49 bytes. A file changed anywhere, or from a disk with
// another key, is refused as corrupted before anything is decompressed.
//
// Threads: both calls share one digest context and one work buffer, so calls
// on one preparer must not overlap; a thread of its own needs a preparer of
// its own.
#pragma once

#include "seal/Cipher.h"
#include "seal/Digest.h"
#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Compressor.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/String.h"

namespace brick {

class CBrickDiskHeader;

class BRICKDISK_EXPORT CBrickDataPreparer : public zo::CBase {
public:
    // The domain (zo::CError::getDomain) of the errors that decoding a brick
    // file throws for what is wrong with the file, and their codes
    // (zo::CError::getCode), which callers test instead of the messages.
    static constexpr const char* kErrorDomain = "brickData";
    enum ErrorCode : int {
        // The file's outer digest or its authenticated cipher's tag does
        // not match its bytes.
        CorruptedFile = 1,
        // The file does not start with the brick file ID.
        NotABrickFile = 2,
        // The file needs a newer reader.
        NewerSoftwareRequired = 3,
        // The file is too short for the fields of a brick file.
        InvalidSize = 4,
        // The decoded bytes do not match the digest of the plain bytes.
        PlainDigestMismatch = 5,
        // The file holds the index of another brick.
        WrongBrickIndex = 6,
    };
    // True when `error` is the decoding error with `code`.
    static bool isError(const zo::CError& error, ErrorCode code);

    // Sets the preparer up for the disk that `header` describes: its brick
    // size, cipher ("cipherID"), checksum digest ("checkSumHashID") and
    // compressor ("compressID"). `key`, the disk's cipher key, is copied.
    //
    // Compressor IDs: those of CBrickDiskHeaderLimits::isValidCompressID.
    //
    // Throws zo::CError "Unknown compressor ID: <ID>" for any other compressor
    // ID, zo::CError "An authenticated cipher needs the checksum ID
    // hmac-sha256." for an authenticated cipher with another checksum ID, and
    // the cryptography library's error for an unknown cipher or digest.
    CBrickDataPreparer(const CBrickDiskHeader& header, const zo::TCryptBuffer<zo::uint8>& key);

    // True when the disk's brick files are bound to their brick index
    // (checksum ID "hmac-sha256"): then only the calls that take the index
    // may be used.
    bool bindsBrickIndex() const { return m_bindsBrickIndex; }

    // True when a brick file carries a digest of its plain bytes; the files
    // of an authenticated cipher do not, and are only compared by decoding.
    bool hasPlainDigest() const { return !m_aead; }
    // How many bytes at the start of a brick file carry the digest of its
    // plain bytes (and, where bound, its brick index), when hasPlainDigest().
    int getPlainDigestEnd() const { return m_fixedHeaderSize + m_digestSize; }
    // True when the brick file heads `a` and `b` (getPlainDigestEnd() bytes
    // each) carry the same digest of their plain bytes: files made from the
    // same bytes (at the same index, where bound), barring a collision.
    // Meaningful only when hasPlainDigest().
    bool haveSamePlainDigest(const zo::uint8* a, const zo::uint8* b) const;

    // The brick file bytes of the brick at `brickIndex`, as prepareData below.
    // The index is ignored when the disk's bricks are not bound to theirs.
    void prepareData(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared, zo::int64 brickIndex);
    // Decodes the brick file of the brick at `brickIndex`, as unprepareData
    // below. When the bricks are bound to their index, a file that holds
    // another brick's index throws zo::CError WrongBrickIndex "Brick file
    // belongs to another brick index." with "action", "brickIndex" and
    // "storedBrickIndex".
    void unprepareData(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain, zo::int64 brickIndex);

    // Writes the brick file bytes for `source` into `prepared` (another
    // buffer), replacing what it held. Its capacity is made large enough for
    // the worst case before anything is written, so a buffer that is reused
    // does not grow again. Throws zo::CInvalidArgError
    // ("CBrickDataPreparer::prepareData") when `source` holds more than a
    // brick or when the bricks are bound to their index, and passes on
    // compressor and cipher errors.
    void prepareData(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared);

    // Verifies and decodes the brick file bytes `prepared` into `plain`
    // (another buffer), replacing what it held; `plain` gets room for a whole
    // brick. Throws zo::CError with the property "action" =
    // "CBrickDataPreparer::unprepareData", domain kErrorDomain and the code
    // named here when the file is damaged (CorruptedFile, "Brick file is
    // corrupted."), is not a brick file (NotABrickFile, "Invalid ID in brick
    // data."), needs a newer reader (NewerSoftwareRequired, "Newer software
    // version required to read brick data.", with "minReadVersion" and
    // "writeVersion"), is too short to hold a brick (InvalidSize, "Invalid
    // size of prepared brick data.", with "fullSize" and "headerSize"; a
    // file of an authenticated cipher that is too short is CorruptedFile) or
    // decodes to bytes that do not match their digest (PlainDigestMismatch,
    // "Decrypted and decompressed brick data does not match hash."). Cipher
    // and compressor errors pass through unchanged. After a failure
    // `plain` holds no meaningful bytes. Throws zo::CInvalidArgError
    // ("CBrickDataPreparer::unprepareData") when the bricks are bound to
    // their index.
    void unprepareData(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain);

private:
    static zo::P<zo::ICompressor> createCompressor(const zo::String& compressID);
    static zo::P<seal::IDigestContext> createDigest(const zo::String& checkSumHashID,
                                                    const zo::TCryptBuffer<zo::uint8>& key);
    // Throws the zo::CInvalidArgError of a call without brick index on a disk
    // whose bricks are bound to theirs.
    void checkIndexNotNeeded(const char* where) const;
    // Digests `size` bytes with the checksum digest, preceded by the brick
    // index when `brickIndex` is given; the result is valid until the next call.
    const zo::uint8* digestOf(const void* data, int size, const zo::int64* brickIndex = nullptr);
    void prepare(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared, zo::int64 brickIndex);
    void unprepare(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain, zo::int64 brickIndex);
    // prepare and unprepare for an authenticated cipher.
    void sealBrick(const zo::TBuffer<zo::uint8>& source, zo::TBuffer<zo::uint8>& prepared, zo::int64 brickIndex);
    void unsealBrick(const zo::TBuffer<zo::uint8>& prepared, zo::TBuffer<zo::uint8>& plain, zo::int64 brickIndex);
    // Sets m_brickKey to the key of the brick file whose salt is `salt`.
    void deriveBrickKey(const zo::uint8* salt);
    // The associated data of the brick file that starts with `fileHead`
    // (layout::kSealedHeaderSize bytes); valid until the next call.
    const zo::TBuffer<zo::uint8>& associatedData(const zo::uint8* fileHead);
    // Checks a brick file's ID, versions and stored brick index, as
    // unprepareData documents.
    void checkFileHead(const zo::uint8* fileHead, const zo::int64* brickIndex) const;

    zo::int64 m_brickSize;
    zo::P<seal::ICipher> m_cipher;
    zo::TCryptBuffer<zo::uint8> m_key;
    zo::P<seal::IDigestContext> m_digest;
    int m_digestSize;
    bool m_bindsBrickIndex;
    // The version fields, and the brick index when the bricks are bound to it.
    int m_fixedHeaderSize;
    zo::P<zo::ICompressor> m_compressor;
    // The compressed, not yet encrypted bytes; it lives as long as the
    // preparer and only grows.
    zo::TBuffer<zo::uint8> m_work;
    // Set for an authenticated cipher only: the cipher, the HMAC that makes
    // each file's key from its salt, that key, and the associated data (its
    // first bytes, up to the file head, stay the same).
    zo::P<seal::IAEADCipher> m_aead;
    zo::P<seal::IDigestContext> m_brickKeyDeriver;
    zo::TCryptBuffer<zo::uint8> m_brickKey;
    zo::TCryptBuffer<zo::uint8> m_associated;
    int m_associatedPrefixSize = 0;
};

} // namespace brick
