#include "seal/detail/OpenSSLError.h"

#include "zo/Error.h"

#include <openssl/err.h>

namespace seal::detail {

void throwOpenSSLError(const zo::String& message, zo::CProps props)
{
    const unsigned long code = ERR_get_error();
    if (code != 0) {
        char text[256];
        ERR_error_string_n(code, text, sizeof(text));
        props.add("openSSLError", zo::String(text));
    }
    clearOpenSSLErrors();
    throw zo::CError(message, zo::String(), -1, props);
}

void clearOpenSSLErrors()
{
    ERR_clear_error();
}

} // namespace seal::detail
