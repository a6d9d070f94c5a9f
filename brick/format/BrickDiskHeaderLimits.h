// CBrickDiskHeaderLimits: the values that each field of a disk header may
// hold, in one place for the making of a disk and for its opening. A header
// of the PBKDF2 or the unencrypted kind is not authenticated, so anyone may
// edit its fields and recompute the framing's digest: every field is checked
// when the header is loaded, before anything is allocated or derived by it.
//
// Every call is static, keeps no state and may run on any thread at once.
#pragma once

#include "brick/format/BrickDiskHeader.h"
#include "zo/Export.h"

#include "seal/KeyDerivation.h"
#include "zo/String.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskHeaderLimits {
public:
    // Bricks are a power of two bytes from 4 KiB to 64 MiB.
    static constexpr int kMinBrickSize = 4096;
    static constexpr int kMaxBrickSize = 64 << 20;
    // Salts of derived keys: 8 to 64 bytes.
    static constexpr int kMinSaltSize = 8;
    static constexpr int kMaxSaltSize = 64;
    // PBKDF2 iteration counts: 1000 to 10 million (a few seconds).
    static constexpr int kMinPBKDF2Iterations = 1000;
    static constexpr int kMaxPBKDF2Iterations = 10000000;
    // Key derivations cheaper than these need no permission: 16 times the
    // default Argon2id work (passes times memory), at most 1 GiB of memory,
    // and 100 times the default PBKDF2 iteration count (docs/security.md).
    static constexpr zo::int64 kAllowedArgon2idWorkKiB = 16LL * 12 * 64 * 1024;
    static constexpr int kAllowedArgon2idMemoryKiB = 1024 * 1024;
    static constexpr int kAllowedPBKDF2Iterations = 1000000;
    // A key-wrapped disk holds 1 to 32 keys, each named by 1 to 64 bytes of
    // UTF-8 without control characters, no two alike.
    static constexpr int kMaxKeyCount = 32;
    static constexpr int kMaxKeyNameLength = 64;

    // The number of bricks that the brick tree addresses: 97 to the power 5.
    static zo::int64 getMaxBrickCount();

    // Throws zo::CError naming the field and its value ("field", "value")
    // when a brick size is not a power of two from kMinBrickSize to
    // kMaxBrickSize.
    static void checkBrickSize(zo::int64 brickSize);
    // Throws zo::CError ("field", "value") when a disk of `diskSize` bytes
    // is empty or needs more bricks of `brickSize` (a valid size) than the
    // brick tree addresses.
    static void checkDiskSize(zo::int64 diskSize, zo::int64 brickSize);
    // Throws zo::CError ("field", "value") when a payload block size is not
    // from 1 to `brickSize`.
    static void checkPayloadBlockSize(zo::int64 payloadBlockSize, zo::int64 brickSize);
    // True for the compressor IDs that bricks may name, written exactly so:
    // "null", "lz4", "lz4hc", "zlib-L" (L a digit, 0 to 9), "lzma-P" and
    // "lzma-P-E" (P a digit, 0 to 9; E 0 or 1, 1 for the extreme variant),
    // "zstd-Z" (Z 1 to 19 in decimal, without sign or leading zero).
    static bool isValidCompressID(const zo::String& id);
    // Throws zo::CError ("field", "value") for an ID that isValidCompressID
    // refuses.
    static void checkCompressID(const zo::String& id);

    // Throws zo::CError ("field", "value") unless `keyDeriverID` is one of
    // the two derivers and the checksum and cipher IDs go with it on a new
    // disk: with CBrickDiskHeader::kKeyWrappingDeriverID only the checksum
    // CBrickDisk::kAuthenticatedCheckSumID and the ciphers "aes256gcm",
    // "aes256cbc" and "null"; with kPBKDF2DeriverID the checksums "sha256"
    // and "md5" and the ciphers "aes256cbc" and "null".
    static void checkNewDiskAlgorithms(const zo::String& keyDeriverID, const zo::String& checkSumID,
                                       const zo::String& cipherID);

    // Checks every field of `header`: versions, sizes, algorithm IDs (the
    // cipher "aes256gcm" only with a wrapped key and "hmac-sha256"), the
    // key hash's length for its digest, and the salt, cost and wrapped key of
    // the key derivation (within the largest cost that can be made:
    // CBrickDiskKeyWrap::getCostLimit for Argon2id, kMaxPBKDF2Iterations for
    // PBKDF2), and the same of every further key of a key list, with the
    // names of its keys and the length of its tag. Throws zo::CError "Invalid <field>: <value> (<what is
    // allowed>)." with "diskFolder" = `diskFolder`, "field" and "value" for
    // the first field that fails. The minimum reader
    // version is left to the caller, which refuses a newer one by itself.
    static void validate(const CBrickDiskHeader& header, const zo::CURI& diskFolder);

    // Checks that deriving the key of `header` (valid) costs no more than the
    // machine can give, and, unless `allowExpensive`, no more than the
    // allowed costs above; for a key list, each of its keys. Throws zo::CError "The key derivation of the disk
    // costs more than allowed." or "... needs more memory than the machine
    // has." with the cost as properties ("passes", "memoryKiB", "lanes" or
    // "iterations") before any work is done. An unencrypted header passes.
    static void checkKeyDerivationCost(const CBrickDiskHeader& header, bool allowExpensive);

    // Throws zo::CError ("field" "keyName", "value") for a key name that is
    // empty, longer than kMaxKeyNameLength or holds a control character.
    static void checkKeyName(const zo::String& name);
};

} // namespace brick
