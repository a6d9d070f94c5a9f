// Ciphers. A cipher object keeps no secret of its own: the key is passed to
// every call, so one object may serve several keys, but it is used by one
// thread at a time (it reuses its working state between calls). `src` must
// not point into `out`, whose bytes may move when it grows.
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Export.h"
#include "zo/String.h"

namespace seal {

class BRICKDISK_EXPORT ICipher : public virtual zo::IBase {
public:
    // Most bytes the cipher puts in front of a message (its IV).
    virtual int getMaxPrefixSize() const = 0;
    // Most bytes of padding the cipher adds at the end of a message.
    virtual int getMaxPaddingSize() const = 0;
    // Encrypts `size` bytes into `out`: after what `out` holds when `append`
    // is true, replacing it otherwise. `out` grows at most once per call, by
    // no more than getMaxPrefixSize() + size + getMaxPaddingSize(). The result
    // is self-contained: decrypt needs only the key. `flags` must be 0.
    // Throws zo::CInvalidArgError on a key of the wrong length, a negative
    // size or other flags.
    virtual void encrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                         bool append, int flags) = 0;
    // Restores what encrypt produced, appending or replacing as encrypt does.
    // Throws zo::CInvalidArgError on a key of the wrong length, and zo::CError
    // on a bad ciphertext length or bad padding (a wrong key or damaged
    // bytes); after a failure `out` holds what it held before an appending
    // call and nothing after a replacing one.
    virtual void decrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                         bool append, int flags) = 0;
    // Key length in bytes (0 for "null").
    virtual int getKeySize() const = 0;
    virtual zo::String getID() const = 0;
};

// Makes ciphers by ID: "aes256cbc" (AES-256-CBC, PKCS#7 padding, a fresh
// random 16-byte IV in front of every ciphertext) and "null" (copies bytes,
// key length 0). Any other ID throws zo::CError "Unknown cipher ID: " + ID.
// Every call makes a new cipher object; any thread may call it.
class BRICKDISK_EXPORT CCipherManager {
public:
    zo::P<ICipher> getCipher(const zo::String& cipherID) const;
};

} // namespace seal
