// HTTP status numbers, and the error domain "http_error" of those that are errors.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <system_error>

namespace velmora::http {

// Holds the number itself; any number is allowed, 0 means that none came.
enum class Status : int32_t { None = 0, Ok = 200, BadRequest = 400, Unauthorized = 401, Forbidden = 403 };

// Prints the number, a blank and the name: "200 Ok"; the name of a number without one is "unknown".
std::ostream& operator<<(std::ostream& out, Status status);

// "http_error". Its messages know 0 and the 4xx and 5xx numbers.
const std::error_category& httpCategory() noexcept;

inline std::error_code make_error_code(Status status) noexcept { return {static_cast<int>(status), httpCategory()}; }

[[nodiscard]] bool isHttpError(const std::error_code& error) noexcept;    // http_error, 400 to 599
[[nodiscard]] bool isForbidden(const std::error_code& error) noexcept;    // http_error, 403
[[nodiscard]] bool isServerError(const std::error_code& error) noexcept;  // http_error, at least 500

}  // namespace velmora::http

template <>
struct std::is_error_code_enum<velmora::http::Status> : std::true_type {};
