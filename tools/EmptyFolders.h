// Cleaning up after a disk has been taken out of its chain: the removal
// deletes the disk's files, and where the file system keeps folders the
// empty ones stay behind.
#pragma once

#include <filesystem>

namespace cli {

// Removes `folder` and the folders below it that are empty, deepest first;
// anything that is not an empty folder stays. Never throws.
void removeEmptyFolders(const std::filesystem::path& folder);

} // namespace cli
