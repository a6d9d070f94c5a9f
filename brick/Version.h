// The version of the brickdisk software. A disk whose header asks for a newer
// reader than this is refused; new brick payloads carry this number.
#pragma once

namespace brick {

constexpr int kImplementationVersion = 1;

} // namespace brick
