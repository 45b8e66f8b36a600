// The two sides of an HTTP exchange, as values.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <system_error>

#include "core/http/httpstatus.h"

namespace velmora::http {

enum class Verb : int32_t { GET = 0, POST = 1 };
std::ostream& operator<<(std::ostream& out, Verb verb);

struct ci_map_traits {
    // Orders keys by their lower-case (ASCII) form.
    struct comp {
        bool operator()(const std::string& a, const std::string& b) const;
    };
};

// A key keeps the spelling with which it was first put in.
using Headers = std::map<std::string, std::string, ci_map_traits::comp>;

struct Request {
    std::string url;
    Verb verb = Verb::GET;
    Headers headers;
    std::string body;  // bytes
};

class Response {
public:
    // A status from 400 to 599 also sets the error, to that number of the "http_error" domain.
    void setStatus(int value);
    void setError(std::error_code value) { error = value; }
    void setHeader(const std::string& key, const std::string& value) { headers[key] = value; }
    [[nodiscard]] bool hasHeader(const std::string& key) const { return headers.count(key) != 0; }

    // Inserts the chunk at an offset that the body already reaches; a chunk behind a hole is dropped and logged.
    void addBodyChunk(uint64_t offset, const char* data, uint64_t length);

    // The header "retry-after" in whole seconds: 0 without the header, -1 if it is no number.
    [[nodiscard]] int getRetryAfter() const;

    int32_t status = 0;  // 0 when none came
    Headers headers;
    std::string body;  // bytes
    std::error_code error;
};

// Base and path with exactly one "/" between them.
[[nodiscard]] std::string joinUrl(const std::string& base, const std::string& path);

}  // namespace velmora::http
