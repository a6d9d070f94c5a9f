// Password-based key derivation.
#pragma once

namespace seal {

// PBKDF2 with HMAC-SHA1 (PKCS #5): writes `keySize` bytes derived from the
// password and salt with `iterations` rounds into `keyOut`. Throws zo::CError
// on negative sizes, fewer than 1 iteration or a failure of the library.
void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordSize, const void* salt, int saltSize,
                                      int iterations, int keySize, void* keyOut);

} // namespace seal
