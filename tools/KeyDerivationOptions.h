// The cost options of the Argon2id key derivation, shared by create and
// passwd: --kdf-memory, --kdf-passes and --kdf-lanes.
#pragma once

#include "seal/KeyDerivation.h"

#include <string>

namespace CLI {
class App;
}

namespace cli {

class CKeyDerivationOptions {
public:
    // Adds the three options to `command`, with the library's default cost
    // as their defaults.
    void addTo(CLI::App& command);

    // The chosen cost. Throws UsageError for a memory that is not a size, or
    // for values outside 8K (per lane) to 4G, 1 to 64 passes, 1 to 64 lanes.
    seal::Argon2idCost cost() const;

    // "2 passes over 64.0 MiB in 1 lane".
    static std::string describe(const seal::Argon2idCost& cost);

private:
    std::string m_memory;
    int m_passes = 0;
    int m_lanes = 0;
};

} // namespace cli
