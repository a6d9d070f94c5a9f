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

// A cipher that authenticates what it encrypts, and associated data that it
// does not encrypt. As an ICipher it draws a fresh random nonce per message,
// puts it in front of the ciphertext and the tag behind it, and
// authenticates no associated data; decrypt throws zo::CError when the tag
// does not check out. The calls below leave the nonce to the caller.
class BRICKDISK_EXPORT IAEADCipher : public ICipher {
public:
    virtual int getNonceSize() const = 0;
    virtual int getTagSize() const = 0;
    // Encrypts `size` bytes at `src` under `key` and `nonce` (getNonceSize()
    // bytes) and appends the ciphertext (`size` bytes) followed by the tag
    // (getTagSize() bytes) to `out`; the tag also covers the `aadSize` bytes
    // at `aad`. A nonce must never be used twice with one key: that reveals
    // the messages' XOR and lets tags be forged. Throws zo::CInvalidArgError
    // on a key of the wrong length or a negative size, and zo::CError when the
    // library fails; `out` is then as before.
    virtual void encryptWithNonce(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad,
                                  int aadSize, const void* src, int size, zo::TBuffer<zo::uint8>& out) = 0;
    // Verifies and decrypts what encryptWithNonce made (`size` bytes: the
    // ciphertext and its tag) and appends the message to `out`. Returns false,
    // with `out` as before, when the tag does not match: a wrong key, nonce or
    // associated data, or damaged bytes. Throws zo::CInvalidArgError on a key
    // of the wrong length or a size below getTagSize().
    virtual bool decryptWithNonce(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad,
                                  int aadSize, const void* src, int size, zo::TBuffer<zo::uint8>& out) = 0;
};

// Makes ciphers by ID: "aes256cbc" (AES-256-CBC, PKCS#7 padding, a fresh
// random 16-byte IV in front of every ciphertext), "aes256gcm" (AES-256-GCM,
// 12-byte nonce, 16-byte tag; an IAEADCipher) and "null" (copies bytes, key
// length 0). Any other ID throws zo::CError "Unknown cipher ID: " + ID.
// Every call makes a new cipher object; any thread may call it.
class BRICKDISK_EXPORT CCipherManager {
public:
    zo::P<ICipher> getCipher(const zo::String& cipherID) const;
    // The cipher of an ID that isAuthenticated accepts; any other ID throws
    // zo::CError "Not an authenticated cipher ID: " + ID.
    zo::P<IAEADCipher> getAEADCipher(const zo::String& cipherID) const;
    // True for the IDs of ciphers that authenticate what they encrypt.
    static bool isAuthenticated(const zo::String& cipherID);
};

} // namespace seal
