// Waiting by polling, with a log line a minute.
#pragma once

#include <functional>
#include <limits>
#include <string>

namespace velmora {

inline constexpr int64_t kNoTimeout = std::numeric_limits<int64_t>::max();

// Tests the predicate every `intervalMs` milliseconds (above 0) until it holds or `timeoutMs` are over, and returns its
// value. While the process is terminating it returns true at once: what it would wait for may never come.
// Logs on channel "utils".
bool waitFor(const std::function<bool()>& predicate, const std::string& what, int64_t intervalMs, int64_t timeoutMs);

}  // namespace velmora
