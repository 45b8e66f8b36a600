// Marks the calling thread as being inside a callback of the host, so that a call which would wait for that very
// callback can be refused instead of hanging.
//
//     const CallbackScope scope(handle);
//     callback(handle, result, userData);
//
// Threads: a scope belongs to the thread that made it; scopes nest.
#pragma once

namespace velmora {

class CallbackScope {
public:
    // `owner` names on whose behalf the host is called: the handle of an instance, or null for the session.
    explicit CallbackScope(const void* owner) noexcept;
    ~CallbackScope();
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    // Whether the calling thread is inside a callback of that owner, or of any.
    [[nodiscard]] static bool isInside(const void* owner) noexcept;
    [[nodiscard]] static bool isInsideAny() noexcept;

private:
    const void* const owner_;
    const CallbackScope* const outer_;
};

}  // namespace velmora
