#include "core/utils/gate.h"

#include "core/platform/process.h"

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

}  // namespace velmora
