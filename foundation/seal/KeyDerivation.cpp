#include "seal/KeyDerivation.h"

#include "seal/detail/OpenSSLError.h"
#include "zo/Error.h"

#include <openssl/evp.h>

namespace seal {

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordSize, const void* salt, int saltSize,
                                      int iterations, int keySize, void* keyOut)
{
    constexpr const char* where = "deriveKey_PKCS5_PBKDF2_HMAC_SHA1";
    if (passwordSize < 0 || (passwordSize > 0 && !password))
        throw zo::CInvalidArgError(where, "Invalid password buffer.", zo::CProps().add("size", passwordSize));
    if (saltSize < 0 || (saltSize > 0 && !salt))
        throw zo::CInvalidArgError(where, "Invalid salt buffer.", zo::CProps().add("size", saltSize));
    if (keySize < 0 || (keySize > 0 && !keyOut))
        throw zo::CInvalidArgError(where, "Invalid key buffer.", zo::CProps().add("size", keySize));
    if (iterations < 1)
        throw zo::CInvalidArgError(where, "Iteration count must be at least 1: " + zo::toDecimalString(iterations));
    if (keySize == 0)
        return;
    if (!PKCS5_PBKDF2_HMAC(static_cast<const char*>(password), passwordSize, static_cast<const unsigned char*>(salt),
                           saltSize, iterations, EVP_sha1(), keySize, static_cast<unsigned char*>(keyOut)))
        detail::throwOpenSSLError("PBKDF2-HMAC-SHA1 key derivation failed.");
}

} // namespace seal
