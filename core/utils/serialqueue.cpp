#include "core/utils/serialqueue.h"

#include <utility>

namespace velmora {

SerialQueue::SerialQueue(Executor executor, Mode mode)
    : executor_(std::move(executor)),
      turn_(mode == Mode::oneTaskPerTurn ? &SerialQueue::runOneTask : &SerialQueue::runAllTasks) {}

void SerialQueue::enqueue(Task task) {
    size_t position = 0;
    {
        const MutexLock lock(mutex_);
        position = tasks_.size();
        tasks_.push_back(std::move(task));
        if (std::exchange(running_, true)) return;  // the turn in flight will find it
    }
    try {
        startTurn();
    } catch (...) {
        task = abandonTurn(position);
        throw;
    }
}

// Nothing has left the queue since, as there is no turn. What others have added waits for the next one.
Task SerialQueue::abandonTurn(size_t position) {
    const MutexLock lock(mutex_);
    running_ = false;
    const auto refused = tasks_.begin() + static_cast<std::ptrdiff_t>(position);
    Task task = std::move(*refused);
    tasks_.erase(refused);
    return task;
}

void SerialQueue::startTurn() {
    executor_([self = shared_from_this()] { self->runTurns(); });
}

void SerialQueue::runTurns() {
    do {
        (this->*turn_)();
    } while (!endTurn());
}

void SerialQueue::runOneTask() {
    Task task;
    {
        const MutexLock lock(mutex_);
        task = std::move(tasks_.front());
        tasks_.pop_front();
    }
    task();
}

void SerialQueue::runAllTasks() {
    std::deque<Task> tasks;
    {
        const MutexLock lock(mutex_);
        tasks.swap(tasks_);
    }
    for (Task& task : tasks) task();
}

// False if there are tasks and the executor takes no further turn: the present one then goes on.
bool SerialQueue::endTurn() noexcept {
    {
        const MutexLock lock(mutex_);
        if (tasks_.empty()) {
            running_ = false;
            return true;
        }
    }
    try {
        startTurn();
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace velmora
