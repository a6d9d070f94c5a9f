// Whole local files read and written by path, for tests that look at or
// damage what the code under test keeps in a folder. A file that cannot be
// opened reads empty; writing replaces what the file held.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace testsupport {

inline std::string readLocalFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline void writeLocalFile(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes;
}

} // namespace testsupport
