#include "core/platform/pool.h"

#include <windows.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "core/platform/process.h"
#include "core/platform/windows/system.h"

namespace velmora::platform {
namespace {

thread_local bool isPoolThread = false;  // the threads are the private pools' own

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

private:
    void close() noexcept {
        if (group_ != nullptr) ::CloseThreadpoolCleanupGroup(group_);
        if (pool_ != nullptr) ::CloseThreadpool(pool_);
    }

    PTP_POOL pool_;
    PTP_CLEANUP_GROUP group_;
    TP_CALLBACK_ENVIRON environment_{};
};

void runTask(void* block) noexcept {
    isPoolThread = true;
    const std::unique_ptr<Task> task(static_cast<Task*>(block));
    (*task)();
}

void CALLBACK runWork(PTP_CALLBACK_INSTANCE, void* block, PTP_WORK work) noexcept {
    runTask(block);
    ::CloseThreadpoolWork(work);
}

// The timer object itself stays in the group until the end.
void CALLBACK runTimer(PTP_CALLBACK_INSTANCE, void* block, PTP_TIMER) noexcept { runTask(block); }

class WorkPool final : public Pool {
public:
    void run(Task task) override {
        auto block = std::make_unique<Task>(std::move(task));
        const PTP_WORK work = ::CreateThreadpoolWork(&runWork, block.get(), pool_.environment());
        if (work == nullptr) throw std::bad_alloc();
        static_cast<void>(block.release());
        ::SubmitThreadpoolWork(work);
    }

private:
    PrivatePool pool_;
};

class WallClockTimer final : public Timer {
public:
    void runAfter(std::chrono::milliseconds delay, Task task) override {
        auto block = std::make_unique<Task>(std::move(task));
        const PTP_TIMER timer = ::CreateThreadpoolTimer(&runTimer, block.get(), pool_.environment());
        if (timer == nullptr) throw std::bad_alloc();
        static_cast<void>(block.release());
        FILETIME due = dueTime(delay);
        ::SetThreadpoolTimer(timer, &due, 0, 0);
    }

private:
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
};

}  // namespace

Pool& defaultPool() {
    static WorkPool pool;
    return pool;
}

Timer& defaultTimer() {
    static WallClockTimer timer;
    return timer;
}

bool canAwaitPools() noexcept { return !isTerminating() && !isPoolThread; }

}  // namespace velmora::platform
