// Stop-and-wait: a gate counts who is inside, refuses newcomers once it is closed, and lets its owner wait until
// everybody has left.
//
//     if (!gate_.enter()) return;                   // the owner is going away
//     const ScopeExit left([this] { gate_.leave(); });
//     ...
//     gate_.close();                                // in the owner's stop
//     gate_.wait();
//
// Threads: any. To enter and to leave costs one exchange of an atomic each; the mutex, a leaf, serves those who wait. A
// gate may be destroyed as soon as wait() has returned on a closed gate.
#pragma once

#include <atomic>
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
    [[nodiscard]] bool enter() noexcept;
    void leave() noexcept VELMORA_EXCLUDES(mutex_);

    // From now on nobody enters; whoever is inside stays inside. Idempotent.
    void close() noexcept;

    // Lets newcomers in again.
    void open() noexcept;

    // Returns when at most `remaining` are inside: a caller that is inside itself names how often it is. An open gate
    // may fill up again at once. While the process is terminating it returns at once: who is inside may never leave.
    void wait(uint32_t remaining = 0) VELMORA_EXCLUDES(mutex_);

    // The same, at most until the deadline; whether they have left.
    [[nodiscard]] bool waitUntil(Clock::time_point deadline, uint32_t remaining = 0) VELMORA_EXCLUDES(mutex_);

    [[nodiscard]] uint32_t inside() const noexcept;

private:
    static constexpr uint32_t kClosed = 1U << 31;
    static constexpr uint32_t kWatched = 1U << 30;  // somebody waits: whoever leaves has to tell
    static constexpr uint32_t kCount = kWatched - 1;

    void watch() VELMORA_REQUIRES(mutex_);
    void unwatch() VELMORA_REQUIRES(mutex_);

    std::atomic<uint32_t> state_ = 0;  // the two flags, and how many are inside
    Mutex mutex_;
    Condition left_;
    uint32_t watchers_ VELMORA_GUARDED_BY(mutex_) = 0;
};

inline constexpr int64_t kNoTimeout = std::numeric_limits<int64_t>::max();

// What is waited for: returns at the deadline, or before it with true.
using AwaitUntil = std::function<bool(Gate::Clock::time_point deadline)>;

// Waits until that is so or `timeoutMs` milliseconds are over, and returns whether it is. Logs on channel "utils" what
// is waited for: at begin and end, and, while it is not so, once a minute. While the process is terminating it returns
// true at once: what it would wait for may never come.
bool waitFor(const AwaitUntil& awaitUntil, const std::string& what, int64_t timeoutMs = kNoTimeout);

// The same for what can't tell when it changes: the predicate is tested every `intervalMs` milliseconds (above 0).
bool waitFor(const std::function<bool()>& predicate, const std::string& what, int64_t intervalMs, int64_t timeoutMs);

}  // namespace velmora
