// Random bytes for keys, salts and nonces, from the operating system's
// generator through OpenSSL.
#pragma once

#include "zo/Export.h"

namespace seal {

// Fills `size` bytes at `dst` with cryptographically strong random bytes.
// Any thread may call it. Throws zo::CInvalidArgError for a negative size or
// a null buffer of non-zero size, and zo::CError when the generator fails.
BRICKDISK_EXPORT void fillRandomBytes(void* dst, int size);

} // namespace seal
