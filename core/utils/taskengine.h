// The class by which every active object schedules work: a stop switch in front of the executors.
//
// A queued task is never taken back; a stopped engine only makes it do nothing when its turn comes. Each restart begins
// a new generation, and a task of an earlier one is stale. After stop() has returned no task body of the engine is
// running and none will begin, so an object that stops its engines first in its destructor may capture `this` in their
// tasks. Tasks of timers that are not yet due are destroyed by stop().
//
// Threads: schedule, start and stop may be called from any thread; stop not from a task of the same engine, where it
// would wait for itself for ever. An exception that leaves a task is logged and ends that task only.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <system_error>

#include "core/platform/pool.h"
#include "core/types/function.h"
#include "core/types/mutex.h"
#include "core/utils/future.h"
#include "core/utils/gate.h"

namespace velmora {

// Runs a task once, as soon as a thread of the default pool is free.
struct DefaultExecutor {
    void operator()(Task task) const;
};

// Runs a task once after a delay, directly on a timer thread. The owner's pending tasks can be destroyed together.
struct SystemTimer {
    void operator()(std::chrono::milliseconds delay, const void* owner, Task task) const;
    void forget(const void* owner) const noexcept;
};

// Replaces the pools of the process, null meaning the platform's; for hosts of the library's objects that drive time
// themselves. Call it before any engine exists.
void setPools(platform::Pool* pool, platform::Timer* timer) noexcept;

// A queue that runs the tasks given to it strictly one after the other, on an executor's threads. Each task is a work
// item of its own: fair between queues.
//
// Always held by std::shared_ptr; a turn in flight holds the queue alive. Threads: any.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
public:
    using Executor = std::function<void(Task)>;

    explicit SerialQueue(Executor executor);

    // Appends a task; takes nothing but the queue's mutex for the length of the append. Tasks run in the order of their
    // enqueueing and must not throw. Raises what the executor raises, and has then not taken the task.
    void enqueue(Task task);

private:
    void startTurn();
    Task abandonTurn(size_t position);
    void runTurns();
    void runOneTask();
    [[nodiscard]] bool endTurn() noexcept;

    Mutex mutex_;
    bool running_ VELMORA_GUARDED_BY(mutex_) = false;
    std::deque<Task> tasks_ VELMORA_GUARDED_BY(mutex_);
    const Executor executor_;
};

// Used alone, an engine serves for delayed tasks, which run on the timer's threads: concurrently with everything.
class TaskEngine {
public:
    TaskEngine();
    virtual ~TaskEngine();
    TaskEngine(const TaskEngine&) = delete;
    TaskEngine& operator=(const TaskEngine&) = delete;

    // Re-arms a stopped engine; without effect on a running one.
    void start();

    // Refuses further tasks, waits for the running ones, and makes all pending ones void. A second call returns at
    // once, also while the first still waits.
    void stop();

    // Runs the task after the delay on a timer thread; drops it if the engine is stopped. Throws std::bad_alloc.
    void schedule(std::chrono::milliseconds delay, Task task);

protected:
    // Wraps a task for an executor; empty if the engine is stopped.
    [[nodiscard]] Task accept(Task task);

private:
    struct State {
        std::atomic<uint64_t> index = 0;    // generation; incremented by each restart
        std::atomic<uint64_t> pending = 0;  // accepted tasks whose body has not finished
        std::atomic<bool> stopped = false;
        Gate active;  // tasks inside their run; closed while stopped
    };

    static void perform(const void* engine, const std::weak_ptr<State>& weak, uint64_t captured, Task& task);

    std::shared_ptr<State> state_;
};

// An engine whose immediate tasks run one at a time, in order.
class SerialTaskEngine : public TaskEngine {
public:
    SerialTaskEngine();
    ~SerialTaskEngine() override;

    using TaskEngine::schedule;
    void schedule(Task task);

    // The task's result arrives in the future; a stopped engine returns a future that is ready with `defaultResult`.
    template <typename Callable>
    future<std::error_code> schedule(std::error_code defaultResult, Callable task) {
        auto [packaged, result] = package<std::error_code>(std::move(task));
        Task accepted = accept(Task(std::move(packaged)));
        if (!accepted) return make_ready_future(defaultResult);
        queue_->enqueue(std::move(accepted));
        return result;
    }

private:
    std::shared_ptr<SerialQueue> queue_;
};

}  // namespace velmora
