// The local time zone.
#pragma once

#include <chrono>
#include <cstdint>

namespace velmora::platform {

// How far local time is ahead of UTC at that second since 1970. Follows changes of the zone. False if the system does
// not tell.
[[nodiscard]] bool localOffset(int64_t utcSeconds, std::chrono::seconds& offset) noexcept;

}  // namespace velmora::platform
