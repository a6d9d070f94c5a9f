#include "seal/Random.h"

#include "seal/detail/OpenSSLError.h"
#include "zo/Error.h"

#include <openssl/rand.h>

namespace seal {

void fillRandomBytes(void* dst, int size)
{
    if (size < 0 || (size > 0 && !dst))
        throw zo::CInvalidArgError("fillRandomBytes", "Invalid buffer.", zo::CProps().add("size", size));
    if (size > 0 && RAND_bytes(static_cast<unsigned char*>(dst), size) != 1)
        detail::throwOpenSSLError("The random generator failed.");
}

} // namespace seal
