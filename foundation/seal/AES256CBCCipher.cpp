#include "seal/detail/AES256CBCCipher.h"

#include "seal/detail/OpenSSLError.h"
#include "zo/Error.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <climits>
#include <cstring>

namespace seal::detail {

namespace {

// The largest message whose ciphertext length still fits an int.
constexpr int MaxMessageSize = INT_MAX - CAES256CBCCipher::IVSize - CAES256CBCCipher::BlockSize;

void checkArguments(const char* where, const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size, int flags)
{
    if (key.getUsed() != CAES256CBCCipher::KeySize)
        throw zo::CInvalidArgError(where,
                                   "Cipher key has the wrong size: " + zo::toDecimalString(key.getUsed()) + " bytes",
                                   zo::CProps().add("expectedKeySize", CAES256CBCCipher::KeySize));
    if (size < 0 || (size > 0 && !src))
        throw zo::CInvalidArgError(where, "Invalid source buffer.", zo::CProps().add("size", size));
    if (flags != 0)
        throw zo::CInvalidArgError(where, "Unsupported cipher flags: " + zo::toDecimalString(flags));
}

void checkEncryptArguments(const char* where, const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size,
                           int flags)
{
    checkArguments(where, key, src, size, flags);
    if (size > MaxMessageSize)
        throw zo::CInvalidArgError(where, "Message too large to encrypt: " + zo::toDecimalString(size));
}

} // namespace

void CAES256CBCCipher::FreeAlgorithm::operator()(evp_cipher_st* algorithm) const
{
    EVP_CIPHER_free(algorithm);
}
void CAES256CBCCipher::FreeContext::operator()(evp_cipher_ctx_st* context) const
{
    EVP_CIPHER_CTX_free(context);
}

CAES256CBCCipher::CAES256CBCCipher()
    : m_algorithm(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)), m_context(EVP_CIPHER_CTX_new())
{
    // Binding the algorithm once lets every message set only key and IV, which
    // keeps OpenSSL from rebuilding its context per call.
    if (!m_algorithm || !m_context ||
        !EVP_CipherInit_ex2(m_context.get(), m_algorithm.get(), nullptr, nullptr, 1, nullptr))
        throwOpenSSLError("AES-256-CBC is not available.");
}

CAES256CBCCipher::~CAES256CBCCipher() = default;

void CAES256CBCCipher::start(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* iv, bool encrypting)
{
    if (!EVP_CipherInit_ex2(m_context.get(), nullptr, key.getData(), iv, encrypting ? 1 : 0, nullptr))
        throwOpenSSLError("AES-256-CBC could not be started.");
}

void CAES256CBCCipher::encrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size,
                               zo::TBuffer<zo::uint8>& out, bool append, int flags)
{
    checkEncryptArguments("CAES256CBCCipher::encrypt", key, src, size, flags);
    zo::uint8 iv[IVSize];
    if (RAND_bytes(iv, IVSize) != 1)
        throwOpenSSLError("No random bytes for the AES-256-CBC IV.");
    encryptChecked(key, iv, src, size, out, append);
}

void CAES256CBCCipher::encryptWithIV(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* iv, const void* src,
                                     int size, zo::TBuffer<zo::uint8>& out, bool append)
{
    checkEncryptArguments("CAES256CBCCipher::encryptWithIV", key, src, size, 0);
    encryptChecked(key, iv, src, size, out, append);
}

void CAES256CBCCipher::encryptChecked(const zo::TCryptBuffer<zo::uint8>& key, const zo::uint8* iv, const void* src,
                                      int size, zo::TBuffer<zo::uint8>& out, bool append)
{
    const int start = append ? out.getUsed() : 0;
    out.setUsed(start);
    // Padding adds 1 to 16 bytes, so IV + message + one block always suffices.
    zo::uint8* const ivOut = out.getFreePtr(IVSize + size + BlockSize);
    std::memcpy(ivOut, iv, IVSize);
    zo::uint8* const body = ivOut + IVSize;

    this->start(key, iv, true);
    int bodySize = 0;
    int paddedTail = 0;
    if ((size > 0 && !EVP_CipherUpdate(m_context.get(), body, &bodySize, static_cast<const zo::uint8*>(src), size)) ||
        !EVP_CipherFinal_ex(m_context.get(), body + bodySize, &paddedTail)) {
        out.setUsed(start);
        throwOpenSSLError("AES-256-CBC encryption failed.");
    }
    out.setUsed(start + IVSize + bodySize + paddedTail);
}

void CAES256CBCCipher::decrypt(const zo::TCryptBuffer<zo::uint8>& key, const void* src, int size,
                               zo::TBuffer<zo::uint8>& out, bool append, int flags)
{
    checkArguments("CAES256CBCCipher::decrypt", key, src, size, flags);
    if (size < IVSize + BlockSize || (size - IVSize) % BlockSize != 0)
        throw zo::CError("Invalid size of AES-256-CBC ciphertext.", zo::String(), -1, zo::CProps().add("size", size));

    const auto* const iv = static_cast<const zo::uint8*>(src);
    const zo::uint8* const body = iv + IVSize;
    const int bodySize = size - IVSize;

    const int start = append ? out.getUsed() : 0;
    out.setUsed(start);
    // OpenSSL asks for one block more than the input, although unpadding only
    // ever shortens it.
    zo::uint8* const plain = out.getFreePtr(bodySize + BlockSize);

    this->start(key, iv, false);
    int plainSize = 0;
    int tailSize = 0;
    if (!EVP_CipherUpdate(m_context.get(), plain, &plainSize, body, bodySize)) {
        out.setUsed(start);
        throwOpenSSLError("AES-256-CBC decryption failed.");
    }
    if (!EVP_CipherFinal_ex(m_context.get(), plain + plainSize, &tailSize)) {
        // The only way a well-sized ciphertext fails here is a padding that
        // does not check out: the key is wrong or the bytes are damaged.
        out.setUsed(start);
        clearOpenSSLErrors();
        throw zo::CError("AES-256-CBC decryption failed: wrong key or damaged ciphertext.");
    }
    out.setUsed(start + plainSize + tailSize);
}

} // namespace seal::detail
