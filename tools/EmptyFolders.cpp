#include "EmptyFolders.h"

namespace cli {

void removeEmptyFolders(const std::filesystem::path& folder)
{
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
        if (entry.is_directory(ignored) && !entry.is_symlink(ignored))
            removeEmptyFolders(entry.path());
    }
    std::filesystem::remove(folder, ignored);
}

} // namespace cli
