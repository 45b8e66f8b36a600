#include "tests/httpstack/fakelibrary.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace velmora::test {
namespace {

std::atomic<velmora_http_new_session_callback> newSession{nullptr};
std::atomic<velmora_http_delete_session_callback> deleteSession{nullptr};
std::atomic<velmora_http_send_request_callback> sendRequest{nullptr};
std::atomic<velmora_http_cancel_request_callback> cancelRequest{nullptr};
std::atomic<void*> session{nullptr};

FakeExchange& exchangeOf(void* reportedSession, void* context) {
    auto& exchange = *static_cast<FakeExchange*>(context);
    if (reportedSession != session) exchange.misuse = "foreign session";
    if (exchange.completions > 0) exchange.misuse = "report after the completion";
    return exchange;
}

}  // namespace

bool hasCallbacks() {
    return newSession != nullptr && deleteSession != nullptr && sendRequest != nullptr && cancelRequest != nullptr;
}

int32_t FakeExchange::send(int32_t verb, const std::string& url) {
    session = newSession.load()();
    return sendRequest.load()(session, verb, url.c_str(), 2, this, &requestId);
}

int32_t FakeExchange::cancel() const { return cancelRequest.load()(session, requestId); }

bool FakeExchange::waitForEnd(std::chrono::microseconds limit) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, limit, [this] { return completions > 0; });
}

}  // namespace velmora::test

using namespace velmora::test;

int32_t velmora_http_setNewSessionCallback(velmora_http_new_session_callback callback) {
    newSession = callback;
    return 0;
}

int32_t velmora_http_setDeleteSessionCallback(velmora_http_delete_session_callback callback) {
    deleteSession = callback;
    return 0;
}

int32_t velmora_http_setSendRequestCallback(velmora_http_send_request_callback callback) {
    sendRequest = callback;
    return 0;
}

int32_t velmora_http_setCancelRequestCallback(velmora_http_cancel_request_callback callback) {
    cancelRequest = callback;
    return 0;
}

int32_t velmora_http_onRequestHeaders(void* reported, velmora_http_header* buffer, uint32_t capacity, uint32_t* count,
                                      void* context) {
    const FakeExchange& exchange = exchangeOf(reported, context);
    *count = static_cast<uint32_t>(std::min<size_t>(exchange.requestHeaders.size(), capacity));
    for (uint32_t i = 0; i < *count; ++i) {
        std::strncpy(buffer[i].key, exchange.requestHeaders[i].first.c_str(), sizeof buffer[i].key - 1);
        std::strncpy(buffer[i].value, exchange.requestHeaders[i].second.c_str(), sizeof buffer[i].value - 1);
    }
    return 0;
}

int32_t velmora_http_onRequestBodyLength(void* reported, uint64_t* length, void* context) {
    *length = exchangeOf(reported, context).requestBody.size();
    return 0;
}

int32_t velmora_http_onRequestBody(void* reported, uint64_t offset, char* buffer, uint64_t* written, uint64_t capacity,
                                   void* context) {
    const std::string& body = exchangeOf(reported, context).requestBody;
    *written = offset >= body.size() ? 0 : std::min<uint64_t>(capacity, body.size() - offset);
    std::memcpy(buffer, body.data() + std::min<uint64_t>(offset, body.size()), *written);
    return 0;
}

int32_t velmora_http_onResponseStatus(void* reported, const char*, uint32_t status, const char* reason, void* context) {
    FakeExchange& exchange = exchangeOf(reported, context);
    const std::lock_guard lock(exchange.mutex);
    if (exchange.status != 0) exchange.misuse = "a second status";
    exchange.status = status;
    exchange.reason = reason;
    exchange.changed.notify_all();
    return 0;
}

int32_t velmora_http_onResponseHeaders(void* reported, const char** pairs, uint32_t count, void* context) {
    FakeExchange& exchange = exchangeOf(reported, context);
    const std::lock_guard lock(exchange.mutex);
    for (uint32_t i = 0; i < count; ++i) exchange.responseHeaders[pairs[2 * i]] = pairs[2 * i + 1];
    return 0;
}

int32_t velmora_http_onResponseBody(void* reported, uint64_t offset, const char* data, uint64_t length, void* context) {
    FakeExchange& exchange = exchangeOf(reported, context);
    const std::lock_guard lock(exchange.mutex);
    if (exchange.status == 0) exchange.misuse = "a body before the status";
    if (offset != exchange.responseBody.size()) exchange.misuse = "a gap in the body";
    exchange.responseBody.append(data, length);
    return 0;
}

int32_t velmora_http_onCompletion(void* reported, uint32_t result, const char* message, void* context) {
    FakeExchange& exchange = exchangeOf(reported, context);
    const std::lock_guard lock(exchange.mutex);
    exchange.result = result;
    exchange.message = message;
    ++exchange.completions;
    exchange.changed.notify_all();
    return 0;
}
