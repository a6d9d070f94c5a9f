#include "seal/Cipher.h"

#include "seal/detail/AES256CBCCipher.h"
#include "seal/detail/AES256GCMCipher.h"
#include "seal/detail/NullCipher.h"
#include "zo/Error.h"

namespace seal {

zo::P<ICipher> CCipherManager::getCipher(const zo::String& cipherID) const
{
    if (cipherID == "aes256cbc")
        return zo::P<ICipher>(new detail::CAES256CBCCipher());
    if (cipherID == "null")
        return zo::P<ICipher>(new detail::CNullCipher());
    if (isAuthenticated(cipherID))
        return zo::P<ICipher>(getAEADCipher(cipherID));
    throw zo::CError("Unknown cipher ID: " + cipherID);
}

zo::P<IAEADCipher> CCipherManager::getAEADCipher(const zo::String& cipherID) const
{
    if (cipherID == "aes256gcm")
        return zo::P<IAEADCipher>(new detail::CAES256GCMCipher());
    throw zo::CError("Not an authenticated cipher ID: " + cipherID);
}

bool CCipherManager::isAuthenticated(const zo::String& cipherID)
{
    return cipherID == "aes256gcm";
}

} // namespace seal
