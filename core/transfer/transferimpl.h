// One exchange from start to its single outcome. The host may report completion, error and cancellation in any mix,
// from any thread and in any order, and our side may cancel at any moment: the first completion of any kind wins.
//
//   created -> perform() accepted by the host -> scheduled -> first completion -> completed
//
// A normal or error completion goes ahead at once. A cancellation with calls of the host still in progress is carried
// out by the last of them when it ends, so that a cancel callback never overlaps with another callback.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>

#include "core/transfer/transferengine.h"
#include "core/transfer/transferrequest.h"
#include "core/transfer/transferresponder.h"
#include "core/types/mutex.h"

namespace velmora::transfer {

// Held by std::shared_ptr.
class TransferImpl final : public TransferRequest,
                           public TransferResponder,
                           public std::enable_shared_from_this<TransferImpl> {
public:
    TransferImpl(std::weak_ptr<TransferEngine> engine, http::Request request);

    void cancel() override;
    bool perform(std::error_code& out) override;
    void setCompletionCallback(CompletionCallback callback) override;
    void setStatusCallback(StatusCallback callback) override;
    void setErrorCallback(CompletionCallback callback) override;
    void setCancelCallback(CancelCallback callback) override;
    void setHeadersCallback(HeadersCallback callback) override;
    void setBodyCallback(BodyCallback callback) override;

    void onCompletion() override;
    void onCancellation() override;
    void onError(std::error_code error, const std::string& message) override;
    void onRequestHeaders(http::Headers& out) override;
    void onRequestBodyLength(uint64_t* out) override;
    void onRequestBody(uint64_t offset, char* buffer, uint64_t* written, uint64_t capacity) override;
    void onResponseStatus(const std::string& protocol, int status, const std::string& reason) override;
    void onResponseHeaders(const http::Headers& headers) override;
    void onResponseBody(uint64_t offset, const char* data, uint64_t length) override;

private:
    using Clock = std::chrono::steady_clock;

    struct Callbacks {
        CompletionCallback completion;
        StatusCallback status;
        CompletionCallback error;
        CancelCallback cancel;
        HeadersCallback headers;
        BodyCallback body;
    };

    // Runs one call of the host, or drops it if the transfer is over.
    template <typename Call>
    void guarded(Call call);
    [[nodiscard]] bool enterCall() VELMORA_EXCLUDES(completionMutex_);
    void leaveCall() VELMORA_EXCLUDES(completionMutex_);

    [[nodiscard]] bool isCompleted() VELMORA_EXCLUDES(completionMutex_);
    [[nodiscard]] bool setCompleted(bool isCancellation) VELMORA_EXCLUDES(completionMutex_);
    [[nodiscard]] Callbacks takeCallbacks() VELMORA_EXCLUDES(completionMutex_);
    template <typename Callback>
    void setCallback(Callback Callbacks::*which, Callback callback) VELMORA_EXCLUDES(completionMutex_);
    template <typename Callback>
    [[nodiscard]] Callback callback(Callback Callbacks::*which) VELMORA_EXCLUDES(completionMutex_);

    void onErrorCompleted(const TransferResponse* response);
    void performCancel();
    void cancelAtHost(TransferEngine& engine);
    [[nodiscard]] TransferResponse makeResponse() VELMORA_EXCLUDES(statusMutex_);
    void deliverBody() VELMORA_REQUIRES(completionMutex_);
    void doLogMessage(const char* reason) VELMORA_EXCLUDES(statusMutex_);

    const std::weak_ptr<TransferEngine> engine_;
    const http::Request request_;
    std::atomic<uint32_t> requestId_ = 0;        // given by the host; written by perform, read by log lines
    std::atomic<bool> cancelRequested_ = false;  // the first cancel() is found by exchanging it
    std::atomic<bool> scheduled_ = false;        // the host has accepted the request; written by perform alone
    std::atomic<bool> hostAsked_ = false;        // to cancel; whoever exchanges it does the asking

    Mutex completionMutex_;  // the two mutexes are never held together
    bool completed_ VELMORA_GUARDED_BY(completionMutex_) = false;
    uint32_t outstanding_ VELMORA_GUARDED_BY(completionMutex_) = 0;  // calls of the host now in progress
    bool deferredCancel_ VELMORA_GUARDED_BY(completionMutex_) = false;
    Callbacks callbacks_ VELMORA_GUARDED_BY(completionMutex_);
    TransferResponseData responseData_ VELMORA_GUARDED_BY(completionMutex_);

    Mutex statusMutex_;
    int statusCode_ VELMORA_GUARDED_BY(statusMutex_) = 0;
    std::string reason_ VELMORA_GUARDED_BY(statusMutex_);
    http::Headers responseHeaders_ VELMORA_GUARDED_BY(statusMutex_);
    std::optional<Clock::time_point> startTime_ VELMORA_GUARDED_BY(statusMutex_);  // set by the first onRequestHeaders
};

}  // namespace velmora::transfer
