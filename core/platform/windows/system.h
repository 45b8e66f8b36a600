// What the sources of this folder share: the system's text, error codes and file times.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

namespace velmora::platform {

// Between UTF-8 and the system's UTF-16. What can't be converted raises std::range_error "bad conversion".
[[nodiscard]] std::wstring wideFromUtf8(std::string_view text);
[[nodiscard]] std::string utf8FromWide(std::wstring_view text);

// The code of the calling thread's last failed call.
inline std::error_code lastError() noexcept { return {static_cast<int>(::GetLastError()), std::system_category()}; }

// A FILETIME counts ticks of 100 nanoseconds since 1601.
constexpr int64_t kTicksPerSecond = 10'000'000;
constexpr int64_t kTicksFrom1601To1970 = 116'444'736'000'000'000;

inline FILETIME toFileTime(int64_t ticks) noexcept {
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(static_cast<uint64_t>(ticks) >> 32)};
}

inline int64_t toTicks(const FILETIME& time) noexcept {
    return static_cast<int64_t>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
}

}  // namespace velmora::platform
