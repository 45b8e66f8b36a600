// The frame of every exported function: arguments are checked, a failed check is logged on channel "api" and thrown as
// a code, and nothing leaves as an exception.
#pragma once

#include <sstream>
#include <system_error>

#include "core/json/jsontext.h"
#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora {

// Runs the body of an export; the result is what the export returns.
template <typename Body>
[[nodiscard]] int32_t runEntry(Body&& body) noexcept {
    return exceptionToVelmoraError(std::forward<Body>(body));
}

// How messages show a text argument.
[[nodiscard]] inline const char* shown(const char* text) noexcept { return text != nullptr ? text : "(nullptr)"; }

// Refuses an argument: one message at level error, and the code thrown, whether or not the message could be written.
template <typename... Parts>
[[noreturn]] void refuse(VelmoraError code, const char* function, const Parts&... message) {
    try {
        if (logs(LogLevel::error)) {
            LogStatement statement(LogLevel::error, "api", function, __FILE__, __LINE__);
            (statement.stream() << ... << message);
        }
    } catch (...) {
        // The check's code is what counts.
    }
    throw std::system_error(code);
}

inline void requireText(const char* text, const char* function, const char* message) {
    if (text == nullptr || *text == '\0') refuse(VelmoraError::invalid_argument, function, message, shown(text));
}

}  // namespace velmora
