#include "core/platform/pool.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <memory>
#include <new>
#include <utility>

#include "core/platform/process.h"
#include "core/platform/windows/system.h"
#include "core/types/mutex.h"

namespace velmora::platform {
namespace {

using Deadline = std::chrono::steady_clock::time_point;

thread_local bool isPoolThread = false;  // the threads are the private pools' own
std::atomic<bool> abandoned = false;     // set once, by whoever ends the process

// One private pool of the system with a group of everything that runs on it, so that its end can wait for that.
class PrivatePool {
public:
    PrivatePool() : pool_(::CreateThreadpool(nullptr)), group_(::CreateThreadpoolCleanupGroup()) {
        if (pool_ == nullptr || group_ == nullptr) {
            close();
            throw std::bad_alloc();
        }
        ::InitializeThreadpoolEnvironment(&environment_);
        ::SetThreadpoolCallbackPool(&environment_, pool_);
        ::SetThreadpoolCallbackCleanupGroup(&environment_, group_, nullptr);
    }

    // A process that is being taken down has lost its threads already; what they held would be waited for in vain.
    ~PrivatePool() {
        if (!canAwaitPools()) return;
        ::CloseThreadpoolCleanupGroupMembers(group_, FALSE, nullptr);
        close();
    }
    PrivatePool(const PrivatePool&) = delete;
    PrivatePool& operator=(const PrivatePool&) = delete;

    PTP_CALLBACK_ENVIRON environment() noexcept { return &environment_; }

    // Counts what has been handed over and has not come back.
    void begin() {
        const MutexLock lock(mutex_);
        ++underWay_;
    }
    void end() {
        const MutexLock lock(mutex_);
        if (--underWay_ == 0) idle_.notifyAll();
    }

    // Whether everything has come back at the deadline; then no thread is inside the library any more.
    [[nodiscard]] bool awaitIdle(Deadline deadline) {
        {
            const MutexLock lock(mutex_);
            if (!idle_.waitUntil(mutex_, deadline, [this]() VELMORA_REQUIRES(mutex_) { return underWay_ == 0; })) {
                return false;
            }
        }
        ::CloseThreadpoolCleanupGroupMembers(group_, FALSE, nullptr);  // waits for the last steps of callbacks
        return true;
    }

private:
    void close() noexcept {
        if (group_ != nullptr) ::CloseThreadpoolCleanupGroup(group_);
        if (pool_ != nullptr) ::CloseThreadpool(pool_);
    }

    PTP_POOL pool_;
    PTP_CLEANUP_GROUP group_;
    TP_CALLBACK_ENVIRON environment_{};
    Mutex mutex_;
    Condition idle_;
    size_t underWay_ VELMORA_GUARDED_BY(mutex_) = 0;
};

class WorkPool final : public Pool {
public:
    void run(Task task) override {
        auto block = std::make_unique<Block>(Block{*this, std::move(task)});
        const PTP_WORK work = ::CreateThreadpoolWork(&runWork, block.get(), pool_.environment());
        if (work == nullptr) throw std::bad_alloc();
        static_cast<void>(block.release());
        pool_.begin();
        ::SubmitThreadpoolWork(work);
    }

    [[nodiscard]] bool awaitIdle(Deadline deadline) { return pool_.awaitIdle(deadline); }

private:
    struct Block {
        WorkPool& owner;
        Task task;
    };

    static void CALLBACK runWork(PTP_CALLBACK_INSTANCE, void* context, PTP_WORK work) noexcept {
        isPoolThread = true;
        std::unique_ptr<Block> block(static_cast<Block*>(context));
        PrivatePool& pool = block->owner.pool_;
        block->task();
        block = nullptr;
        ::CloseThreadpoolWork(work);
        pool.end();
    }

    PrivatePool pool_;
};

// A timer is in the list until it begins or is forgotten; whoever takes it out of there closes it.
class WallClockTimer final : public Timer {
public:
    void runAfter(std::chrono::milliseconds delay, const void* owner, Task task) override {
        std::list<Entry> added;
        added.push_back(Entry{*this, owner, std::move(task)});
        Entry& entry = added.front();
        entry.timer = ::CreateThreadpoolTimer(&runTimer, &entry, pool_.environment());
        if (entry.timer == nullptr) throw std::bad_alloc();
        FILETIME due = dueTime(delay);
        const MutexLock lock(mutex_);
        entry.self = added.begin();
        pending_.splice(pending_.end(), added);
        ::SetThreadpoolTimer(entry.timer, &due, 0, 0);
    }

    void forget(const void* owner) noexcept override {
        dropIf([owner](const Entry& entry) { return entry.owner == owner; });
    }

    // Drops what is not yet due; whether everything else has come back at the deadline.
    [[nodiscard]] bool awaitIdle(Deadline deadline) {
        dropIf([](const Entry&) { return true; });
        return pool_.awaitIdle(deadline);
    }

private:
    struct Entry {
        WallClockTimer& timers;
        const void* owner;
        Task task;
        PTP_TIMER timer = nullptr;
        std::list<Entry>::iterator self{};
        bool forgotten = false;
    };

    static void CALLBACK runTimer(PTP_CALLBACK_INSTANCE, void* context, PTP_TIMER timer) noexcept {
        isPoolThread = true;
        auto& entry = *static_cast<Entry*>(context);
        WallClockTimer& timers = entry.timers;
        std::list<Entry> begun;
        {
            const MutexLock lock(timers.mutex_);
            if (entry.forgotten) return;
            begun.splice(begun.end(), timers.pending_, entry.self);
            timers.pool_.begin();
        }
        entry.task();
        begun.clear();
        ::CloseThreadpoolTimer(timer);
        timers.pool_.end();
    }

    template <typename Predicate>
    void dropIf(Predicate isWanted) noexcept {
        std::list<Entry> dropped;
        {
            const MutexLock lock(mutex_);
            for (auto entry = pending_.begin(); entry != pending_.end();) {
                const auto next = std::next(entry);
                if (isWanted(*entry)) {
                    entry->forgotten = true;
                    dropped.splice(dropped.end(), pending_, entry);
                }
                entry = next;
            }
        }
        for (Entry& entry : dropped) {
            ::SetThreadpoolTimer(entry.timer, nullptr, 0, 0);
            ::WaitForThreadpoolTimerCallbacks(entry.timer, TRUE);  // one that has just begun sees that it is forgotten
            ::CloseThreadpoolTimer(entry.timer);
        }
    }

    // Positive, and so a point on the wall clock. Delays reach from "never" to "long ago": both ends are held within
    // what the clock can express.
    static FILETIME dueTime(std::chrono::milliseconds delay) noexcept {
        constexpr int64_t kTicksPerMillisecond = kTicksPerSecond / 1000;
        constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365 * 100);
        FILETIME now{};
        ::GetSystemTimeAsFileTime(&now);
        const auto bounded = std::clamp(delay, std::chrono::milliseconds(0), kLongest);
        return toFileTime(toTicks(now) + bounded.count() * kTicksPerMillisecond);
    }

    PrivatePool pool_;
    Mutex mutex_;
    std::list<Entry> pending_ VELMORA_GUARDED_BY(mutex_);
};

WorkPool& systemPool() {
    static WorkPool pool;
    return pool;
}

WallClockTimer& systemTimer() {
    static WallClockTimer timer;
    return timer;
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
        if (!systemTimer().awaitIdle(deadline) || !systemPool().awaitIdle(deadline)) return false;
    }
    return true;
}

}  // namespace velmora::platform
