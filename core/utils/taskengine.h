// The class by which every active object schedules work: a stop switch in front of the executors.
//
// A timer or queued task can never be taken back; an engine only makes it do nothing when its turn comes. Each restart
// begins a new generation, and a task of an earlier one is stale. After stop() has returned no task body of the engine
// is running and none will begin, so an object that stops its engines first in its destructor may capture `this` in
// their tasks.
//
// Threads: schedule, start and stop may be called from any thread; stop not from a task of the same engine, where it
// would wait for itself for ever. An exception that leaves a task is logged and ends that task only.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <system_error>

#include "core/types/uniquefunction.h"
#include "core/utils/future.h"
#include "core/utils/serialqueue.h"

namespace velmora {

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
        std::atomic<uint64_t> active = 0;   // tasks inside their run, those included that only look and skip
        std::atomic<uint64_t> pending = 0;  // accepted tasks whose body has not finished
        std::atomic<bool> stopped = false;
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
