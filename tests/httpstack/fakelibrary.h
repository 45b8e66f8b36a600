// A stand-in for the library's side of http.h: it keeps the callbacks that a stack installs, sends through them, and
// records what the stack reports. Misuse by the stack (a report after the end, a body before the status) is a failure.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "velmora/http.h"

namespace velmora::test {

class FakeExchange {
public:
    FakeExchange() = default;
    FakeExchange(std::vector<std::pair<std::string, std::string>> headers, std::string body)
        : requestHeaders(std::move(headers)), requestBody(std::move(body)) {}

    // Sends through the installed callback; its result.
    int32_t send(int32_t verb, const std::string& url);
    int32_t cancel() const;

    // True if the completion came within the limit.
    bool waitForEnd(std::chrono::microseconds limit = std::chrono::seconds(20));

    std::vector<std::pair<std::string, std::string>> requestHeaders;
    std::string requestBody;
    uint32_t requestId = 0;

    std::mutex mutex;
    std::condition_variable changed;
    uint32_t status = 0;
    std::string reason;
    std::map<std::string, std::string> responseHeaders;
    std::string responseBody;
    uint32_t result = 0xFFFFFFFF;
    std::string message;
    int completions = 0;
    std::string misuse;
};

// The installed callbacks; null when removed.
bool hasCallbacks();

}  // namespace velmora::test
