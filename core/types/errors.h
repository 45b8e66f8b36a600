// The error domains of the library, and the frames in which an exception ends. Inside the library a failure is a
// std::system_error whose code belongs to one of the domains; only the C interface turns codes into numbers. Two codes
// of one domain compare by the identity of the category object.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <system_error>
#include <utility>

namespace velmora {

// What the C interface reports; the numbers are those of velmora_result.
enum class VelmoraError : int32_t {
    none = 0,
    unknown = 1,
    invalid_json = 2,
    invalid_event_format = 3,
    invalid_argument = 4,
    oswin_unauthorized = 5,
    disk_full = 6,
    http_callback_not_set = 7,
    http_session_creation_failed = 8,
    http_session_request_failed = 9,
    iaas_file_not_found_or_not_readable = 10,
    iaas_file_empty = 11,
    iaas_file_invalid_format = 12,
    iaas_no_rule_matched = 13,
    ingest_instance_not_found = 14,
    event_too_big = 15,
    cache_lock_error = 16,
    timeout = 17,
    precondition_failed = 18,
    oswin_error = 19,
    selby_bad_request = 20,
    selby_error = 21,
    opt_out = 22,
};

// Outcome of an exchange below HTTP; the numbers are those of velmora_http_result.
enum class VelmoraHttpError : int32_t {
    none = 0,
    unknown = 1,
    invalid_input = 2,
    cancel_ignored = 3,
    cancelled = 4,
    retriable = 5,
    non_retriable = 6,
    offline = 7,
};

// The disk queue.
enum class FQError : int32_t { none = 0, file_open_failed = 1, file_limit_exceeded = 2, file_corrupt = 3 };

// JSON parsing. 0 to 17 are RapidJSON's numbers; 18 means that a parse handler threw.
enum class JsonError : int32_t { none = 0, exception_thrown = 18 };

const std::error_category& velmoraCategory() noexcept;      // "velmora_error"
const std::error_category& velmoraHttpCategory() noexcept;  // "velmora_http_error"
const std::error_category& fqCategory() noexcept;           // "fq_error"
const std::error_category& jsonCategory() noexcept;         // "json_error"

inline std::error_code make_error_code(VelmoraError e) noexcept { return {static_cast<int>(e), velmoraCategory()}; }
inline std::error_code make_error_code(VelmoraHttpError e) noexcept {
    return {static_cast<int>(e), velmoraHttpCategory()};
}
inline std::error_code make_error_code(FQError e) noexcept { return {static_cast<int>(e), fqCategory()}; }
inline std::error_code make_error_code(JsonError e) noexcept { return {static_cast<int>(e), jsonCategory()}; }

// Thrown by the disk queue with a code of "fq_error".
class FQException : public std::system_error {
public:
    using std::system_error::system_error;
};

// The form in which log lines show a code: "velmora_error:4".
std::string toString(const std::error_code& code);

// The two frames that end an exception: at the C interface, where it becomes a number, and around work that has no
// caller to tell (tasks, timers, destructors), where it is logged and swallowed. Both log at level error on channel
// "utils".

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

template <>
struct std::is_error_code_enum<velmora::VelmoraError> : std::true_type {};
template <>
struct std::is_error_code_enum<velmora::VelmoraHttpError> : std::true_type {};
template <>
struct std::is_error_code_enum<velmora::FQError> : std::true_type {};
template <>
struct std::is_error_code_enum<velmora::JsonError> : std::true_type {};
