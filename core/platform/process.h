// Facts about the process and its threads.
#pragma once

#include <cstdint>
#include <string>

namespace velmora::platform {

// The system's number of the calling thread.
[[nodiscard]] uint64_t currentThreadId() noexcept;

// Whether the process is ending in a way that has already killed the pools' threads, so that waiting for them would
// never end. Always false on systems where threads live until the process's teardown is through.
[[nodiscard]] bool isTerminating() noexcept;

// True if the variable is set, also if it is set to nothing; `value` receives its text in UTF-8.
[[nodiscard]] bool environmentVariable(const std::string& name, std::string& value);

}  // namespace velmora::platform
