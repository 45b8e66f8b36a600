#include "core/utils/serialqueue.h"

#include <utility>

namespace velmora {

SerialQueue::SerialQueue(Executor executor, Mode mode)
    : executor_(std::move(executor)),
      turn_(mode == Mode::oneTaskPerTurn ? &SerialQueue::runOneTask : &SerialQueue::runAllTasks) {}

void SerialQueue::enqueue(Task task) {
    {
        const MutexLock lock(mutex_);
        tasks_.push_back(std::move(task));
        if (std::exchange(running_, true)) return;  // the turn in flight will find it
    }
    startTurn();
}

void SerialQueue::startTurn() {
    executor_([self = shared_from_this()] { ((*self).*(self->turn_))(); });
}

void SerialQueue::runOneTask() {
    {
        Task task;
        {
            const MutexLock lock(mutex_);
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
    }
    endTurn();
}

void SerialQueue::runAllTasks() {
    {
        std::deque<Task> tasks;
        {
            const MutexLock lock(mutex_);
            tasks.swap(tasks_);
        }
        for (Task& task : tasks) task();
    }
    endTurn();
}

void SerialQueue::endTurn() {
    {
        const MutexLock lock(mutex_);
        if (tasks_.empty()) {
            running_ = false;
            return;
        }
    }
    startTurn();
}

}  // namespace velmora
