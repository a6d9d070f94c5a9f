// Password-based key derivation.
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

} // namespace seal
