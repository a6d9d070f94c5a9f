#include "KeyDerivationOptions.h"

#include "Units.h"
#include "UsageError.h"

#include "brick/format/BrickDiskKeyWrap.h"

#include <CLI/CLI.hpp>

namespace cli {

namespace {

// Argon2 needs at least 8 KiB of memory per lane.
constexpr zo::int64 kMinMemoryKiBPerLane = 8;

} // namespace

void CKeyDerivationOptions::addTo(CLI::App& command)
{
    const seal::Argon2idCost defaults = brick::CBrickDiskKeyWrap::getDefaultCost();
    m_memory = std::to_string(defaults.memoryKiB / 1024) + "M";
    m_passes = defaults.passes;
    m_lanes = defaults.lanes;
    command.add_option("--kdf-memory", m_memory, "Memory of the Argon2id key derivation, e.g. 64M (8K to 4G)")
        ->capture_default_str();
    command.add_option("--kdf-passes", m_passes, "Passes of the Argon2id key derivation over its memory (1 to 64)")
        ->capture_default_str();
    command.add_option("--kdf-lanes", m_lanes, "Lanes of the Argon2id key derivation (1 to 64)")->capture_default_str();
}

seal::Argon2idCost CKeyDerivationOptions::cost() const
{
    const seal::Argon2idCost limit = brick::CBrickDiskKeyWrap::getCostLimit();
    const zo::int64 memoryKiB = parseByteSize(m_memory, "key derivation memory") / 1024;
    if (m_passes < 1 || m_passes > limit.passes)
        throw UsageError("--kdf-passes must be from 1 to " + std::to_string(limit.passes));
    if (m_lanes < 1 || m_lanes > limit.lanes)
        throw UsageError("--kdf-lanes must be from 1 to " + std::to_string(limit.lanes));
    if (memoryKiB < kMinMemoryKiBPerLane * m_lanes || memoryKiB > limit.memoryKiB)
        throw UsageError("--kdf-memory must be from 8K per lane to 4G");
    return seal::Argon2idCost{m_passes, static_cast<int>(memoryKiB), m_lanes};
}

std::string CKeyDerivationOptions::describe(const seal::Argon2idCost& cost)
{
    return std::to_string(cost.passes) + (cost.passes == 1 ? " pass" : " passes") + " over " +
        formatBytes(zo::int64(cost.memoryKiB) * 1024) + " in " + std::to_string(cost.lanes) +
        (cost.lanes == 1 ? " lane" : " lanes");
}

} // namespace cli
