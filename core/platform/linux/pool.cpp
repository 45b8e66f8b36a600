#include "core/platform/pool.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <deque>
#include <exception>
#include <list>
#include <map>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "core/platform/linux/system.h"
#include "core/platform/process.h"
#include "core/types/mutex.h"

namespace velmora::platform {
namespace {

using Deadline = std::chrono::steady_clock::time_point;

constexpr size_t kMaxThreads = 500;
constexpr std::chrono::seconds kIdleTime(10);

thread_local bool isPoolThread = false;
std::atomic<bool> abandoned = false;  // set once, by whoever ends the process

// Threads that are started within the scope leave all signals to the host's, but those that a fault of their own
// raises.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) ::sigdelset(&all, fault);
        ::pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

// Grows by a thread whenever a task waits and no thread is idle: tasks may block on other tasks of the same pool, which
// would deadlock a pool of fixed size. A thread that has had nothing to do for a while ends.
class ElasticPool final : public Pool {
public:
    ElasticPool() = default;

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

    // Runs what is queued and joins every thread; false if some have not ended at the deadline. A later task starts
    // threads again.
    [[nodiscard]] bool endThreads(Deadline deadline) {
        std::list<std::jthread> ended;
        const MutexLock lock(mutex_);
        ending_ = true;
        wake_.notifyAll();
        const bool gone =
            gone_.waitUntil(mutex_, deadline, [this]() VELMORA_REQUIRES(mutex_) { return threads_.empty(); });
        ending_ = false;
        ended.swap(ended_);
        return gone;
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
            noteThreads();
            const SignalsBlocked blocked;
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

    ~WaitingTimer() override { static_cast<void>(endWaiter(std::nullopt)); }

    void runAfter(std::chrono::milliseconds delay, const void* owner, Task task) override {
        const MutexLock lock(mutex_);
        if (ending_) return;
        startWaiter();
        due_.emplace(dueTime(delay), Entry{owner, std::move(task)});
        changed_.notifyAll();
    }

    void forget(const void* owner) noexcept override {
        Entries forgotten;  // destroyed once the mutex is free
        const MutexLock lock(mutex_);
        for (auto entry = due_.begin(); entry != due_.end();) {
            const auto next = std::next(entry);
            if (entry->second.owner == owner) forgotten.insert(due_.extract(entry));
            entry = next;
        }
    }

    // Drops what is not yet due and joins every thread; false if some have not ended at the deadline.
    [[nodiscard]] bool endThreads(Deadline deadline) { return endWaiter(deadline) && pool_.endThreads(deadline); }

private:
    using Clock = std::chrono::system_clock;
    struct Entry {
        const void* owner;
        Task task;
    };
    using Entries = std::multimap<Clock::time_point, Entry>;

    // Without a deadline for good. The waiter may be in a body that the pool had no thread for.
    bool endWaiter(std::optional<Deadline> deadline) {
        Entries dropped;     // destroyed, like
        std::jthread ended;  // the thread, once the mutex is free
        const MutexLock lock(mutex_);
        dropped.swap(due_);
        ending_ = true;
        changed_.notifyAll();
        const auto isGone = [this]() VELMORA_REQUIRES(mutex_) { return !waiting_; };
        if (!deadline) gone_.wait(mutex_, isGone);
        const bool gone = !deadline || gone_.waitUntil(mutex_, *deadline, isGone);
        if (gone) ended = std::move(waiter_);
        ending_ = !deadline;
        return gone;
    }

    // Delays reach from "never" to "long ago": both ends are held within what the clock can express.
    static Clock::time_point dueTime(std::chrono::milliseconds delay) {
        constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365 * 100);
        return Clock::now() + std::min(std::max(delay, std::chrono::milliseconds(0)), kLongest);
    }

    void startWaiter() VELMORA_REQUIRES(mutex_) {
        if (waiting_) return;
        try {
            noteThreads();
            const SignalsBlocked blocked;
            waiter_ = std::jthread([this] { wait(); });
            waiting_ = true;
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
            changed_.waitUntil(mutex_, earliest, [&]() VELMORA_REQUIRES(mutex_) {
                return ending_ || due_.empty() || due_.begin()->first != earliest;
            });
        }
        waiting_ = false;
        gone_.notifyAll();
        mutex_.unlock();
    }

    // A body that the pool has no thread for runs here: late timers are better than a lost one.
    void runEarliest() VELMORA_REQUIRES(mutex_) {
        Task task = std::move(due_.begin()->second.task);
        due_.erase(due_.begin());
        mutex_.unlock();
        if (!pool_.tryRun(task)) task();
        task = nullptr;  // as in the pool
        mutex_.lock();
    }

    Mutex mutex_;
    Condition changed_;
    Condition gone_;
    Entries due_ VELMORA_GUARDED_BY(mutex_);
    bool ending_ VELMORA_GUARDED_BY(mutex_) = false;
    bool waiting_ VELMORA_GUARDED_BY(mutex_) = false;  // the waiter is there; it starts with the first timer
    std::jthread waiter_ VELMORA_GUARDED_BY(mutex_);
    ElasticPool pool_;  // last: the bodies that it finishes at its end may set timers
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

ElasticPool& systemPool() {
    static const ProcessOwned<ElasticPool> pool;
    return pool.get();
}

WaitingTimer& systemTimer() {
    static const ProcessOwned<WaitingTimer> timer;
    return timer.get();
}

}  // namespace

Pool& defaultPool() { return systemPool(); }

Timer& defaultTimer() { return systemTimer(); }

bool canAwaitPools() noexcept { return !abandoned && !isTerminating() && !isPoolThread; }

void abandonPools() noexcept { abandoned = true; }

bool awaitIdlePools(Deadline deadline) {
    if (!canAwaitPools()) return false;
    // Tasks set timers, and bodies of timers queue tasks: twice, so that what either adds to the other is gone, too.
    for (int round = 0; round < 2; ++round) {
        if (!systemTimer().endThreads(deadline) || !systemPool().endThreads(deadline)) return false;
    }
    noteNoThreads();
    return true;
}

}  // namespace velmora::platform
