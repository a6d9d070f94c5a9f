// A fresh folder under the system's temporary folder, removed with everything
// in it when the object goes.
#pragma once

#include "zo/URI.h"

#include <string>

namespace testsupport {

class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return m_path; }
    zo::CURI uri() const { return zo::CURI(zo::String(m_path)); }

private:
    std::string m_path;
};

// The name of a temporary file that the local file system's store of `name`
// writes next to its target (and leaves behind when it is interrupted):
// ".tmp-<16 hex digits>-<name>.part".
std::string storeLeftoverName(const std::string& name);

} // namespace testsupport
