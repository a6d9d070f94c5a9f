// Key derivation: from passwords (PBKDF2, Argon2id) and from keys (HKDF).
#pragma once

#include "zo/Export.h"

namespace seal {

// PBKDF2 with HMAC-SHA1 (PKCS #5): writes `keySize` bytes derived from the
// password and salt with `iterations` rounds into `keyOut`. Any thread may
// call it. Throws zo::CInvalidArgError on negative sizes, a null buffer of
// non-zero size or fewer than 1 iteration, and zo::CError on a failure of
// the library. A key size of 0 writes nothing.
BRICKDISK_EXPORT void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordSize, const void* salt,
                                                       int saltSize, int iterations, int keySize, void* keyOut);

// The cost of one Argon2id derivation: `passes` over `memoryKiB` KiB of
// memory, split into `lanes` lanes. The lanes of a pass are computed in
// parallel, on up to one thread per processor; the key does not depend on
// how many threads computed it.
struct Argon2idCost {
    int passes;
    int memoryKiB;
    int lanes;
};

// Argon2id version 0x13 (RFC 9106) through libargon2: writes `keySize`
// bytes derived from the password and salt into `keyOut`. `secret` and
// `associatedData` may be null with size 0. Holds `cost.memoryKiB` KiB for
// the duration of the call. Any thread may call it. Throws
// zo::CInvalidArgError for negative sizes, null buffers of non-zero size and
// a cost, salt or key size that Argon2 refuses (the message names the
// reason), and zo::CError when the memory cannot be had.
BRICKDISK_EXPORT void deriveKey_Argon2id(const void* password, int passwordSize, const void* salt, int saltSize,
                                         const Argon2idCost& cost, int keySize, void* keyOut,
                                         const void* secret = nullptr, int secretSize = 0,
                                         const void* associatedData = nullptr, int associatedDataSize = 0);

// HKDF with HMAC-SHA256 (RFC 5869), extract and expand: writes `keySize`
// bytes derived from the input key material `key` (at least 1 byte), the
// optional `salt` and the context text `info` into `keyOut`. Any thread may
// call it. Throws zo::CInvalidArgError on bad sizes or null buffers and
// zo::CError on a failure of the library.
BRICKDISK_EXPORT void deriveKey_HKDF_SHA256(const void* key, int keySize, const void* salt, int saltSize,
                                            const void* info, int infoSize, int outSize, void* keyOut);

} // namespace seal
