#include "seal/Digest.h"

#include "seal/detail/OpenSSLError.h"
#include "zo/Error.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <memory>

namespace seal {

namespace {

struct FreeAlgorithm {
    void operator()(EVP_MD* algorithm) const { EVP_MD_free(algorithm); }
};
struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// A digest context over one OpenSSL digest context, which reset reuses
// instead of building a new one.
class CEVPDigestContext : public zo::CBase, public IDigestContext {
public:
    // `algorithm` is OpenSSL's name of the digest ("MD5", "SHA256").
    explicit CEVPDigestContext(const char* algorithm)
        : m_algorithm(EVP_MD_fetch(nullptr, algorithm, nullptr)), m_context(EVP_MD_CTX_new())
    {
        if (!m_algorithm || !m_context)
            detail::throwOpenSSLError("Digest is not available.", zo::CProps().add("digest", algorithm));
        m_size = EVP_MD_get_size(m_algorithm.get());
        reset();
    }

    int getSize() const override { return m_size; }

    void update(const void* data, int size) override
    {
        if (size < 0 || (size > 0 && !data))
            throw zo::CInvalidArgError("CEVPDigestContext::update", "Invalid data buffer.",
                                       zo::CProps().add("size", size));
        if (m_finished)
            throw zo::CError("The digest is finished; reset it before adding data.");
        if (size > 0 && !EVP_DigestUpdate(m_context.get(), data, static_cast<size_t>(size)))
            detail::throwOpenSSLError("Digest update failed.");
    }

    void finish() override
    {
        if (m_finished)
            throw zo::CError("The digest is finished already.");
        if (!EVP_DigestFinal_ex(m_context.get(), m_digest, nullptr))
            detail::throwOpenSSLError("Digest could not be finished.");
        m_finished = true;
    }

    void reset() override
    {
        if (!EVP_DigestInit_ex2(m_context.get(), m_algorithm.get(), nullptr))
            detail::throwOpenSSLError("Digest could not be started.");
        m_finished = false;
    }

    const zo::uint8* getDigest() const override { return m_digest; }

private:
    std::unique_ptr<EVP_MD, FreeAlgorithm> m_algorithm;
    std::unique_ptr<EVP_MD_CTX, FreeContext> m_context;
    int m_size = 0;
    bool m_finished = false;
    zo::uint8 m_digest[EVP_MAX_MD_SIZE] = {};
};

class CDigestType_SHA256 : public zo::CBase, public IDigestType {
public:
    zo::P<IDigestContext> createContext() const override
    {
        return zo::P<IDigestContext>(new CEVPDigestContext("SHA256"));
    }
    int getSize() const override { return 32; }
    zo::String getID() const override { return "sha256"; }
};

struct FreeMAC {
    void operator()(EVP_MAC* mac) const { EVP_MAC_free(mac); }
};
struct FreeMACContext {
    void operator()(EVP_MAC_CTX* context) const { EVP_MAC_CTX_free(context); }
};

// HMAC-SHA256 over one OpenSSL MAC context. The key is set once; reset
// starts again from the keyed state that OpenSSL keeps.
class CHMACSHA256Context : public zo::CBase, public IDigestContext {
public:
    CHMACSHA256Context(const void* key, int keySize)
    {
        if (keySize < 0 || (keySize > 0 && !key))
            throw zo::CInvalidArgError("createHMACSHA256Context", "Invalid key buffer.",
                                       zo::CProps().add("size", keySize));
        const std::unique_ptr<EVP_MAC, FreeMAC> mac(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
        m_context.reset(mac ? EVP_MAC_CTX_new(mac.get()) : nullptr);
        char digest[] = "SHA256";
        const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                                     OSSL_PARAM_construct_end()};
        // A key of no bytes still needs a pointer: a null one means "keep
        // the key set before".
        static const unsigned char noKey = 0;
        if (!m_context ||
            EVP_MAC_init(m_context.get(), keySize > 0 ? static_cast<const unsigned char*>(key) : &noKey,
                         static_cast<size_t>(keySize), params) != 1)
            detail::throwOpenSSLError("HMAC-SHA256 is not available.");
    }

    int getSize() const override { return kSize; }

    void update(const void* data, int size) override
    {
        if (size < 0 || (size > 0 && !data))
            throw zo::CInvalidArgError("CHMACSHA256Context::update", "Invalid data buffer.",
                                       zo::CProps().add("size", size));
        if (m_finished)
            throw zo::CError("The digest is finished; reset it before adding data.");
        if (size > 0 &&
            EVP_MAC_update(m_context.get(), static_cast<const unsigned char*>(data), static_cast<size_t>(size)) != 1)
            detail::throwOpenSSLError("HMAC update failed.");
    }

    void finish() override
    {
        if (m_finished)
            throw zo::CError("The digest is finished already.");
        size_t written = 0;
        if (EVP_MAC_final(m_context.get(), m_digest, &written, sizeof(m_digest)) != 1)
            detail::throwOpenSSLError("HMAC could not be finished.");
        m_finished = true;
    }

    void reset() override
    {
        if (EVP_MAC_init(m_context.get(), nullptr, 0, nullptr) != 1)
            detail::throwOpenSSLError("HMAC could not be started.");
        m_finished = false;
    }

    const zo::uint8* getDigest() const override { return m_digest; }

private:
    static constexpr int kSize = 32;
    std::unique_ptr<EVP_MAC_CTX, FreeMACContext> m_context;
    bool m_finished = false;
    zo::uint8 m_digest[kSize] = {};
};

} // namespace

zo::P<IDigestContext> createHMACSHA256Context(const void* key, int keySize)
{
    return zo::P<IDigestContext>(new CHMACSHA256Context(key, keySize));
}

bool equalInConstantTime(const void* a, const void* b, int size)
{
    return size <= 0 || CRYPTO_memcmp(a, b, static_cast<size_t>(size)) == 0;
}

zo::P<IDigestContext> CDigestType_MD5::createContext() const
{
    return zo::P<IDigestContext>(new CEVPDigestContext("MD5"));
}

zo::P<IDigestType> CDigestManager::getType(const zo::String& hashID) const
{
    if (hashID == "md5")
        return zo::P<IDigestType>(new CDigestType_MD5());
    if (hashID == "sha256")
        return zo::P<IDigestType>(new CDigestType_SHA256());
    throw zo::CError("Unknown digest ID: " + hashID);
}

} // namespace seal
