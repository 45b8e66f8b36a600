// Facts about the process and its threads.
#pragma once

#include <cstdint>
#include <string>

namespace velmora::platform {

// The system's number of the calling thread.
[[nodiscard]] uint64_t currentThreadId() noexcept;

// Whether the pools' threads are gone, so that waiting for them would never end: on Windows in a process that is being
// taken down, on Linux in a child that was forked while the parent had them.
[[nodiscard]] bool isTerminating() noexcept;

// True if the variable is set, also if it is set to nothing; `value` receives its text in UTF-8.
[[nodiscard]] bool environmentVariable(const std::string& name, std::string& value);

}  // namespace velmora::platform
