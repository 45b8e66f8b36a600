// Configured times are unsigned milliseconds of any size; timers take std::chrono.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

namespace velmora {

// Values past the range of the clock become its longest duration.
[[nodiscard]] inline std::chrono::milliseconds toMilliseconds(uint64_t value) noexcept {
    constexpr auto kLongest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    return std::chrono::milliseconds(static_cast<int64_t>(std::min(value, kLongest)));
}

}  // namespace velmora
