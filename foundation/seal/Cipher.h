// Ciphers. A cipher object keeps no secret state: the key is passed to every
// call, so one object may serve several keys, but it is used by one thread at
// a time.
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/String.h"

namespace seal {

class ICipher : public virtual zo::IBase {
public:
    // Most bytes the cipher puts in front of a message (its IV).
    virtual int getMaxPrefixSize() const = 0;
    // Most bytes of padding the cipher adds at the end of a message.
    virtual int getMaxPaddingSize() const = 0;
    // Encrypts `size` bytes into `out`: after what `out` holds when `append`
    // is true, replacing it otherwise. The result is self-contained: decrypt
    // needs only the key. `flags` must be 0. Throws zo::CError on a key of
    // the wrong length.
    virtual void encrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                         bool append, int flags) = 0;
    // Restores what encrypt produced. Throws zo::CError on a key of the wrong
    // length, a bad ciphertext length or bad padding.
    virtual void decrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                         bool append, int flags) = 0;
    // Key length in bytes (0 for "null").
    virtual int getKeySize() const = 0;
    virtual zo::String getID() const = 0;
};

// Makes ciphers by ID: "aes256cbc" (AES-256-CBC, PKCS#7 padding, a fresh
// random 16-byte IV in front of every ciphertext) and "null" (copies bytes,
// key length 0). Any other ID throws zo::CError naming it.
class CCipherManager {
public:
    zo::P<ICipher> getCipher(const zo::String& cipherID) const;
};

} // namespace seal
