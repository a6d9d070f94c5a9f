// The "aes256cbc" cipher. Internal to the library: callers get it from
// CCipherManager; known-answer tests reach encryptWithIV through this header.
#pragma once

#include "seal/Cipher.h"

#include <memory>

struct evp_cipher_st;
struct evp_cipher_ctx_st;

namespace seal::detail {

// AES with a 256-bit key in CBC mode and PKCS#7 padding. A ciphertext is the
// 16-byte IV followed by the encrypted, padded message, so it is always
// 16 + 16 * k bytes long with k >= 1 (an empty message still gives one block
// of padding).
//
// One object keeps one OpenSSL cipher context and reuses it for every call;
// like every cipher it is used by one thread at a time. `src` must not point
// into `out`: growing `out` may move its bytes.
class CAES256CBCCipher : public zo::CBase, public ICipher {
public:
    static constexpr int KeySize = 32;
    static constexpr int BlockSize = 16;
    static constexpr int IVSize = 16;

    // Throws zo::CError when OpenSSL cannot provide AES-256-CBC.
    CAES256CBCCipher();
    ~CAES256CBCCipher() override;
    CAES256CBCCipher(const CAES256CBCCipher&) = delete;
    CAES256CBCCipher& operator=(const CAES256CBCCipher&) = delete;

    int getMaxPrefixSize() const override { return IVSize; }
    int getMaxPaddingSize() const override { return BlockSize; }
    // Draws a fresh random IV for every call. Throws zo::CInvalidArgError on a
    // key that is not 32 bytes, a negative size or flags other than 0, and
    // zo::CError when OpenSSL fails.
    void encrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                 bool append, int flags) override;
    // Throws zo::CInvalidArgError on a key that is not 32 bytes or flags other
    // than 0, and zo::CError on a ciphertext whose length is not 16 + 16 * k
    // (k >= 1) or whose padding is wrong (a wrong key or damaged bytes). After
    // a failure `out` holds what it held before an appending call, and
    // nothing after a replacing one.
    void decrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                 bool append, int flags) override;
    int getKeySize() const override { return KeySize; }
    zo::String getID() const override { return "aes256cbc"; }

    // encrypt with the caller's IV (IVSize bytes) instead of a random one.
    // Exists for known-answer tests: reusing an IV with the same key leaks
    // which messages start alike, so nothing else calls it.
    void encryptWithIV(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* iv, const void* src, int size,
                       zo::TBuffer<zo::uint8>& out, bool append);

private:
    struct FreeAlgorithm {
        void operator()(evp_cipher_st* algorithm) const;
    };
    struct FreeContext {
        void operator()(evp_cipher_ctx_st* context) const;
    };

    // encrypt after the arguments passed their checks.
    void encryptChecked(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* iv, const void* src, int size,
                        zo::TBuffer<zo::uint8>& out, bool append);
    // Loads key and IV into the context for one message in either direction.
    void start(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* iv, bool encrypting);

    std::unique_ptr<evp_cipher_st, FreeAlgorithm> m_algorithm;
    std::unique_ptr<evp_cipher_ctx_st, FreeContext> m_context;
};

} // namespace seal::detail
