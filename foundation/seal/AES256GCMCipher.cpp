#include "seal/detail/AES256GCMCipher.h"

#include "seal/Random.h"
#include "seal/detail/OpenSSLError.h"
#include "zo/Error.h"

#include <openssl/evp.h>

#include <algorithm>
#include <climits>

namespace seal::detail {

namespace {

// The largest message whose framed ciphertext length still fits an int.
constexpr int MaxMessageSize = INT_MAX - CAES256GCMCipher::NonceSize - CAES256GCMCipher::TagSize;

void checkKey(const char* where, const zo::TCryptBuffer<zo::uint8>& key)
{
    if (key.getUsed() != CAES256GCMCipher::KeySize)
        throw zo::CInvalidArgError(where,
                                   "Cipher key has the wrong size: " + zo::toDecimalString(key.getUsed()) + " bytes",
                                   zo::CProps().add("expectedKeySize", CAES256GCMCipher::KeySize));
}

void checkBuffer(const char* where, const void* data, int size, int minSize)
{
    if (size < minSize || (size > 0 && !data))
        throw zo::CInvalidArgError(where, "Invalid source buffer.", zo::CProps().add("size", size));
}

void checkFlags(const char* where, int flags)
{
    if (flags != 0)
        throw zo::CInvalidArgError(where, "Unsupported cipher flags: " + zo::toDecimalString(flags));
}

[[noreturn]] void throwDecryptionFailed()
{
    throw zo::CError("AES-256-GCM decryption failed: wrong key or damaged ciphertext.");
}

} // namespace

void CAES256GCMCipher::FreeAlgorithm::operator()(evp_cipher_st* algorithm) const
{
    EVP_CIPHER_free(algorithm);
}
void CAES256GCMCipher::FreeContext::operator()(evp_cipher_ctx_st* context) const
{
    EVP_CIPHER_CTX_free(context);
}

CAES256GCMCipher::CAES256GCMCipher()
    : m_algorithm(EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)), m_context(EVP_CIPHER_CTX_new())
{
    // Binding the algorithm once lets every message set only key and nonce;
    // the default nonce length of GCM is the 12 bytes used here.
    if (!m_algorithm || !m_context ||
        !EVP_CipherInit_ex2(m_context.get(), m_algorithm.get(), nullptr, nullptr, 1, nullptr))
        throwOpenSSLError("AES-256-GCM is not available.");
}

CAES256GCMCipher::~CAES256GCMCipher() = default;

void CAES256GCMCipher::start(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad,
                             int aadSize, bool encrypting)
{
    int ignored = 0;
    if (!EVP_CipherInit_ex2(m_context.get(), nullptr, key.getData(), nonce, encrypting ? 1 : 0, nullptr) ||
        (aadSize > 0 &&
         !EVP_CipherUpdate(m_context.get(), nullptr, &ignored, static_cast<const zo::uint8*>(aad), aadSize)))
        throwOpenSSLError("AES-256-GCM could not be started.");
}

void CAES256GCMCipher::encryptWithNonce(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad,
                                        int aadSize, const void* src, int size, zo::TBuffer<zo::uint8>& out)
{
    const char* const where = "CAES256GCMCipher::encryptWithNonce";
    checkKey(where, key);
    checkBuffer(where, src, size, 0);
    checkBuffer(where, aad, aadSize, 0);
    if (size > MaxMessageSize)
        throw zo::CInvalidArgError(where, "Message too large to encrypt: " + zo::toDecimalString(size));
    const int start = out.getUsed();
    zo::uint8* const body = out.getFreePtr(size + TagSize);
    this->start(key, nonce, aad, aadSize, true);
    int bodySize = 0;
    int tailSize = 0;
    if ((size > 0 && !EVP_CipherUpdate(m_context.get(), body, &bodySize, static_cast<const zo::uint8*>(src), size)) ||
        !EVP_CipherFinal_ex(m_context.get(), body + bodySize, &tailSize) ||
        !EVP_CIPHER_CTX_ctrl(m_context.get(), EVP_CTRL_AEAD_GET_TAG, TagSize, body + size)) {
        out.setUsed(start);
        throwOpenSSLError("AES-256-GCM encryption failed.");
    }
    out.setUsed(start + size + TagSize);
}

bool CAES256GCMCipher::decryptWithNonce(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* nonce, const void* aad,
                                        int aadSize, const void* src, int size, zo::TBuffer<zo::uint8>& out)
{
    const char* const where = "CAES256GCMCipher::decryptWithNonce";
    checkKey(where, key);
    checkBuffer(where, src, size, TagSize);
    checkBuffer(where, aad, aadSize, 0);
    const int bodySize = size - TagSize;
    const auto* const body = static_cast<const zo::uint8*>(src);
    // OpenSSL takes the expected tag through a non-const pointer but only reads it.
    zo::uint8 tag[TagSize];
    std::copy(body + bodySize, body + size, tag);

    const int start = out.getUsed();
    zo::uint8* const plain = out.getFreePtr(bodySize);
    this->start(key, nonce, aad, aadSize, false);
    int plainSize = 0;
    int tailSize = 0;
    if ((bodySize > 0 && !EVP_CipherUpdate(m_context.get(), plain, &plainSize, body, bodySize)) ||
        !EVP_CIPHER_CTX_ctrl(m_context.get(), EVP_CTRL_AEAD_SET_TAG, TagSize, tag)) {
        out.setUsed(start);
        throwOpenSSLError("AES-256-GCM decryption failed.");
    }
    if (!EVP_CipherFinal_ex(m_context.get(), plain + plainSize, &tailSize)) {
        // With every step before accepted, only the tag can fail here.
        out.setUsed(start);
        clearOpenSSLErrors();
        return false;
    }
    out.setUsed(start + bodySize);
    return true;
}

void CAES256GCMCipher::encrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size,
                               zo::TBuffer<zo::uint8>& out, bool append, int flags)
{
    checkFlags("CAES256GCMCipher::encrypt", flags);
    checkKey("CAES256GCMCipher::encrypt", key);
    zo::uint8 nonce[NonceSize];
    fillRandomBytes(nonce, NonceSize);
    const int start = append ? out.getUsed() : 0;
    out.setUsed(start);
    std::copy(nonce, nonce + NonceSize, out.getFreePtr(NonceSize + size + TagSize));
    out.setUsed(start + NonceSize);
    try {
        encryptWithNonce(key, nonce, nullptr, 0, src, size, out);
    } catch (...) {
        out.setUsed(start);
        throw;
    }
}

void CAES256GCMCipher::decrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size,
                               zo::TBuffer<zo::uint8>& out, bool append, int flags)
{
    checkFlags("CAES256GCMCipher::decrypt", flags);
    checkKey("CAES256GCMCipher::decrypt", key);
    const int start = append ? out.getUsed() : 0;
    out.setUsed(start);
    if (size < NonceSize + TagSize || !src)
        throwDecryptionFailed();
    const auto* const nonce = static_cast<const zo::uint8*>(src);
    if (!decryptWithNonce(key, nonce, nullptr, 0, nonce + NonceSize, size - NonceSize, out))
        throwDecryptionFailed();
}

} // namespace seal::detail
