#include "core/utils/gate.h"

#include <algorithm>
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

bool waitFor(const AwaitUntil& awaitUntil, const std::string& what, int64_t timeoutMs) {
    using Clock = Gate::Clock;
    constexpr std::chrono::minutes kLogEvery(1);
    if (platform::isTerminating()) return true;
    VELMORA_LOG_SCOPE_AT(info, "utils", "velmora::waitFor", "wait for " << what << " to be complete");
    const Clock::time_point begin = Clock::now();
    const auto longest = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - begin);
    const Clock::time_point end = begin + std::min(std::chrono::milliseconds(timeoutMs), longest);
    for (Clock::time_point next = begin; !awaitUntil(std::min(next, end)); next += kLogEvery) {
        if (next >= end) return false;
        VELMORA_LOGF_AT(info, "utils", "velmora::waitFor", "waiting for %s to be complete", what.c_str());
    }
    return true;
}

bool waitFor(const std::function<bool()>& predicate, const std::string& what, int64_t intervalMs, int64_t timeoutMs) {
    const auto poll = [&](Gate::Clock::time_point deadline) {
        while (!predicate()) {
            if (Gate::Clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        }
        return true;
    };
    return waitFor(AwaitUntil(poll), what, timeoutMs);
}

}  // namespace velmora
