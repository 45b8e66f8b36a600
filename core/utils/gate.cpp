#include "core/utils/gate.h"

#include <thread>

#include "core/platform/process.h"
#include "core/types/logger.h"

namespace velmora {

bool Gate::enter() {
    const MutexLock lock(mutex_);
    if (closed_) return false;
    ++inside_;
    return true;
}

void Gate::leave() {
    const MutexLock lock(mutex_);
    --inside_;
    left_.notifyAll();  // under the mutex: the gate may be gone right after it is released
}

void Gate::close() {
    const MutexLock lock(mutex_);
    closed_ = true;
}

void Gate::open() {
    const MutexLock lock(mutex_);
    closed_ = false;
}

void Gate::wait(uint32_t remaining) {
    if (platform::isTerminating()) return;
    const MutexLock lock(mutex_);
    left_.wait(mutex_, [&]() VELMORA_REQUIRES(mutex_) { return inside_ <= remaining; });
}

bool Gate::waitUntil(Clock::time_point deadline, uint32_t remaining) {
    if (platform::isTerminating()) return true;
    const MutexLock lock(mutex_);
    return left_.waitUntil(mutex_, deadline, [&]() VELMORA_REQUIRES(mutex_) { return inside_ <= remaining; });
}

uint32_t Gate::inside() const {
    const MutexLock lock(mutex_);
    return inside_;
}

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
