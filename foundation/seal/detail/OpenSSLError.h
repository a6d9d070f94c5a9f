// Turns a failed OpenSSL call into a zo::CError. Internal to the library.
#pragma once

#include "zo/Props.h"

namespace seal::detail {

// Throws a zo::CError with `message`, the properties `props` and the
// property "openSSLError" holding the text of the oldest error OpenSSL queued
// for this thread (when there is one). Clears this thread's OpenSSL error
// queue, so a later failure never reports a stale entry.
[[noreturn]] void throwOpenSSLError(const zo::String& message, zo::CProps props = zo::CProps());

// Drops whatever OpenSSL queued for this thread.
void clearOpenSSLErrors();

} // namespace seal::detail
