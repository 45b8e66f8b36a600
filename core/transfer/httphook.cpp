// The exported side of the HTTP bridge: see velmora/http.h for what each function promises to the host.
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/transfer/hostcallbacks.h"
#include "core/transfer/hostcontext.h"
#include "core/transfer/transferengineimpl.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "velmora/http.h"

namespace velmora::transfer {
namespace {

// Both null, or neither.
struct Validated {
    std::shared_ptr<HostContext> context;
    std::shared_ptr<TransferEngineImpl> engine;
};

Validated validateContext(const void* session, void* token) {
    std::shared_ptr<HostContext> context = findHostContext(token);
    if (!context) {
        VELMORA_LOG(error, "transfer") << "No context!";
        return {};
    }
    std::shared_ptr<TransferEngineImpl> engine = context->engine.lock();
    if (!engine) {
        VELMORA_LOG(error, "transfer") << "No TransferEngineImpl in context";
        return {};
    }
    if (engine->session() != session) {
        VELMORA_LOG(error, "transfer") << "Mismatch in session";
        return {};
    }
    return {std::move(context), std::move(engine)};
}

// The frame of every notification: nothing is done for a context that does not validate, and nothing is thrown.
template <typename Notification>
int32_t notify(const void* session, void* token, Notification notification) {
    const NotificationVisit visit;
    return exceptionToVelmoraError([&] {
        if (const Validated valid = validateContext(session, token); valid.context) notification(valid);
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
    return notify(session, context, [&](const Validated& valid) {
        velmora::http::Headers headers;
        valid.context->responder->onRequestHeaders(headers);
        requireOutput(count);
        *count = 0;
        if (headers.size() > capacity || headers.empty()) return;
        requireOutput(buffer);
        *count = copyHeaders(headers, buffer);
    });
}

int32_t velmora_http_onRequestBodyLength(void* session, uint64_t* length, void* context) {
    return notify(session, context, [&](const Validated& valid) {
        requireOutput(length);
        *length = 0;
        valid.context->responder->onRequestBodyLength(length);
    });
}

int32_t velmora_http_onRequestBody(void* session, uint64_t offset, char* buffer, uint64_t* written, uint64_t capacity,
                                   void* context) {
    return notify(session, context, [&](const Validated& valid) {
        requireOutput(written);
        *written = 0;
        if (capacity != 0) requireOutput(buffer);
        valid.context->responder->onRequestBody(offset, buffer, written, capacity);
    });
}

int32_t velmora_http_onResponseStatus(void* session, const char* protocol, uint32_t status, const char* reason,
                                      void* context) {
    return notify(session, context, [&](const Validated& valid) {
        valid.context->responder->onResponseStatus(textOf(protocol), static_cast<int>(status), textOf(reason));
    });
}

int32_t velmora_http_onResponseHeaders(void* session, const char** pairs, uint32_t count, void* context) {
    return notify(session, context, [&](const Validated& valid) {
        valid.context->responder->onResponseHeaders(pairs ? collectHeaders(pairs, count) : velmora::http::Headers());
    });
}

int32_t velmora_http_onResponseBody(void* session, uint64_t offset, const char* data, uint64_t length, void* context) {
    return notify(session, context, [&](const Validated& valid) {
        valid.context->responder->onResponseBody(offset, data, data ? length : 0);
    });
}

int32_t velmora_http_onCompletion(void* session, uint32_t result, const char* message, void* context) {
    return notify(session, context,
                  [&](const Validated& valid) { valid.engine->complete(*valid.context, result, textOf(message)); });
}

}  // extern "C"
