// The two sides of an HTTP exchange, as values, and the judgement on its status.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <system_error>

#include "core/json/jsonparser.h"

namespace velmora::http {

// Holds the number itself; any number is allowed, 0 means that none came. Only those that the library decides by have a
// name here.
enum class Status : int32_t { None = 0, Ok = 200, BadRequest = 400, Unauthorized = 401, Forbidden = 403 };

// Prints the number, a blank and the name: "200 Ok"; the name of a number without one is "unknown".
std::ostream& operator<<(std::ostream& out, Status status);

// "http_error": what a service has answered, as opposed to what has happened on the way to it. Its messages know 0 and
// the 4xx and 5xx numbers.
const std::error_category& httpCategory() noexcept;

inline std::error_code make_error_code(Status status) noexcept { return {static_cast<int>(status), httpCategory()}; }

[[nodiscard]] bool isHttpError(const std::error_code& error) noexcept;    // http_error, 400 to 599
[[nodiscard]] bool isForbidden(const std::error_code& error) noexcept;    // http_error, 403
[[nodiscard]] bool isServerError(const std::error_code& error) noexcept;  // http_error, at least 500

// What the status of a completed exchange says: no error for 2xx; the "http_error" of that number for 400 to 599; for
// everything else, such as a redirect that nobody has followed or no status at all, `retriable` of the transport's
// domain, with a warning: such an answer did not come from the service.
[[nodiscard]] std::error_code judgeStatus(int status);

}  // namespace velmora::http

template <>
struct std::is_error_code_enum<velmora::http::Status> : std::true_type {};

namespace velmora::http {

enum class Verb : int32_t { GET = 0, POST = 1 };
std::ostream& operator<<(std::ostream& out, Verb verb);

struct ci_map_traits {
    // Orders keys by their lower-case (ASCII) form.
    struct comp {
        bool operator()(const std::string& a, const std::string& b) const;
    };
};

// A key keeps the spelling with which it was first put in; of several headers of one name the last one counts.
using Headers = std::map<std::string, std::string, ci_map_traits::comp>;

// What is to be sent. A value; constant once a transfer has it.
struct Request {
    std::string url;  // absolute, with its scheme
    Verb verb = Verb::GET;
    Headers headers;   // a header that does not fit the host's record is left out
    std::string body;  // bytes
};

// What has come, also where it broke off. `error` says what became of the exchange as a whole, and is the first thing
// to look at: only without one does the body have a meaning.
struct Response {
    int32_t status = 0;  // 0 when none came
    Headers headers;
    std::string body;       // bytes
    std::error_code error;  // of the transport, or httpCategory() for 400 to 599

    // The header "retry-after" in whole seconds: 0 without the header, -1 if it is no number (a date, for instance).
    [[nodiscard]] int getRetryAfter() const;
};

// Reads the body of a response without an error into `record`, with a Parser, a JsonDefaultParser that is made from a
// Record&. The response's own error, or the parser's.
template <typename Parser, typename Record>
[[nodiscard]] std::error_code parseBody(const Response& response, Record& record) {
    return response.error ? response.error : JsonParser::parse(response.body, std::make_shared<Parser>(record));
}

// Base and path with exactly one "/" between them, whether or not they bring their own.
[[nodiscard]] std::string joinUrl(const std::string& base, const std::string& path);

}  // namespace velmora::http
