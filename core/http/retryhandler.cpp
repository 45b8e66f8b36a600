#include "core/http/retryhandler.h"

#include <utility>

#include "core/types/logger.h"

namespace velmora::http {
namespace {

// In 32 bits: a value too big for them wraps, and counts as none where that leaves nothing above 0.
std::chrono::milliseconds requestedDelay(const Response& response) {
    return std::chrono::milliseconds(static_cast<int32_t>(static_cast<uint32_t>(response.getRetryAfter()) * 1000u));
}

}  // namespace

RetryHandler::RetryHandler(uint32_t maxRetries, std::chrono::milliseconds defaultDelay, RetryCallback retry)
    : maxRetries_(maxRetries), defaultDelay_(defaultDelay), retry_(std::move(retry)) {
    for (const int status : {408, 429, 500, 502, 503, 504}) addRetriable(static_cast<Status>(status));
}

bool RetryHandler::shouldRetry(const Response& response) {
    if (!response.error) return false;
    std::chrono::milliseconds delay = requestedDelay(response);
    if (delay.count() <= 0) delay = defaultDelay_;
    if (retriable_.count(response.error) == 0) return false;
    if (retry_(delay, attempt_)) {
        ++attempt_;
        return true;
    }
    VELMORA_LOG(info, "http") << "Cancelled during wait before retry, erroring out";
    return false;
}

}  // namespace velmora::http
