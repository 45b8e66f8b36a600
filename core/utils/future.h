// Futures: a value or an exception that a task will produce. There is no blocking get but waitForFuture,
// which logs what it waits for.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/types/function.h"
#include "core/types/mutex.h"
#include "core/utils/gate.h"

namespace velmora {

enum class FutureErrorCode { broken_promise = 1, reduction_failed = 2, no_state = 3 };

// what() is a null pointer for a code outside the enumeration.
class future_error : public std::logic_error {
public:
    explicit future_error(FutureErrorCode code) : std::logic_error(""), code_(code) {}
    FutureErrorCode code() const noexcept { return code_; }
    const char* what() const noexcept override {
        switch (code_) {
            case FutureErrorCode::broken_promise:
                return "broken promise";
            case FutureErrorCode::reduction_failed:
                return "reduction failed";
            case FutureErrorCode::no_state:
                return "no state";
        }
        return nullptr;
    }

private:
    FutureErrorCode code_;
};

// Shared by a future, the package that produces its value, and the continuations. Threads: any.
template <typename T>
class FutureState {
public:
    using Executor = std::function<void(Task)>;

    void setValue(T value) { complete(std::move(value), nullptr); }
    void setException(std::exception_ptr exception) { complete(std::nullopt, std::move(exception)); }

    bool isReady() const noexcept { return ready_; }

    // Runs the task on the executor once the state is ready, at once if it is; in the order of attachment.
    void attach(Executor executor, Task task) VELMORA_EXCLUDES(mutex_) {
        {
            const MutexLock lock(mutex_);
            if (!ready_) {
                continuations_.emplace_back(std::move(executor), std::move(task));
                return;
            }
        }
        executor(std::move(task));
    }

    // Whether the state is ready, at the latest at the deadline.
    bool awaitUntil(Gate::Clock::time_point deadline) VELMORA_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        return becameReady_.waitUntil(mutex_, deadline, [this] { return ready_.load(); });
    }

    // Nothing while not ready; else the value, or the stored exception rethrown.
    std::optional<T> getTry() {
        if (!ready_) return std::nullopt;
        const MutexLock lock(mutex_);
        if (exception_) std::rethrow_exception(exception_);
        return value_;
    }

private:
    void complete(std::optional<T> value, std::exception_ptr exception) VELMORA_EXCLUDES(mutex_) {
        std::vector<std::pair<Executor, Task>> waiting;
        {
            const MutexLock lock(mutex_);
            if (ready_) return;
            value_ = std::move(value);
            exception_ = std::move(exception);
            ready_ = true;
            becameReady_.notifyAll();
            waiting.swap(continuations_);
        }
        for (auto& [executor, task] : waiting) executor(std::move(task));
    }

    Mutex mutex_;
    Condition becameReady_;
    std::atomic<bool> ready_ = false;  // written under the mutex, read without it
    std::optional<T> value_ VELMORA_GUARDED_BY(mutex_);
    std::exception_ptr exception_ VELMORA_GUARDED_BY(mutex_);
    std::vector<std::pair<Executor, Task>> continuations_ VELMORA_GUARDED_BY(mutex_);
};

template <typename T>
class future {
public:
    future() = default;
    explicit future(std::shared_ptr<FutureState<T>> state) : state_(std::move(state)) {}

    bool isReady() const { return state().isReady(); }
    bool awaitUntil(Gate::Clock::time_point deadline) const { return state().awaitUntil(deadline); }
    std::optional<T> get_try() const { return state().getTry(); }
    void then(typename FutureState<T>::Executor executor, Task task) const {
        state().attach(std::move(executor), std::move(task));
    }

private:
    FutureState<T>& state() const {
        if (!state_) throw future_error(FutureErrorCode::no_state);
        return *state_;
    }

    std::shared_ptr<FutureState<T>> state_;
};

// The callable side of a package: runs the function once, on the calling thread, and stores what comes of it. When the
// last handle goes unrun, the future gets "broken promise".
template <typename T>
class PackagedTask {
public:
    template <typename Function>
    PackagedTask(std::shared_ptr<FutureState<T>> state, Function function)
        : promise_(std::make_shared<Promise>(std::move(state), std::move(function))) {}

    void operator()() { promise_->run(); }

private:
    struct Promise {
        Promise(std::shared_ptr<FutureState<T>> s, UniqueFunction<T()> f)
            : state(std::move(s)), function(std::move(f)) {}
        Promise(const Promise&) = delete;
        Promise& operator=(const Promise&) = delete;
        ~Promise() {
            if (function) {
                state->setException(std::make_exception_ptr(future_error(FutureErrorCode::broken_promise)));
            }
        }
        void run() {
            UniqueFunction<T()> once = std::exchange(function, nullptr);
            try {
                state->setValue(once());
            } catch (...) {
                state->setException(std::current_exception());
            }
        }
        std::shared_ptr<FutureState<T>> state;
        UniqueFunction<T()> function;
    };

    std::shared_ptr<Promise> promise_;
};

template <typename T, typename Function>
std::pair<PackagedTask<T>, future<T>> package(Function function) {
    auto state = std::make_shared<FutureState<T>>();
    return {PackagedTask<T>(state, UniqueFunction<T()>(std::move(function))), future<T>(state)};
}

template <typename T>
future<T> make_ready_future(T value) {
    auto [task, result] = package<T>([value = std::move(value)]() mutable { return std::move(value); });
    task();
    return result;
}

// Waits by waitFor; rethrows the future's exception, or returns its value, or `defaultResult` after a timeout.
template <typename T>
T waitForFuture(const future<T>& awaited, T defaultResult, const std::string& what, int64_t timeoutMs = kNoTimeout) {
    waitFor([&](Gate::Clock::time_point deadline) { return awaited.awaitUntil(deadline); }, what, timeoutMs);
    std::optional<T> value = awaited.get_try();
    return value ? std::move(*value) : std::move(defaultResult);
}

}  // namespace velmora
