// The "null" cipher: no encryption. Internal to the library: callers get it
// from CCipherManager.
#pragma once

#include "seal/Cipher.h"

namespace seal::detail {

// Copies the message unchanged. Its key length is 0 and the key passed to
// encrypt and decrypt is ignored, so an unencrypted disk works with any key.
// `src` must not point into `out`: growing `out` may move its bytes.
class CNullCipher : public zo::CBase, public ICipher {
public:
    int getMaxPrefixSize() const override { return 0; }
    int getMaxPaddingSize() const override { return 0; }
    // Throws zo::CInvalidArgError on a negative size or flags other than 0.
    void encrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                 bool append, int flags) override;
    // Same as encrypt.
    void decrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                 bool append, int flags) override;
    int getKeySize() const override { return 0; }
    zo::String getID() const override { return "null"; }
};

} // namespace seal::detail
