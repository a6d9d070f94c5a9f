// Wrapping a key under another key with AES-256-GCM: the wrapped form is
// a fresh random 12-byte nonce, the encrypted key and a 16-byte tag that
// authenticates both (and the caller's associated data), so a wrong wrapping
// key or any changed byte is detected.
#pragma once

#include "zo/Export.h"

#include "zo/Buffer.h"

namespace seal {

// Bytes that wrapping adds to a key: the nonce and the tag.
constexpr int kKeyWrapOverhead = 12 + 16;

// Returns `key` wrapped under the 32-byte `wrappingKey`, bound to
// `associatedData` (may be empty). Any thread may call it. Throws
// zo::CInvalidArgError when the wrapping key is not 32 bytes or `key` is
// empty, and zo::CError on a failure of the library.
BRICKDISK_EXPORT zo::TBuffer<zo::uint8> wrapKey(const zo::TCryptBuffer<zo::uint8>& wrappingKey,
                                                const zo::TCryptBuffer<zo::uint8>& key,
                                                const zo::TBuffer<zo::uint8>& associatedData);

// Restores into `keyOut` a key that wrapKey wrapped under `wrappingKey` with
// the same `associatedData`. Returns false, leaving `keyOut` untouched, when
// the wrapping key is wrong or `wrapped` or `associatedData` was changed.
// Throws zo::CInvalidArgError when the wrapping key is not 32 bytes, and
// zo::CError on a failure of the library.
BRICKDISK_EXPORT bool unwrapKey(const zo::TCryptBuffer<zo::uint8>& wrappingKey, const zo::TBuffer<zo::uint8>& wrapped,
                                const zo::TBuffer<zo::uint8>& associatedData, zo::TCryptBuffer<zo::uint8>& keyOut);

} // namespace seal
