// A transfer as the engine sees it: what the host asks of it and reports to it.
#pragma once

#include <cstdint>
#include <string>
#include <system_error>

#include "core/http/message.h"

namespace velmora::transfer {

// Threads: any, also several at once. What comes after the first of onCompletion, onCancellation and onError has no
// effect. Exceptions of the owner's callbacks pass through.
class TransferResponder {
public:
    virtual ~TransferResponder() = default;

    virtual void onCompletion() = 0;
    virtual void onCancellation() = 0;
    virtual void onError(std::error_code error, const std::string& message) = 0;

    // These three leave the output alone when the transfer is over.
    virtual void onRequestHeaders(http::Headers& out) = 0;
    virtual void onRequestBodyLength(uint64_t* out) = 0;
    virtual void onRequestBody(uint64_t offset, char* buffer, uint64_t* written, uint64_t capacity) = 0;

    virtual void onResponseStatus(const std::string& protocol, int status, const std::string& reason) = 0;
    virtual void onResponseHeaders(const http::Headers& headers) = 0;
    virtual void onResponseBody(uint64_t offset, const char* data, uint64_t length) = 0;
};

}  // namespace velmora::transfer
