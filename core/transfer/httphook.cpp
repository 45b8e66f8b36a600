// The exported side of the HTTP bridge: see velmora/http.h for what each function promises to the host.
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/transfer/transfer.h"
#include "core/transfer/transferengine.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "velmora/http.h"

namespace velmora::transfer {
namespace {

// The frame of every notification: nothing is done for a context that is refused, and nothing is thrown.
template <typename Notify>
int32_t notify(const void* session, const void* context, Notify notify) {
    return velmora::exceptionToVelmoraError([&] {
        Notification notification(session, context);
        if (notification) notify(notification);
    });
}

void requireOutput(const void* output) {
    if (!output) throw std::invalid_argument("null output argument");
}

std::string textOf(const char* text) { return text ? text : ""; }

bool fits(const std::string& key, const std::string& value) {
    return key.size() < sizeof(velmora_http_header::key) && value.size() < sizeof(velmora_http_header::value);
}

uint32_t copyHeaders(const http::Headers& headers, velmora_http_header* buffer) {
    uint32_t count = 0;
    for (const auto& [key, value] : headers) {
        if (!fits(key, value)) continue;
        velmora_http_header& record = buffer[count++];
        std::memcpy(record.key, key.c_str(), key.size() + 1);
        std::memcpy(record.value, value.c_str(), value.size() + 1);
    }
    return count;
}

http::Headers collectHeaders(const char** pairs, uint32_t count) {
    http::Headers headers;
    for (size_t i = 0; i < count; ++i) {
        const char* const key = pairs[2 * i];
        if (key) headers[key] = textOf(pairs[2 * i + 1]);
    }
    return headers;
}

}  // namespace
}  // namespace velmora::transfer

using namespace velmora::transfer;

extern "C" {

int32_t velmora_http_setNewSessionCallback(velmora_http_new_session_callback callback) {
    hostCallbacks.newSession.exchange(callback);
    return 0;
}

int32_t velmora_http_setDeleteSessionCallback(velmora_http_delete_session_callback callback) {
    hostCallbacks.deleteSession.exchange(callback);
    return 0;
}

int32_t velmora_http_setSendRequestCallback(velmora_http_send_request_callback callback) {
    hostCallbacks.sendRequest.exchange(callback);
    return 0;
}

int32_t velmora_http_setCancelRequestCallback(velmora_http_cancel_request_callback callback) {
    hostCallbacks.cancelRequest.exchange(callback);
    return 0;
}

int32_t velmora_http_onRequestHeaders(void* session, velmora_http_header* buffer, uint32_t capacity, uint32_t* count,
                                      void* context) {
    return notify(session, context, [&](Notification& notification) {
        velmora::http::Headers headers;
        notification.transfer().onRequestHeaders(headers);
        requireOutput(count);
        *count = 0;
        if (headers.size() > capacity || headers.empty()) return;
        requireOutput(buffer);
        *count = copyHeaders(headers, buffer);
    });
}

int32_t velmora_http_onRequestBodyLength(void* session, uint64_t* length, void* context) {
    return notify(session, context, [&](Notification& notification) {
        requireOutput(length);
        *length = 0;
        notification.transfer().onRequestBodyLength(*length);
    });
}

int32_t velmora_http_onRequestBody(void* session, uint64_t offset, char* buffer, uint64_t* written, uint64_t capacity,
                                   void* context) {
    return notify(session, context, [&](Notification& notification) {
        requireOutput(written);
        *written = 0;
        if (capacity != 0) requireOutput(buffer);
        notification.transfer().onRequestBody(offset, buffer, *written, capacity);
    });
}

int32_t velmora_http_onResponseStatus(void* session, const char*, uint32_t status, const char*, void* context) {
    return notify(session, context, [&](Notification& notification) {
        notification.transfer().onResponseStatus(static_cast<int>(status));
    });
}

int32_t velmora_http_onResponseHeaders(void* session, const char** pairs, uint32_t count, void* context) {
    return notify(session, context, [&](Notification& notification) {
        notification.transfer().onResponseHeaders(pairs ? collectHeaders(pairs, count) : velmora::http::Headers());
    });
}

int32_t velmora_http_onResponseBody(void* session, uint64_t offset, const char* data, uint64_t length, void* context) {
    return notify(session, context, [&](Notification& notification) {
        notification.transfer().onResponseBody(offset, {data, data ? length : 0});
    });
}

int32_t velmora_http_onCompletion(void* session, uint32_t result, const char* message, void* context) {
    return notify(session, context,
                  [&](Notification& notification) { notification.complete(result, textOf(message)); });
}

}  // extern "C"
