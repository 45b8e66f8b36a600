#include "tests/support/manualpools.h"

#include <utility>

#include "core/utils/taskengine.h"

namespace velmora::test {

ManualPools::ManualPools() { setPools(&pool_, &timer_); }

ManualPools::~ManualPools() { setPools(nullptr, nullptr); }

void ManualPools::ManualPool::run(Task task) {
    {
        const MutexLock lock(owner.mutex_);
        if (!owner.atOnce_) return owner.tasks_.push_back(std::move(task));
    }
    task();
}

void ManualPools::ManualTimer::runAfter(std::chrono::milliseconds delay, const void* engine, Task task) {
    const MutexLock lock(owner.mutex_);
    owner.timers_.emplace(owner.now_ + delay, Entry{engine, std::move(task)});
}

void ManualPools::ManualTimer::forget(const void* engine) noexcept {
    decltype(owner.timers_) forgotten;
    const MutexLock lock(owner.mutex_);
    for (auto timer = owner.timers_.begin(); timer != owner.timers_.end();) {
        const auto next = std::next(timer);
        if (timer->second.owner == engine) forgotten.insert(owner.timers_.extract(timer));
        timer = next;
    }
}

bool ManualPools::takeTask(Task& task) {
    const MutexLock lock(mutex_);
    if (tasks_.empty()) return false;
    task = std::move(tasks_.front());
    tasks_.pop_front();
    return true;
}

bool ManualPools::takeTimer(std::chrono::milliseconds until, Task& task) {
    const MutexLock lock(mutex_);
    if (timers_.empty() || timers_.begin()->first > until) return false;
    now_ = std::max(now_, timers_.begin()->first);
    task = std::move(timers_.begin()->second.task);
    timers_.erase(timers_.begin());
    return true;
}

bool ManualPools::runOne() {
    Task task;
    if (!takeTask(task)) return false;
    task();
    return true;
}

size_t ManualPools::runAll() {
    size_t count = 0;
    while (runOne()) ++count;
    return count;
}

void ManualPools::runAtOnce(bool atOnce) {
    const MutexLock lock(mutex_);
    atOnce_ = atOnce;
}

void ManualPools::advance(std::chrono::milliseconds time) {
    runAll();
    std::chrono::milliseconds until;
    {
        const MutexLock lock(mutex_);
        until = now_ + time;
    }
    for (Task timer; takeTimer(until, timer);) {
        timer();
        runAll();
    }
    const MutexLock lock(mutex_);
    now_ = until;
}

size_t ManualPools::pendingTimers() {
    const MutexLock lock(mutex_);
    return timers_.size();
}

}  // namespace velmora::test
