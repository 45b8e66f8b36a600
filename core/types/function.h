// Callables that are kept: until somebody runs them, or until a scope ends.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace velmora {

// A move-only std::function: what it holds need not be copyable, so that a task can own what it works on.
template <typename Signature>
class UniqueFunction;

template <typename Result, typename... Args>
class UniqueFunction<Result(Args...)> {
public:
    UniqueFunction() noexcept = default;
    UniqueFunction(std::nullptr_t) noexcept {}

    template <typename Callable>
    requires(!std::is_same_v<std::decay_t<Callable>, UniqueFunction> &&
             std::is_invocable_r_v<Result, std::decay_t<Callable>&, Args...>) UniqueFunction(Callable&& callable)
        : callable_(std::make_unique<Holder<std::decay_t<Callable>>>(std::forward<Callable>(callable))) {}

    explicit operator bool() const noexcept { return callable_ != nullptr; }

    // Raises std::bad_function_call if it holds nothing.
    Result operator()(Args... args) {
        if (!callable_) throw std::bad_function_call();
        return callable_->invoke(std::forward<Args>(args)...);
    }

private:
    struct Base {
        virtual ~Base() = default;
        virtual Result invoke(Args&&... args) = 0;
    };

    template <typename Callable>
    struct Holder final : Base {
        explicit Holder(Callable&& callable) : held(std::move(callable)) {}
        explicit Holder(const Callable& callable) : held(callable) {}
        Result invoke(Args&&... args) override { return std::invoke(held, std::forward<Args>(args)...); }
        Callable held;
    };

    std::unique_ptr<Base> callable_;
};

// What pools, timers and engines run: once, and without arguments.
using Task = UniqueFunction<void()>;

// Runs an action at the end of its scope, also when an exception leaves it. The action must not throw.
template <typename Action>
class [[nodiscard]] ScopeExit {
public:
    explicit ScopeExit(Action action) : action_(std::move(action)) {}
    ~ScopeExit() { action_(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    Action action_;
};

}  // namespace velmora
