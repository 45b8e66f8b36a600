#include "core/platform/localtime.h"

#include <ctime>

namespace velmora::platform {

bool localOffset(int64_t utcSeconds, std::chrono::seconds& offset) noexcept {
    ::tzset();  // localtime_r alone would keep the zone of its first call
    const auto time = static_cast<std::time_t>(utcSeconds);
    std::tm local{};
    if (::localtime_r(&time, &local) == nullptr) return false;
    offset = std::chrono::seconds(local.tm_gmtoff);
    return true;
}

}  // namespace velmora::platform
