#include "seal/Cipher.h"

#include "seal/detail/AES256CBCCipher.h"
#include "seal/detail/NullCipher.h"
#include "zo/Error.h"

namespace seal {

zo::P<ICipher> CCipherManager::getCipher(const zo::String& cipherID) const
{
    if (cipherID == "aes256cbc")
        return zo::P<ICipher>(new detail::CAES256CBCCipher());
    if (cipherID == "null")
        return zo::P<ICipher>(new detail::CNullCipher());
    throw zo::CError("Unknown cipher ID: " + cipherID);
}

} // namespace seal
