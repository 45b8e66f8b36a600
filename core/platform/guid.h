// Random identifiers.
#pragma once

#include <array>
#include <cstdint>

namespace velmora::platform {

// Sixteen bytes of a fresh version 4 identifier in the order of RFC 4122. Cheap: no system call per identifier where
// the system allows it. Throws std::system_error if the system has no randomness to give.
[[nodiscard]] std::array<uint8_t, 16> newGuid();

}  // namespace velmora::platform
