#include "seal/KeyDerivation.h"

#include "seal/detail/OpenSSLError.h"
#include "zo/Error.h"

#include <argon2.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <algorithm>
#include <memory>
#include <thread>

namespace seal {

namespace {

// Lanes are independent within each pass, so each may have a thread of its
// own; more threads than processors would only take turns.
uint32_t threadsFor(int lanes)
{
    const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    return static_cast<uint32_t>(std::min<unsigned>(static_cast<unsigned>(lanes), processors));
}

void checkBuffer(const char* where, const char* what, const void* data, int size)
{
    if (size < 0 || (size > 0 && !data))
        throw zo::CInvalidArgError(where, zo::String("Invalid ") + what + " buffer.", zo::CProps().add("size", size));
}

struct FreeKDF {
    void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
};
struct FreeKDFContext {
    void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
};

// OpenSSL's parameters take non-const pointers to data they only read.
void* readOnly(const void* data)
{
    return const_cast<void*>(data);
}

} // namespace

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordSize, const void* salt, int saltSize,
                                      int iterations, int keySize, void* keyOut)
{
    constexpr const char* where = "deriveKey_PKCS5_PBKDF2_HMAC_SHA1";
    checkBuffer(where, "password", password, passwordSize);
    checkBuffer(where, "salt", salt, saltSize);
    checkBuffer(where, "key", keyOut, keySize);
    if (iterations < 1)
        throw zo::CInvalidArgError(where, "Iteration count must be at least 1: " + zo::toDecimalString(iterations));
    if (keySize == 0)
        return;
    if (!PKCS5_PBKDF2_HMAC(static_cast<const char*>(password), passwordSize, static_cast<const unsigned char*>(salt),
                           saltSize, iterations, EVP_sha1(), keySize, static_cast<unsigned char*>(keyOut)))
        detail::throwOpenSSLError("PBKDF2-HMAC-SHA1 key derivation failed.");
}

void deriveKey_Argon2id(const void* password, int passwordSize, const void* salt, int saltSize,
                        const Argon2idCost& cost, int keySize, void* keyOut, const void* secret, int secretSize,
                        const void* associatedData, int associatedDataSize)
{
    constexpr const char* where = "deriveKey_Argon2id";
    checkBuffer(where, "password", password, passwordSize);
    checkBuffer(where, "salt", salt, saltSize);
    checkBuffer(where, "key", keyOut, keySize);
    checkBuffer(where, "secret", secret, secretSize);
    checkBuffer(where, "associated data", associatedData, associatedDataSize);
    if (cost.passes < 1 || cost.memoryKiB < 1 || cost.lanes < 1)
        throw zo::CInvalidArgError(
            where, "Argon2id cost must be positive.",
            zo::CProps().add("passes", cost.passes).add("memoryKiB", cost.memoryKiB).add("lanes", cost.lanes));

    argon2_context context{};
    context.out = static_cast<uint8_t*>(keyOut);
    context.outlen = static_cast<uint32_t>(keySize);
    context.pwd = static_cast<uint8_t*>(readOnly(password));
    context.pwdlen = static_cast<uint32_t>(passwordSize);
    context.salt = static_cast<uint8_t*>(readOnly(salt));
    context.saltlen = static_cast<uint32_t>(saltSize);
    context.secret = static_cast<uint8_t*>(readOnly(secret));
    context.secretlen = static_cast<uint32_t>(secretSize);
    context.ad = static_cast<uint8_t*>(readOnly(associatedData));
    context.adlen = static_cast<uint32_t>(associatedDataSize);
    context.t_cost = static_cast<uint32_t>(cost.passes);
    context.m_cost = static_cast<uint32_t>(cost.memoryKiB);
    context.lanes = static_cast<uint32_t>(cost.lanes);
    context.threads = threadsFor(cost.lanes);
    context.version = ARGON2_VERSION_13;
    context.flags = ARGON2_DEFAULT_FLAGS;

    const int result = argon2_ctx(&context, Argon2_id);
    if (result == ARGON2_MEMORY_ALLOCATION_ERROR)
        throw zo::CError("Argon2id could not get its memory.", zo::String(), -1,
                         zo::CProps().add("memoryKiB", cost.memoryKiB));
    if (result != ARGON2_OK)
        throw zo::CInvalidArgError(
            where, zo::String("Argon2id refused its input: ") + argon2_error_message(result),
            zo::CProps().add("passes", cost.passes).add("memoryKiB", cost.memoryKiB).add("lanes", cost.lanes));
}

void deriveKey_HKDF_SHA256(const void* key, int keySize, const void* salt, int saltSize, const void* info, int infoSize,
                           int outSize, void* keyOut)
{
    constexpr const char* where = "deriveKey_HKDF_SHA256";
    if (keySize < 1 || !key)
        throw zo::CInvalidArgError(where, "HKDF needs at least one byte of key material.",
                                   zo::CProps().add("size", keySize));
    checkBuffer(where, "salt", salt, saltSize);
    checkBuffer(where, "info", info, infoSize);
    checkBuffer(where, "key", keyOut, outSize);
    if (outSize == 0)
        return;

    const std::unique_ptr<EVP_KDF, FreeKDF> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    const std::unique_ptr<EVP_KDF_CTX, FreeKDFContext> context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
    if (!context)
        detail::throwOpenSSLError("HKDF is not available.");
    char digest[] = "SHA256";
    OSSL_PARAM params[5];
    int count = 0;
    params[count++] = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0);
    params[count++] =
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, readOnly(key), static_cast<size_t>(keySize));
    if (saltSize > 0)
        params[count++] =
            OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, readOnly(salt), static_cast<size_t>(saltSize));
    if (infoSize > 0)
        params[count++] =
            OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, readOnly(info), static_cast<size_t>(infoSize));
    params[count] = OSSL_PARAM_construct_end();
    if (EVP_KDF_derive(context.get(), static_cast<unsigned char*>(keyOut), static_cast<size_t>(outSize), params) != 1)
        detail::throwOpenSSLError("HKDF-SHA256 key derivation failed.");
}

} // namespace seal
