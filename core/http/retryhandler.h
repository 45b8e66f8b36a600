// Decides, for one logical request, whether a failed response is retried and how long to wait first. The wait and the
// retry are done by a callback of the owner, which has the final word. Used on the owner's serial engine only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <system_error>

#include "core/http/message.h"

namespace velmora::http {

class RetryHandler {
public:
    // `delay` is what the response asks for, else 0; `attempt` counts from 0. True: the retry is under way.
    using RetryCallback = std::function<bool(std::chrono::milliseconds delay, uint32_t attempt)>;

    // 408, 429, 500, 502, 503 and 504 are retriable from the start.
    explicit RetryHandler(RetryCallback retry);

    void addRetriable(std::error_code error) { retriable_.insert(error); }

    // False for a response without an error, for an error that is not retriable, and if the callback refuses. Raises
    // std::bad_function_call for an empty callback.
    [[nodiscard]] bool shouldRetry(const Response& response);

private:
    uint32_t attempt_ = 0;
    std::set<std::error_code> retriable_;
    RetryCallback retry_;
};

}  // namespace velmora::http
