// Where tasks run: the default executor and the one-shot timer, in front of the platform's pools.
#pragma once

#include <chrono>

#include "core/platform/pool.h"

namespace velmora {

// Runs a task once, as soon as a thread of the default pool is free.
struct DefaultExecutor {
    void operator()(Task task) const;
};

// Runs a task once after a delay, directly on a timer thread. A timer is never cancelled.
struct SystemTimer {
    void operator()(std::chrono::milliseconds delay, Task task) const;
};

// Replaces the pools of the process, null meaning the platform's; for hosts of the library's objects that drive time
// themselves. Call it before any engine exists.
void setPools(platform::Pool* pool, platform::Timer* timer) noexcept;

}  // namespace velmora
