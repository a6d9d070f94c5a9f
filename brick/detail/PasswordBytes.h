// The UTF-8 bytes of a password, wiped when they are no longer needed.
// Internal to the library.
#pragma once

#include "zo/String.h"

#include <string.h>
#include <string>

namespace brick::detail {

class CPasswordBytes {
public:
    explicit CPasswordBytes(const zo::String& password) : m_bytes(password.toUTF8()) {}
    ~CPasswordBytes() { explicit_bzero(m_bytes.data(), m_bytes.size()); }
    CPasswordBytes(const CPasswordBytes&) = delete;
    CPasswordBytes& operator=(const CPasswordBytes&) = delete;

    const char* getData() const { return m_bytes.data(); }
    int getSize() const { return static_cast<int>(m_bytes.size()); }

private:
    std::string m_bytes;
};

} // namespace brick::detail
