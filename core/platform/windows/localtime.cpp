#include "core/platform/localtime.h"

#include "core/platform/windows/filetime.h"

namespace velmora::platform {

bool localOffset(int64_t utcSeconds, std::chrono::seconds& offset) noexcept {
    const int64_t utcTicks = utcSeconds * kTicksPerSecond + kTicksFrom1601To1970;
    const FILETIME utcTime = toFileTime(utcTicks);
    FILETIME localTime{};
    SYSTEMTIME utc{};
    SYSTEMTIME local{};
    if (::FileTimeToSystemTime(&utcTime, &utc) == FALSE) return false;
    if (::SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) == FALSE) return false;
    if (::SystemTimeToFileTime(&local, &localTime) == FALSE) return false;
    offset = std::chrono::seconds((toTicks(localTime) - utcTicks) / kTicksPerSecond);
    return true;
}

}  // namespace velmora::platform
