#include "core/platform/pool.h"

#include <algorithm>
#include <deque>
#include <list>
#include <map>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "core/utils/mutex.h"

namespace velmora::platform {
namespace {

constexpr size_t kMaxThreads = 500;
constexpr std::chrono::seconds kIdleTime(10);

// Grows by a thread whenever a task waits and no thread is idle: tasks may block on other tasks of the same pool, which
// would deadlock a pool of fixed size. A thread that has had nothing to do for a while ends.
class ElasticPool final : public Pool {
public:
    ElasticPool() = default;

    // Runs what is queued, whatever the tasks add meanwhile included, and joins every thread.
    ~ElasticPool() override {
        mutex_.lock();
        ending_ = true;
        wake_.notifyAll();
        gone_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return threads_.empty(); });
        std::list<std::thread> ended = std::move(ended_);
        mutex_.unlock();
        join(ended);
    }

    void run(Task task) override {
        std::list<std::thread> ended;
        {
            const MutexLock lock(mutex_);
            ended.swap(ended_);
            tasks_.push_back(std::move(task));
            if (tasks_.size() > idle_ && threads_.size() < kMaxThreads) addThread();
            wake_.notifyOne();
        }
        join(ended);
    }

private:
    using ThreadEntry = std::list<std::thread>::iterator;

    static void join(std::list<std::thread>& threads) {
        for (std::thread& thread : threads) thread.join();
    }

    // Fails only if the task would otherwise never run.
    void addThread() VELMORA_REQUIRES(mutex_) {
        const ThreadEntry entry = threads_.emplace(threads_.end());
        try {
            *entry = std::thread([this, entry] { work(entry); });
        } catch (const std::system_error&) {
            threads_.erase(entry);
            if (!threads_.empty()) return;
            tasks_.pop_back();
            throw std::bad_alloc();
        }
    }

    void work(ThreadEntry self) {
        mutex_.lock();
        while (waitForTask()) {
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            mutex_.unlock();
            task();
            task = nullptr;  // what it holds may log or wait: not under the lock
            mutex_.lock();
        }
        ended_.splice(ended_.end(), threads_, self);
        gone_.notifyAll();
        mutex_.unlock();
    }

    // False when this thread is to end.
    bool waitForTask() VELMORA_REQUIRES(mutex_) {
        ++idle_;
        const auto deadline = std::chrono::steady_clock::now() + kIdleTime;
        wake_.waitUntil(mutex_, deadline, [this]() VELMORA_REQUIRES(mutex_) { return !tasks_.empty() || ending_; });
        --idle_;
        return !tasks_.empty();
    }

    Mutex mutex_;
    Condition wake_;
    Condition gone_;
    std::deque<Task> tasks_ VELMORA_GUARDED_BY(mutex_);
    std::list<std::thread> threads_ VELMORA_GUARDED_BY(mutex_);
    std::list<std::thread> ended_ VELMORA_GUARDED_BY(mutex_);  // have left their work, to be joined
    size_t idle_ VELMORA_GUARDED_BY(mutex_) = 0;
    bool ending_ VELMORA_GUARDED_BY(mutex_) = false;
};

// One thread waits for the earliest due time, and hands bodies to a pool of their own.
class WaitingTimer final : public Timer {
public:
    WaitingTimer() = default;

    ~WaitingTimer() override {
        {
            const MutexLock lock(mutex_);
            ending_ = true;
            changed_.notifyAll();
        }
        if (waiter_.joinable()) waiter_.join();
    }

    void runAfter(std::chrono::milliseconds delay, Task task) override {
        const MutexLock lock(mutex_);
        startWaiter();
        due_.emplace(dueTime(delay), std::move(task));
        changed_.notifyAll();
    }

private:
    using Clock = std::chrono::system_clock;

    // Delays reach from "never" to "long ago": both ends are held within what the clock can express.
    static Clock::time_point dueTime(std::chrono::milliseconds delay) {
        constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365 * 100);
        return Clock::now() + std::min(std::max(delay, std::chrono::milliseconds(0)), kLongest);
    }

    void startWaiter() VELMORA_REQUIRES(mutex_) {
        if (waiter_.joinable()) return;
        try {
            waiter_ = std::thread([this] { wait(); });
        } catch (const std::system_error&) {
            throw std::bad_alloc();
        }
    }

    void wait() {
        mutex_.lock();
        while (!ending_) {
            if (due_.empty()) {
                changed_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return ending_ || !due_.empty(); });
                continue;
            }
            const Clock::time_point earliest = due_.begin()->first;
            if (Clock::now() >= earliest) {
                runEarliest();
                continue;
            }
            changed_.waitUntil(mutex_, earliest,
                               [&]() VELMORA_REQUIRES(mutex_) { return ending_ || due_.begin()->first < earliest; });
        }
        mutex_.unlock();
    }

    void runEarliest() VELMORA_REQUIRES(mutex_) {
        Task task = std::move(due_.begin()->second);
        due_.erase(due_.begin());
        mutex_.unlock();
        pool_.run(std::move(task));
        mutex_.lock();
    }

    ElasticPool pool_;
    Mutex mutex_;
    Condition changed_;
    std::multimap<Clock::time_point, Task> due_ VELMORA_GUARDED_BY(mutex_);
    bool ending_ VELMORA_GUARDED_BY(mutex_) = false;
    std::thread waiter_;  // started with the first timer, under the mutex
};

}  // namespace

Pool& defaultPool() {
    static ElasticPool pool;
    return pool;
}

Timer& defaultTimer() {
    static WaitingTimer timer;
    return timer;
}

}  // namespace velmora::platform
