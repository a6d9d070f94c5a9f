#include "support/TempFolder.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace testsupport {

TempFolder::TempFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "brickdisk-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string storeLeftoverName(const std::string& name)
{
    return ".tmp-0123456789abcdef-" + name + ".part";
}

} // namespace testsupport
