// The two frames that end an exception: at the C interface, where it becomes a number, and around work that has no
// caller to tell (tasks, timers, destructors), where it is logged and swallowed. Both log at level error on channel
// "utils".
#pragma once

#include <exception>
#include <functional>
#include <system_error>
#include <utility>

namespace velmora {

// For use inside a catch clause: logs the exception in flight under the given function name, and returns the number
// that the C interface reports for it: the value of a "velmora_error" code, 1 for everything else.
int reportCurrentException(const char* function) noexcept;

// The same, logged on another channel, as an error code: that of a std::system_error, `unknown` for everything else.
std::error_code currentExceptionToErrorCode(const char* channel, const char* function) noexcept;

// The number that the C interface reports for a code: 0 for none, the value of a "velmora_error" code, 1 for any other.
int toVelmoraError(const std::error_code& code) noexcept;

// 0 if the callable returns, else the number of the exception that it threw.
template <typename Callable>
int exceptionToVelmoraError(Callable&& callable) noexcept {
    try {
        std::invoke(std::forward<Callable>(callable));
        return 0;
    } catch (...) {
        return reportCurrentException("velmora::exceptionToVelmoraError");
    }
}

template <typename Callable>
void exceptionSafeWrapper(Callable&& callable) noexcept {
    try {
        std::invoke(std::forward<Callable>(callable));
    } catch (...) {
        reportCurrentException("velmora::exceptionSafeWrapper");
    }
}

}  // namespace velmora
