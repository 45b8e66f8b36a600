// Pools whose work happens only when a test says so, on the test's own thread: deterministic order, manual time.
#pragma once

#include <chrono>
#include <deque>
#include <map>

#include "core/platform/pool.h"
#include "core/types/mutex.h"

namespace velmora::test {

// Installed for every engine of the process from construction to destruction. Construct it before any engine.
class ManualPools {
public:
    ManualPools();
    ~ManualPools();
    ManualPools(const ManualPools&) = delete;
    ManualPools& operator=(const ManualPools&) = delete;

    // Runs queued tasks, and what they queue, until none is left. Returns how many ran.
    size_t runAll();

    // Runs the oldest queued task, one of an engine's; false if there is none.
    bool runOne();

    // Tasks run within the call that queues them, as if the pool were faster than the caller.
    void runAtOnce(bool atOnce);

    // Lets time pass: runs timers in the order of their due times, and after each all tasks.
    void advance(std::chrono::milliseconds time);

    // Timers that have not fired yet.
    size_t pendingTimers();

private:
    struct ManualPool : platform::Pool {
        explicit ManualPool(ManualPools& o) : owner(o) {}
        void run(Task task) override;
        ManualPools& owner;
    };
    struct ManualTimer : platform::Timer {
        explicit ManualTimer(ManualPools& o) : owner(o) {}
        void runAfter(std::chrono::milliseconds delay, const void* owner, Task task) override;
        void forget(const void* owner) noexcept override;
        ManualPools& owner;
    };

    bool takeTask(Task& task);
    bool takeTimer(std::chrono::milliseconds until, Task& task);

    Mutex mutex_;
    bool atOnce_ VELMORA_GUARDED_BY(mutex_) = false;
    std::deque<Task> tasks_ VELMORA_GUARDED_BY(mutex_);
    struct Entry {
        const void* owner;
        Task task;
    };
    std::multimap<std::chrono::milliseconds, Entry> timers_ VELMORA_GUARDED_BY(mutex_);
    std::chrono::milliseconds now_ VELMORA_GUARDED_BY(mutex_){0};
    ManualPool pool_{*this};
    ManualTimer timer_{*this};
};

}  // namespace velmora::test
