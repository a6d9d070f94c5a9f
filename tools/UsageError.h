// UsageError: a command line that cannot be carried out as written (a bad
// size, an unknown compressor, no source for a password). The program ends
// with exit status 2 for it, and with 1 for every other failure.
#pragma once

#include <stdexcept>
#include <string>

namespace cli {

class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

} // namespace cli
