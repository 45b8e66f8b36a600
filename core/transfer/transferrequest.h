// A transfer as its owner sees it: perform it, cancel it, and be told what happens.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <system_error>

#include "core/transfer/transferresponse.h"

namespace velmora::transfer {

// Of the completion, error and cancel callbacks at most one is called, once. All callbacks come on threads of the host,
// the cancel callback also on that of cancel(); they are dropped with the outcome, and with them what they hold. The
// body callback runs under the transfer's lock, so it must not call back into the transfer; the others run under none.
class TransferRequest {
public:
    using CompletionCallback = std::function<void(const TransferResponse&)>;
    using StatusCallback = std::function<void(std::string protocol, int status, std::string reason)>;
    using CancelCallback = std::function<void()>;
    using HeadersCallback = std::function<void(const http::Headers&)>;
    using BodyCallback = std::function<void(uint64_t offset, const std::string& chunk)>;

    virtual ~TransferRequest() = default;

    // Ends the transfer early. Only the first call counts. The outcome may come before the return, or later.
    virtual void cancel() = 0;

    // Hands the request over. False, with the reason, if that fails or if the transfer was cancelled before; no
    // callback reports such a failure.
    virtual bool perform(std::error_code& out) = 0;

    virtual void setCompletionCallback(CompletionCallback callback) = 0;
    virtual void setStatusCallback(StatusCallback callback) = 0;
    virtual void setErrorCallback(CompletionCallback callback) = 0;
    virtual void setCancelCallback(CancelCallback callback) = 0;
    virtual void setHeadersCallback(HeadersCallback callback) = 0;
    virtual void setBodyCallback(BodyCallback callback) = 0;
};

}  // namespace velmora::transfer
