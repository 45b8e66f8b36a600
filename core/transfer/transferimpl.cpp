#include "core/transfer/transferimpl.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora::transfer {

TransferImpl::TransferImpl(std::weak_ptr<TransferEngine> engine, http::Request request)
    : engine_(std::move(engine)), request_(std::move(request)) {}

// ---- our side

bool TransferImpl::perform(std::error_code& out) {
    uint32_t id = 0;
    const std::shared_ptr<TransferEngine> engine = engine_.lock();
    if (!engine) {
        out = VelmoraHttpError::unknown;
    } else if (isCompleted()) {
        out = VelmoraHttpError::cancelled;
    } else {
        engine->sendRequest(out, request_.verb, request_.url, shared_from_this(), &id);
        if (id == 0 && !out) out = VelmoraHttpError::unknown;  // without an id it was not taken over
    }
    const bool scheduled = id != 0 && !out;
    VELMORA_LOG(info, "transfer") << "Perform request=" << id << " scheduled=" << (scheduled ? 1 : 0);
    requestId_ = id;
    scheduled_ = scheduled;
    if (scheduled && cancelRequested_) exceptionSafeWrapper([&] { cancelAtHost(*engine); });
    return scheduled;
}

void TransferImpl::cancel() {
    VELMORA_LOG_SCOPE(info, "transfer", "Cancelling request=" << requestId_);
    if (isCompleted()) return;
    if (cancelRequested_.exchange(true)) return;
    if (!scheduled_) return onCancellation();
    if (const std::shared_ptr<TransferEngine> engine = engine_.lock()) cancelAtHost(*engine);
}

// By cancel(), or by perform() for a cancel that came while the request was being handed over.
void TransferImpl::cancelAtHost(TransferEngine& engine) {
    if (hostAsked_.exchange(true)) return;
    std::error_code rc;
    try {
        engine.cancelRequest(rc, requestId_);
    } catch (...) {
        onCancellation();  // the host can't be told; nobody shall wait for it
        throw;
    }
    VELMORA_LOG(info, "transfer") << "Cancellation returned rc=" << toString(rc) << " request=" << requestId_;
    if (rc == VelmoraHttpError::cancel_ignored) return;
    if (rc == VelmoraHttpError::invalid_input) {
        if (isCompleted()) return;
        VELMORA_LOG(warn, "transfer") << "Cancellation rejected; no completion callback received; request="
                                      << requestId_;
    }
    onCancellation();
}

// ---- callbacks

template <typename Callback>
void TransferImpl::setCallback(Callback Callbacks::*which, Callback callback) {
    const MutexLock lock(completionMutex_);
    std::swap(callbacks_.*which, callback);
}

template <typename Callback>
Callback TransferImpl::callback(Callback Callbacks::*which) {
    const MutexLock lock(completionMutex_);
    return callbacks_.*which;
}

void TransferImpl::setCompletionCallback(CompletionCallback callback) {
    setCallback(&Callbacks::completion, std::move(callback));
}

void TransferImpl::setStatusCallback(StatusCallback callback) { setCallback(&Callbacks::status, std::move(callback)); }

void TransferImpl::setErrorCallback(CompletionCallback callback) {
    setCallback(&Callbacks::error, std::move(callback));
}

void TransferImpl::setCancelCallback(CancelCallback callback) { setCallback(&Callbacks::cancel, std::move(callback)); }

void TransferImpl::setHeadersCallback(HeadersCallback callback) {
    setCallback(&Callbacks::headers, std::move(callback));
}

void TransferImpl::setBodyCallback(BodyCallback callback) { setCallback(&Callbacks::body, std::move(callback)); }

TransferImpl::Callbacks TransferImpl::takeCallbacks() {
    const MutexLock lock(completionMutex_);
    return std::exchange(callbacks_, {});
}

// ---- the single outcome

bool TransferImpl::isCompleted() {
    const MutexLock lock(completionMutex_);
    return completed_;
}

bool TransferImpl::setCompleted(bool isCancellation) {
    Callbacks dropped;  // what they hold is let go of after the unlocking
    bool isBusy = false;
    bool isDeferred = false;
    {
        const MutexLock lock(completionMutex_);
        if (completed_) return false;
        std::swap(dropped.headers, callbacks_.headers);
        std::swap(dropped.body, callbacks_.body);
        completed_ = true;
        isBusy = outstanding_ != 0;
        if (isBusy) deferredCancel_ = isCancellation;
        isDeferred = deferredCancel_;
    }
    if (isBusy) {
        VELMORA_LOG(warn, "transfer") << "Deferring completion due to outstanding callbacks; isCancellation="
                                      << (isCancellation ? 1 : 0);
    }
    return !isDeferred;
}

void TransferImpl::onCompletion() {
    doLogMessage("completed sucessfully");
    const TransferResponse response = makeResponse();
    if (!setCompleted(false)) {
        VELMORA_LOG(info, "transfer") << "Normal-completion rejected; already completed; request=" << requestId_;
        return;
    }
    VELMORA_LOG(debug, "transfer") << "Normal-completion accepted; request=" << requestId_;
    const Callbacks callbacks = takeCallbacks();
    if (callbacks.completion) callbacks.completion(response);
}

void TransferImpl::onError(std::error_code error, const std::string& message) {
    doLogMessage("completed with error");
    VELMORA_LOG_SCOPE(
        info, "transfer",
        "Error-completion errorCode=" << toString(error) << " errorMsg=" << message << " request=" << requestId_);
    if (isCompleted()) return;
    TransferResponse response;
    response.error = error;
    response.message = message;
    onErrorCompleted(&response);
}

void TransferImpl::onErrorCompleted(const TransferResponse* response) {
    VELMORA_LOG(trace, "transfer") << "Error-completion request=" << requestId_;
    if (!response) {
        VELMORA_LOG(always, "transfer") << "Error-completion rejected; null response; request=" << requestId_;
        return;
    }
    if (!setCompleted(false)) {
        VELMORA_LOG(info, "transfer") << "Error-completion rejected; already completed request=" << requestId_;
        return;
    }
    VELMORA_LOG(debug, "transfer") << "Error-completion accepted request=" << requestId_;
    const Callbacks callbacks = takeCallbacks();
    if (callbacks.error) callbacks.error(*response);
}

void TransferImpl::onCancellation() {
    doLogMessage("is cancelled");
    if (!setCompleted(true)) {
        VELMORA_LOG(info, "transfer")
            << "Cancel-completion rejected; callbacks in progress or already completed; request=" << requestId_;
        return;
    }
    VELMORA_LOG(debug, "transfer") << "Cancel-completion accepted; request=" << requestId_;
    performCancel();
}

void TransferImpl::performCancel() {
    VELMORA_LOG_SCOPE(info, "transfer", "Cancel callback; request=" << requestId_);
    const Callbacks callbacks = takeCallbacks();
    if (callbacks.cancel) callbacks.cancel();
}

// ---- the host's side

bool TransferImpl::enterCall() {
    const MutexLock lock(completionMutex_);
    if (completed_) return false;
    ++outstanding_;
    return true;
}

void TransferImpl::leaveCall() {
    {
        const MutexLock lock(completionMutex_);
        if (--outstanding_ != 0 || !deferredCancel_) return;
    }
    performCancel();
}

template <typename Call>
void TransferImpl::guarded(Call call) {
    if (!enterCall()) return;
    try {
        call();
    } catch (...) {
        leaveCall();
        throw;
    }
    leaveCall();
}

void TransferImpl::onRequestHeaders(http::Headers& out) {
    guarded([&] {
        {
            const MutexLock lock(statusMutex_);
            if (!startTime_) startTime_ = Clock::now();
        }
        out = request_.headers;
    });
}

void TransferImpl::onRequestBodyLength(uint64_t* out) {
    guarded([&] { *out = request_.body.size(); });
}

void TransferImpl::onRequestBody(uint64_t offset, char* buffer, uint64_t* written, uint64_t capacity) {
    guarded([&] {
        const uint64_t length = request_.body.size();
        const uint64_t size = offset < length ? std::min(length - offset, capacity) : 0;
        if (size != 0) std::memcpy(buffer, request_.body.data() + offset, size);
        *written = size;
    });
}

void TransferImpl::onResponseStatus(const std::string& protocol, int status, const std::string& reason) {
    guarded([&] {
        {
            const MutexLock lock(statusMutex_);
            statusCode_ = status;
            reason_ = reason;
        }
        if (const StatusCallback onStatus = callback(&Callbacks::status)) onStatus(protocol, status, reason);
    });
}

void TransferImpl::onResponseHeaders(const http::Headers& headers) {
    guarded([&] {
        {
            const MutexLock lock(statusMutex_);
            responseHeaders_ = headers;
        }
        if (const HeadersCallback onHeaders = callback(&Callbacks::headers)) onHeaders(headers);
    });
}

void TransferImpl::onResponseBody(uint64_t offset, const char* data, uint64_t length) {
    guarded([&] {
        std::vector<uint64_t> refused;
        {
            const MutexLock lock(completionMutex_);
            responseData_.push(offset, std::string(data, length));
            deliverBody();
            refused = responseData_.takeRefused();
        }
        for (const uint64_t position : refused) {
            VELMORA_LOG(error, "transfer") << "Failed to add response data at position: " << position;
        }
    });
}

// Under the lock, so that no chunk overtakes a completion.
void TransferImpl::deliverBody() {
    if (!callbacks_.body) return;
    while (true) {
        const uint64_t offset = responseData_.nextOffset();
        const std::string chunk = responseData_.pop();
        if (chunk.empty()) return;
        callbacks_.body(offset, chunk);
    }
}

TransferResponse TransferImpl::makeResponse() {
    const MutexLock lock(statusMutex_);
    TransferResponse response;
    response.status = statusCode_;
    response.headers = responseHeaders_;
    response.message = reason_;
    return response;
}

void TransferImpl::doLogMessage(const char* reason) {
    if (!logs(LogLevel::info)) return;
    int status = 0;
    Clock::duration latency{};
    {
        const MutexLock lock(statusMutex_);
        status = statusCode_;
        if (startTime_) latency = Clock::now() - *startTime_;
    }
    VELMORA_LOG(info, "transfer") << "Request " << requestId_ << ". url=" << request_.url
                                  << ", status=" << static_cast<http::Status>(status) << ", reason=" << reason
                                  << ", verb=" << request_.verb << ", latency="
                                  << std::chrono::duration_cast<std::chrono::microseconds>(latency).count()
                                  << " microseconds";
}

}  // namespace velmora::transfer
