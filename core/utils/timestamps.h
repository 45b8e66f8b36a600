// The three time formats of the library. Fractions are truncated, not rounded; a failure gives an empty text.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

namespace velmora {

// Log lines: "2023-03-14T10:15:30.123456Z".
[[nodiscard]] std::string currentTimeUtcMicros();

// Events: local time with the offset without a colon, "2023-03-14T11:15:30.123+0100". On the submit path: cheap.
[[nodiscard]] std::string currentTimeLocalMillis();

// Log file names: "2023-03-14T10:15:30Z" from 100-nanosecond ticks since 1970.
[[nodiscard]] std::string formatTimeUtc(int64_t ticks);

// The wall clock in 100-nanosecond ticks since 1970.
[[nodiscard]] int64_t currentTicks() noexcept;

// Seconds since 1970; `microseconds`, if not null, receives those within the second.
[[nodiscard]] int64_t currentSeconds(uint32_t* microseconds = nullptr) noexcept;

// Configured times are unsigned milliseconds of any size, timers take std::chrono: values past the range of the clock
// become its longest duration.
[[nodiscard]] inline std::chrono::milliseconds toMilliseconds(uint64_t value) noexcept {
    constexpr auto kLongest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    return std::chrono::milliseconds(static_cast<int64_t>(std::min(value, kLongest)));
}

}  // namespace velmora
