// The two private pools on which all background work of the library runs. The library owns no other thread. Theirs take
// no signals that are meant for the process.
//
// An exception that leaves a task ends the process: callers wrap what they hand over.
#pragma once

#include <chrono>

#include "core/types/function.h"

namespace velmora::platform {

// A pool of worker threads for one-shot tasks.
class Pool {
public:
    virtual ~Pool() = default;

    // Runs the task once, as soon as a thread is free. Never waits for one: a task that blocks can't keep others from
    // running. Throws std::bad_alloc if the system refuses the work.
    virtual void run(Task task) = 0;
};

// One-shot timers on threads of their own, so that long tasks of the pool never hold up a timer.
class Timer {
public:
    virtual ~Timer() = default;

    // Runs the task once, at the wall-clock time `delay` from now; a delay of 0 or below means at once. Bodies run
    // directly on the timer's threads, concurrently with everything. `owner` is only compared, never looked into.
    // Throws std::bad_alloc.
    virtual void runAfter(std::chrono::milliseconds delay, const void* owner, Task task) = 0;

    // Destroys the tasks of that owner which are not yet due, on the calling thread. One that is just about to begin is
    // not waited for.
    virtual void forget(const void* owner) noexcept = 0;
};

// The process's pool and timer, created at the first call. They end at process exit, or when the library is unloaded:
// the pool's end runs what has been handed over and waits for it; timers not yet due are dropped. Whoever needs them in
// its own destructor at exit has to have called both before its construction ended.
Pool& defaultPool();
Timer& defaultTimer();

// Whether the calling thread may wait for the pools' threads to end. Not in a process that has lost them, not on one of
// them, where exit() may have been called in a callback, and not once they have been abandoned. Pools, and what tasks
// still use, are then left as they are.
[[nodiscard]] bool canAwaitPools() noexcept;

// From now on nobody waits for the pools, and their end leaves them alive: for the end of a process in which a task may
// never return.
void abandonPools() noexcept;

// Drops what timers have not fired, runs what is queued, and returns when no thread of the pools runs any code of the
// library; false if that is not so at the deadline, or may not be waited for. The pools serve on: the next task begins
// afresh, also in a child that is forked between. Nobody may hand over work meanwhile but the tasks themselves.
[[nodiscard]] bool awaitIdlePools(std::chrono::steady_clock::time_point deadline);

}  // namespace velmora::platform
