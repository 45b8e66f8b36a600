// Runs an action at the end of its scope, also when an exception leaves it. The action must not throw.
#pragma once

#include <utility>

namespace velmora {

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
