// Stop-and-wait: a gate counts who is inside, refuses newcomers once it is closed, and lets its owner wait until
// everybody has left.
//
//     if (!gate_.enter()) return;                   // the owner is going away
//     const ScopeExit left([this] { gate_.leave(); });
//     ...
//     gate_.close();                                // in the owner's stop
//     gate_.wait();
//
// Threads: any. Its mutex is a leaf. A gate may be destroyed as soon as wait() has returned on a closed gate.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>

#include "core/types/mutex.h"

namespace velmora {

class Gate {
public:
    using Clock = std::chrono::steady_clock;

    // Counts the caller in; false, and not counted, while the gate is closed. Each success needs one leave().
    [[nodiscard]] bool enter() VELMORA_EXCLUDES(mutex_);
    void leave() VELMORA_EXCLUDES(mutex_);

    // From now on nobody enters; whoever is inside stays inside. Idempotent.
    void close() VELMORA_EXCLUDES(mutex_);

    // Lets newcomers in again.
    void open() VELMORA_EXCLUDES(mutex_);

    // Returns when at most `remaining` are inside: a caller that is inside itself names how often it is. An open gate
    // may fill up again at once. While the process is terminating it returns at once: who is inside may never leave.
    void wait(uint32_t remaining = 0) VELMORA_EXCLUDES(mutex_);

    // The same, at most until the deadline; whether they have left.
    [[nodiscard]] bool waitUntil(Clock::time_point deadline, uint32_t remaining = 0) VELMORA_EXCLUDES(mutex_);

    [[nodiscard]] uint32_t inside() const VELMORA_EXCLUDES(mutex_);

private:
    mutable Mutex mutex_;
    Condition left_;
    uint32_t inside_ VELMORA_GUARDED_BY(mutex_) = 0;
    bool closed_ VELMORA_GUARDED_BY(mutex_) = false;
};

inline constexpr int64_t kNoTimeout = std::numeric_limits<int64_t>::max();

// Tests the predicate every `intervalMs` milliseconds (above 0) until it holds or `timeoutMs` are over, and returns its
// value. While the process is terminating it returns true at once: what it would wait for may never come.
// Logs on channel "utils".
bool waitFor(const std::function<bool()>& predicate, const std::string& what, int64_t intervalMs, int64_t timeoutMs);

}  // namespace velmora
