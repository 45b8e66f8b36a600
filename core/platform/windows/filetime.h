// The system's count of 100-nanosecond ticks since 1601.
#pragma once

#include <windows.h>

#include <cstdint>

namespace velmora::platform {

constexpr int64_t kTicksPerSecond = 10'000'000;
constexpr int64_t kTicksFrom1601To1970 = 116'444'736'000'000'000;

inline FILETIME toFileTime(int64_t ticks) noexcept {
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(static_cast<uint64_t>(ticks) >> 32)};
}

inline int64_t toTicks(const FILETIME& time) noexcept {
    return static_cast<int64_t>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
}

}  // namespace velmora::platform
