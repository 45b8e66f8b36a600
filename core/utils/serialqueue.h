// A queue that runs the tasks given to it strictly one after the other, on an executor's threads.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>

#include "core/types/mutex.h"
#include "core/types/uniquefunction.h"

namespace velmora {

// Always held by std::shared_ptr; a turn in flight holds the queue alive. Threads: any.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
public:
    using Executor = std::function<void(Task)>;
    enum class Mode {
        oneTaskPerTurn = 0,   // each task is a work item of its own: fair between queues
        allTasksPerTurn = 1,  // whatever has gathered runs in one work item
    };

    SerialQueue(Executor executor, Mode mode);

    // Appends a task; takes nothing but the queue's mutex for the length of the append. Tasks run in the order of their
    // enqueueing and must not throw. Raises what the executor raises, and has then not taken the task.
    void enqueue(Task task);

private:
    void startTurn();
    Task abandonTurn(size_t position);
    void runTurns();
    void runOneTask();
    void runAllTasks();
    [[nodiscard]] bool endTurn() noexcept;

    Mutex mutex_;
    bool running_ VELMORA_GUARDED_BY(mutex_) = false;
    std::deque<Task> tasks_ VELMORA_GUARDED_BY(mutex_);
    const Executor executor_;
    void (SerialQueue::*const turn_)();
};

}  // namespace velmora
