#include "core/http/retryhandler.h"

#include <algorithm>
#include <utility>

#include "core/types/logger.h"

namespace velmora::http {
namespace {

// In 32 bits: a value too big for them wraps, and counts as none where that leaves nothing above 0.
std::chrono::milliseconds requestedDelay(const Response& response) {
    const auto delay = static_cast<int32_t>(static_cast<uint32_t>(response.getRetryAfter()) * 1000u);
    return std::chrono::milliseconds(std::max(delay, 0));
}

}  // namespace

RetryHandler::RetryHandler(RetryCallback retry) : retry_(std::move(retry)) {
    for (const int status : {408, 429, 500, 502, 503, 504}) addRetriable(static_cast<Status>(status));
}

bool RetryHandler::shouldRetry(const Response& response) {
    if (!response.error) return false;
    if (retriable_.count(response.error) == 0) return false;
    if (retry_(requestedDelay(response), attempt_)) {
        ++attempt_;
        return true;
    }
    VELMORA_LOG(info, "http") << "Cancelled during wait before retry, erroring out";
    return false;
}

}  // namespace velmora::http
