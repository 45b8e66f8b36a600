// A host behind the four callbacks that takes every request over and leaves the notifications to the test.
#pragma once

#include <velmora/http.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/types/errors.h"

namespace velmora::test {

// One lives at a time.
class ScriptedHost {
public:
    ScriptedHost() {
        current_ = this;
        velmora_http_setNewSessionCallback([]() -> void* { return current_; });
        velmora_http_setDeleteSessionCallback([](void*) {});
        velmora_http_setSendRequestCallback(
            [](void*, int32_t, const char*, int32_t, void* context, uint32_t* requestId) {
                current_->contexts.push_back(context);
                *requestId = current_->id;
                if (current_->duringSend) current_->duringSend();
                return static_cast<int32_t>(current_->sendResult);
            });
        setCancellable(true);
    }
    ~ScriptedHost() {
        velmora_http_setNewSessionCallback(nullptr);
        velmora_http_setDeleteSessionCallback(nullptr);
        velmora_http_setSendRequestCallback(nullptr);
        setCancellable(false);
    }
    ScriptedHost(const ScriptedHost&) = delete;
    ScriptedHost& operator=(const ScriptedHost&) = delete;

    void setCancellable(bool isCancellable) {
        velmora_http_cancel_request_callback const cancel = [](void*, uint32_t) {
            ++current_->cancels;
            return static_cast<int32_t>(current_->cancelResult.load());
        };
        velmora_http_setCancelRequestCallback(isCancellable ? cancel : nullptr);
    }

    // Notifications of the n-th request.
    int32_t status(uint32_t status, size_t n = 0) {
        return velmora_http_onResponseStatus(this, "HTTP/1.1", status, "", contexts.at(n));
    }
    int32_t header(const char* key, const char* value, size_t n = 0) {
        const char* pairs[] = {key, value};
        return velmora_http_onResponseHeaders(this, pairs, 1, contexts.at(n));
    }
    int32_t body(uint64_t offset, const char* data, size_t n = 0) {
        return velmora_http_onResponseBody(this, offset, data, std::strlen(data), contexts.at(n));
    }
    int32_t complete(uint32_t result = VELMORA_HTTP_OK, size_t n = 0) {
        return velmora_http_onCompletion(this, result, "reset", contexts.at(n));
    }

    std::vector<void*> contexts;  // of every send call
    uint32_t id = 7;              // the same for every request
    VelmoraHttpError sendResult = VelmoraHttpError::none;
    std::function<void()> duringSend;
    std::atomic<VelmoraHttpError> cancelResult = VelmoraHttpError::none;
    std::atomic<int> cancels = 0;

private:
    static inline ScriptedHost* current_ = nullptr;
};

}  // namespace velmora::test
