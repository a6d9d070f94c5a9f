#include "seal/detail/NullCipher.h"

#include "zo/Error.h"

#include <cstring>

namespace seal::detail {

namespace {

void copyMessage(const char* where, const void* src, int size, zo::TBuffer<zo::uint8>& out, bool append, int flags)
{
    if (size < 0 || (size > 0 && !src))
        throw zo::CInvalidArgError(where, "Invalid source buffer.", zo::CProps().add("size", size));
    if (flags != 0)
        throw zo::CInvalidArgError(where, "Unsupported cipher flags: " + zo::toDecimalString(flags));
    if (!append)
        out.clear();
    if (size > 0)
        out.append(static_cast<const zo::uint8*>(src), size);
}

} // namespace

void CNullCipher::encrypt(const zo::TCryptBuffer<zo::uint8>&, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                          bool append, int flags)
{
    copyMessage("CNullCipher::encrypt", src, size, out, append, flags);
}

void CNullCipher::decrypt(const zo::TCryptBuffer<zo::uint8>&, const void* src, int size, zo::TBuffer<zo::uint8>& out,
                          bool append, int flags)
{
    copyMessage("CNullCipher::decrypt", src, size, out, append, flags);
}

} // namespace seal::detail
