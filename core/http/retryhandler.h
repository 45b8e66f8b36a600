// Decides, for one logical request, whether a failed response is retried and how long to wait first. The wait and the
// retry are done by a callback of the owner, which has the final word and sets the limit, if there is one.
//
// Holds the count of the retries; a new logical request takes a new handler. Used on the owner's serial engine only.
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

    // 408, 429, 500, 502, 503 and 504 are retriable from the start: a service that is overloaded or away. What happens
    // on the way to it is for the owner to add.
    explicit RetryHandler(RetryCallback retry);

    void addRetriable(std::error_code error) { retriable_.insert(error); }

    // Asks the callback, and counts the attempt once that has agreed. False for a response without an error, for an
    // error that is not retriable, and if the callback refuses: the response is final then. Raises
    // std::bad_function_call for an empty callback.
    [[nodiscard]] bool shouldRetry(const Response& response);

private:
    uint32_t attempt_ = 0;  // retries so far
    std::set<std::error_code> retriable_;
    RetryCallback retry_;
};

}  // namespace velmora::http
