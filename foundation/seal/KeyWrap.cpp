#include "seal/KeyWrap.h"

#include "seal/Random.h"
#include "seal/detail/OpenSSLError.h"
#include "zo/Error.h"

#include <openssl/evp.h>

#include <memory>

namespace seal {

namespace {

constexpr int kWrappingKeySize = 32;
constexpr int kNonceSize = 12;
constexpr int kTagSize = 16;

struct FreeCipherContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipherContext>;

void checkWrappingKey(const char* where, const zo::TCryptBuffer<zo::uint8>& wrappingKey)
{
    if (wrappingKey.getUsed() != kWrappingKeySize)
        throw zo::CInvalidArgError(where, "The wrapping key must be 32 bytes.",
                                   zo::CProps().add("size", wrappingKey.getUsed()));
}

// A GCM context keyed with `wrappingKey` and `nonce`, for encrypting or
// decrypting, that has taken `associatedData` already.
CipherContext startGCM(bool encrypt, const zo::TCryptBuffer<zo::uint8>& wrappingKey, const zo::uint8* nonce,
                       const zo::TBuffer<zo::uint8>& associatedData)
{
    CipherContext context(EVP_CIPHER_CTX_new());
    if (!context ||
        EVP_CipherInit_ex2(context.get(), EVP_aes_256_gcm(), wrappingKey.getData(), nonce, encrypt ? 1 : 0, nullptr) !=
            1)
        detail::throwOpenSSLError("AES-256-GCM could not be started.");
    int ignored = 0;
    if (associatedData.getUsed() > 0 &&
        EVP_CipherUpdate(context.get(), nullptr, &ignored, associatedData.getData(), associatedData.getUsed()) != 1)
        detail::throwOpenSSLError("AES-256-GCM refused the associated data.");
    return context;
}

} // namespace

zo::TBuffer<zo::uint8> wrapKey(const zo::TCryptBuffer<zo::uint8>& wrappingKey, const zo::TCryptBuffer<zo::uint8>& key,
                               const zo::TBuffer<zo::uint8>& associatedData)
{
    checkWrappingKey("seal::wrapKey", wrappingKey);
    if (key.getUsed() < 1)
        throw zo::CInvalidArgError("seal::wrapKey", "There is no key to wrap.");
    zo::TBuffer<zo::uint8> wrapped(kNonceSize + key.getUsed() + kTagSize);
    zo::uint8* nonce = wrapped.getData();
    fillRandomBytes(nonce, kNonceSize);
    const CipherContext context = startGCM(true, wrappingKey, nonce, associatedData);
    int written = 0;
    int finalWritten = 0;
    if (EVP_EncryptUpdate(context.get(), nonce + kNonceSize, &written, key.getData(), key.getUsed()) != 1 ||
        EVP_EncryptFinal_ex(context.get(), nonce + kNonceSize + written, &finalWritten) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kTagSize, nonce + kNonceSize + key.getUsed()) != 1)
        detail::throwOpenSSLError("AES-256-GCM could not wrap the key.");
    return wrapped;
}

bool unwrapKey(const zo::TCryptBuffer<zo::uint8>& wrappingKey, const zo::TBuffer<zo::uint8>& wrapped,
               const zo::TBuffer<zo::uint8>& associatedData, zo::TCryptBuffer<zo::uint8>& keyOut)
{
    checkWrappingKey("seal::unwrapKey", wrappingKey);
    const int keySize = wrapped.getUsed() - kKeyWrapOverhead;
    if (keySize < 1)
        return false;
    const zo::uint8* nonce = wrapped.getData();
    const CipherContext context = startGCM(false, wrappingKey, nonce, associatedData);
    zo::TCryptBuffer<zo::uint8> key(keySize);
    int written = 0;
    int finalWritten = 0;
    if (EVP_DecryptUpdate(context.get(), key.getData(), &written, nonce + kNonceSize, keySize) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, kTagSize,
                            const_cast<zo::uint8*>(nonce + kNonceSize + keySize)) != 1)
        detail::throwOpenSSLError("AES-256-GCM could not unwrap the key.");
    if (EVP_DecryptFinal_ex(context.get(), key.getData() + written, &finalWritten) != 1) {
        // A tag that does not match: the wrong key, or changed bytes.
        detail::clearOpenSSLErrors();
        return false;
    }
    keyOut = key;
    return true;
}

} // namespace seal
