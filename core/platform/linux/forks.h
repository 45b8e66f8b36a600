// Tells a process from the children that it forks.
#pragma once

#include <cstdint>

namespace velmora::platform {

// From the first call on, every fork is noticed by the child. Throws std::system_error.
void watchForks();

// Another number in a forked child than in its parent, never 0. Any thread.
[[nodiscard]] uint32_t processGeneration() noexcept;

// Notes that the library starts threads in this process; a child that is forked later lacks them. Watches forks.
void noteThreads();

// Whether this process is such a child.
[[nodiscard]] bool lacksThreads() noexcept;

}  // namespace velmora::platform
