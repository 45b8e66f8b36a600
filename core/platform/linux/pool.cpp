#include "core/platform/pool.h"

#include <algorithm>
#include <deque>
#include <exception>
#include <list>
#include <map>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "core/platform/linux/system.h"
#include "core/platform/process.h"
#include "core/types/mutex.h"

namespace velmora::platform {
namespace {

constexpr size_t kMaxThreads = 500;
constexpr std::chrono::seconds kIdleTime(10);

thread_local bool isPoolThread = false;

// Grows by a thread whenever a task waits and no thread is idle: tasks may block on other tasks of the same pool, which
// would deadlock a pool of fixed size. A thread that has had nothing to do for a while ends.
class ElasticPool final : public Pool {
public:
    ElasticPool() { noteThreads(); }

    // Runs what is queued, whatever the tasks add meanwhile included, and joins every thread.
    ~ElasticPool() override {
        const MutexLock lock(mutex_);
        ending_ = true;
        wake_.notifyAll();
        gone_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return threads_.empty(); });
    }

    void run(Task task) override {
        if (!tryRun(task)) throw std::bad_alloc();
    }

    // Leaves the task with the caller if neither memory nor a thread can be had for it.
    [[nodiscard]] bool tryRun(Task& task) noexcept {
        std::list<std::jthread> ended;  // joined once the mutex is free
        const MutexLock lock(mutex_);
        ended.swap(ended_);
        if (!enqueue(task)) return false;
        if (tasks_.size() > idle_ && threads_.size() < kMaxThreads) addThread();
        if (threads_.empty()) {
            task = std::move(tasks_.back());
            tasks_.pop_back();
            return false;
        }
        wake_.notifyOne();
        return true;
    }

private:
    using ThreadEntry = std::list<std::jthread>::iterator;

    bool enqueue(Task& task) noexcept VELMORA_REQUIRES(mutex_) {
        try {
            tasks_.push_back(std::move(task));
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    // Without effect if the system refuses: the threads that are there will come to the task.
    void addThread() noexcept VELMORA_REQUIRES(mutex_) {
        try {
            std::list<std::jthread> added(1);
            const ThreadEntry entry = added.begin();
            *entry = std::jthread([this, entry] { work(entry); });
            threads_.splice(threads_.end(), added);
        } catch (const std::exception&) {
        }
    }

    void work(ThreadEntry self) {
        isPoolThread = true;
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
    std::list<std::jthread> threads_ VELMORA_GUARDED_BY(mutex_);
    size_t idle_ VELMORA_GUARDED_BY(mutex_) = 0;
    bool ending_ VELMORA_GUARDED_BY(mutex_) = false;
    std::list<std::jthread> ended_ VELMORA_GUARDED_BY(mutex_);  // last: joins those that have left their work
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
        if (ending_) return;
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
        isPoolThread = true;
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

    // A body that the pool has no thread for runs here: late timers are better than a lost one.
    void runEarliest() VELMORA_REQUIRES(mutex_) {
        Task task = std::move(due_.begin()->second);
        due_.erase(due_.begin());
        mutex_.unlock();
        if (!pool_.tryRun(task)) task();
        task = nullptr;  // as in the pool
        mutex_.lock();
    }

    Mutex mutex_;
    Condition changed_;
    std::multimap<Clock::time_point, Task> due_ VELMORA_GUARDED_BY(mutex_);
    bool ending_ VELMORA_GUARDED_BY(mutex_) = false;
    std::thread waiter_;  // started with the first timer, under the mutex
    ElasticPool pool_;    // last: the bodies that it finishes at its end may set timers
};

// Ends what it owns with the process, unless that would wait in vain.
template <typename Owned>
class ProcessOwned {
public:
    ProcessOwned() : owned_(new Owned) {}
    ~ProcessOwned() {
        if (canAwaitPools()) delete owned_;
    }
    ProcessOwned(const ProcessOwned&) = delete;
    ProcessOwned& operator=(const ProcessOwned&) = delete;

    [[nodiscard]] Owned& get() const noexcept { return *owned_; }

private:
    Owned* const owned_;
};

}  // namespace

Pool& defaultPool() {
    static const ProcessOwned<ElasticPool> pool;
    return pool.get();
}

Timer& defaultTimer() {
    static const ProcessOwned<WaitingTimer> timer;
    return timer.get();
}

bool canAwaitPools() noexcept { return !isTerminating() && !isPoolThread; }

}  // namespace velmora::platform
