#include "core/utils/gate.h"

#include <thread>

#include "core/platform/process.h"
#include "core/types/logger.h"

namespace velmora {

bool Gate::enter() noexcept {
    uint32_t state = state_.load(std::memory_order_relaxed);
    do {
        if ((state & kClosed) != 0) return false;
    } while (!state_.compare_exchange_weak(state, state + 1, std::memory_order_acquire, std::memory_order_relaxed));
    return true;
}

void Gate::leave() noexcept {
    uint32_t state = state_.load(std::memory_order_relaxed);
    while ((state & kWatched) == 0) {
        if (state_.compare_exchange_weak(state, state - 1, std::memory_order_release, std::memory_order_relaxed))
            return;
    }
    const MutexLock lock(mutex_);  // until the end: the gate may be gone right after it is released
    state_.fetch_sub(1);
    left_.notifyAll();
}

void Gate::close() noexcept { state_.fetch_or(kClosed); }

void Gate::open() noexcept { state_.fetch_and(~kClosed); }

void Gate::watch() {
    if (watchers_++ == 0) state_.fetch_or(kWatched);
}

void Gate::unwatch() {
    if (--watchers_ == 0) state_.fetch_and(~kWatched);
}

void Gate::wait(uint32_t remaining) {
    if (platform::isTerminating()) return;
    const MutexLock lock(mutex_);
    watch();
    left_.wait(mutex_, [&] { return inside() <= remaining; });
    unwatch();
}

bool Gate::waitUntil(Clock::time_point deadline, uint32_t remaining) {
    if (platform::isTerminating()) return true;
    const MutexLock lock(mutex_);
    watch();
    const bool haveLeft = left_.waitUntil(mutex_, deadline, [&] { return inside() <= remaining; });
    unwatch();
    return haveLeft;
}

uint32_t Gate::inside() const noexcept { return state_.load(std::memory_order_acquire) & kCount; }

bool waitFor(const std::function<bool()>& predicate, const std::string& what, int64_t intervalMs, int64_t timeoutMs) {
    if (platform::isTerminating()) return true;
    const int64_t logEvery = 60000 / intervalMs + 1;
    int64_t counter = 0;
    int64_t remaining = timeoutMs;
    VELMORA_LOG_SCOPE_AT(info, "utils", "velmora::waitFor", "wait for " << what << " to be complete");
    while (true) {
        const bool holds = predicate();
        if (holds || remaining < 1) return holds;
        if (counter == 0) {
            VELMORA_LOGF_AT(info, "utils", "velmora::waitFor", "waiting for %s to be complete", what.c_str());
        }
        counter = (counter + 1) % logEvery;
        std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        remaining -= intervalMs;
    }
}

}  // namespace velmora
