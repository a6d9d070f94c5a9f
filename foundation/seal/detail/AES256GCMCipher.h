// The "aes256gcm" cipher. Internal to the library: callers get it from
// CCipherManager.
#pragma once

#include "seal/Cipher.h"

#include <memory>

struct evp_cipher_st;
struct evp_cipher_ctx_st;

namespace seal::detail {

// AES with a 256-bit key in GCM mode: a 12-byte nonce, a 16-byte tag and no
// padding, so a ciphertext is as long as its message. encrypt and decrypt
// (the ICipher calls) frame a message as nonce, ciphertext, tag.
//
// One object keeps one OpenSSL cipher context and reuses it for every call;
// like every cipher it is used by one thread at a time. `src` must not point
// into `out`: growing `out` may move its bytes.
class CAES256GCMCipher : public zo::CBase, public IAEADCipher {
public:
    static constexpr int KeySize = 32;
    static constexpr int NonceSize = 12;
    static constexpr int TagSize = 16;

    // Throws zo::CError when OpenSSL cannot provide AES-256-GCM.
    CAES256GCMCipher();
    ~CAES256GCMCipher() override;
    CAES256GCMCipher(const CAES256GCMCipher&) = delete;
    CAES256GCMCipher& operator=(const CAES256GCMCipher&) = delete;

    int getMaxPrefixSize() const override { return NonceSize; }
    int getMaxPaddingSize() const override { return TagSize; }
    // Draws a fresh random nonce for every call. Throws zo::CInvalidArgError
    // on a key that is not 32 bytes, a negative size or flags other than 0.
    void encrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                 bool append, int flags) override;
    // Throws zo::CInvalidArgError on a key that is not 32 bytes or flags other
    // than 0, and zo::CError "AES-256-GCM decryption failed: wrong key or
    // damaged ciphertext." when the input is shorter than nonce and tag or its
    // tag does not match. After a failure `out` holds what it held before an
    // appending call, and nothing after a replacing one.
    void decrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                 bool append, int flags) override;
    int getKeySize() const override { return KeySize; }
    zo::String getID() const override { return "aes256gcm"; }

    int getNonceSize() const override { return NonceSize; }
    int getTagSize() const override { return TagSize; }
    void encryptWithNonce(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad, int aadSize,
                          const void* src, int size, zo::TBuffer<zo::uint8>& out) override;
    bool decryptWithNonce(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad, int aadSize,
                          const void* src, int size, zo::TBuffer<zo::uint8>& out) override;

private:
    struct FreeAlgorithm {
        void operator()(evp_cipher_st* algorithm) const;
    };
    struct FreeContext {
        void operator()(evp_cipher_ctx_st* context) const;
    };

    // Loads key and nonce into the context for one message in either
    // direction and feeds it the associated data.
    void start(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad, int aadSize,
               bool encrypting);

    std::unique_ptr<evp_cipher_st, FreeAlgorithm> m_algorithm;
    std::unique_ptr<evp_cipher_ctx_st, FreeContext> m_context;
};

} // namespace seal::detail
