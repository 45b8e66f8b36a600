// One exchange with the host's HTTP stack, from its request to its single outcome.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "core/http/message.h"
#include "core/types/function.h"
#include "core/types/mutex.h"

namespace velmora::transfer {

class TransferEngine;

// Hears the outcome of a request, once: the response as far as it has come, its error set if the exchange has failed,
// was cancelled or refused, or ended with a status other than 2xx. It runs under no lock, on a thread of the host, or
// within execute, cancel or stop. What it throws reaches whoever brought the outcome. It is destroyed when it has run.
using Responder = UniqueFunction<void(http::Response)>;

// Puts the pieces of a body into order. Not synchronised.
class ResponseBody {
public:
    // Takes a piece that stands at `offset` bytes; empty ones are ignored. One whose place is taken, by a piece that
    // waits for its turn or by one that has had it, is dropped, and its offset is added to `refused`.
    void add(uint64_t offset, std::string_view piece, std::vector<uint64_t>& refused);

    // The bytes without a gap from the beginning on. Leaves the body empty.
    [[nodiscard]] std::string take() { return std::move(bytes_); }

private:
    void adopt(std::vector<uint64_t>& refused);

    std::string bytes_;
    std::map<uint64_t, std::string> waiting_;  // by offset, behind a gap
};

// The state machine of one exchange. The host may report completion, error and cancellation in any mix, from any thread
// and in any order, and our side may cancel at any moment: the first outcome wins, whatever comes later is refused.
//
//              execute             the host accepts
//   created ------------> sending ------------------> scheduled
//      |                     |                            |
//      | stop                | the host refuses;          | completion, error or cancellation by the host;
//      |                     | any outcome of the next    | a cancel that the host confirms or does not know;
//      v                     v column, already            v the patience of a stop is over
//   finished <----------- telling <------------------------
//             the responder
//              has returned
//
// Who moves it: execute to sending and scheduled; whoever brings the outcome, on their thread, to telling and finished.
// A cancel during sending ends the transfer for its owner at once; when the host then accepts, it is asked to cancel.
//
// Owned by shared_ptr: by a RequestHandle, and by the engine's table for as long as the host may report.
// Threads: any. Its mutex is a leaf but for the engine's table.
class Transfer : public std::enable_shared_from_this<Transfer> {
public:
    using Clock = std::chrono::steady_clock;

    Transfer(std::weak_ptr<TransferEngine> engine, http::Request request, Responder responder);

    // ---- The owner's side; see RequestHandle.

    bool execute(std::error_code& error);
    void cancel();
    void waitForCompletion();
    void stop(Clock::time_point deadline) noexcept;

    // ---- The host's side. Once the outcome is there these do nothing, and leave their output alone.

    void onRequestHeaders(http::Headers& out);
    void onRequestBodyLength(uint64_t& out);
    void onRequestBody(uint64_t offset, char* buffer, uint64_t& written, uint64_t capacity);
    void onResponseStatus(int status);
    void onResponseHeaders(http::Headers headers);
    void onResponseBody(uint64_t offset, std::string_view piece);

    void onCompletion();
    void onCancellation();
    void onError(std::error_code error, const std::string& message);

    [[nodiscard]] const http::Request& request() const noexcept { return request_; }
    [[nodiscard]] uint32_t requestId() const noexcept { return requestId_; }

private:
    enum class State { created, sending, scheduled, telling, finished };

    [[nodiscard]] bool beginSending() VELMORA_EXCLUDES(mutex_);
    [[nodiscard]] bool handOver(TransferEngine& engine, std::error_code& error);
    void fail(std::error_code error);
    void cancelAtHost(TransferEngine& engine);

    [[nodiscard]] bool isOver() const VELMORA_REQUIRES(mutex_) { return state_ >= State::telling; }
    [[nodiscard]] bool claimOutcome() VELMORA_EXCLUDES(mutex_);
    void tell(std::optional<std::error_code> error) VELMORA_EXCLUDES(mutex_);
    void finish() VELMORA_EXCLUDES(mutex_);
    [[nodiscard]] bool isToldHere() VELMORA_EXCLUDES(mutex_);
    void doLogMessage(const char* reason) VELMORA_EXCLUDES(mutex_);

    const std::weak_ptr<TransferEngine> engine_;
    const http::Request request_;
    std::atomic<uint32_t> requestId_ = 0;  // the host's; written once, when its send callback has returned

    Mutex mutex_;
    Condition finished_;
    State state_ VELMORA_GUARDED_BY(mutex_) = State::created;
    bool cancelRequested_ VELMORA_GUARDED_BY(mutex_) = false;
    Responder responder_ VELMORA_GUARDED_BY(mutex_);
    std::thread::id teller_ VELMORA_GUARDED_BY(mutex_);  // whose outcome is being told
    http::Response response_ VELMORA_GUARDED_BY(mutex_);
    ResponseBody body_ VELMORA_GUARDED_BY(mutex_);
    std::optional<Clock::time_point> startTime_ VELMORA_GUARDED_BY(mutex_);  // the host began to read the request
};

// How long the end of a request waits for a host that was asked to cancel it.
inline constexpr std::chrono::seconds kCancelPatience{5};

// What a caller keeps of a request. Its destructor stops the request with kCancelPatience. To end several at once,
// cancel all of them first and then stop each with a common deadline.
//
// Threads: any, but for the destructor. It may be dropped from within the responder, and does not wait then.
class RequestHandle {
public:
    // Sends nothing yet. The responder of a request that is never executed hears nothing.
    RequestHandle(const std::shared_ptr<TransferEngine>& engine, http::Request request, Responder responder);
    ~RequestHandle();
    RequestHandle(const RequestHandle&) = delete;
    RequestHandle& operator=(const RequestHandle&) = delete;

    // Hands the request over, once: throws std::logic_error if it is under way. False, with an error that is never 0,
    // if it fails at once: the responder has heard it, unless the request has been stopped or had an outcome before.
    // Throws `http_callback_not_set` if the host has no send callback: the request is over then, and its responder
    // hears nothing.
    bool execute(std::error_code& error) { return transfer_->execute(error); }

    // Ends the request early and waits for nothing but the host's cancel callback; only the first call counts. The
    // outcome may come before the return, or later. Throws `http_callback_not_set` without one; the responder has heard
    // then all the same.
    void cancel() { transfer_->cancel(); }

    // Blocks until the responder has heard its outcome, for as long as the host takes, or until a request that was
    // never executed has been stopped.
    void waitForCompletion() { transfer_->waitForCompletion(); }

    // Cancels, and returns when the responder has heard its outcome and is gone. A host that has not completed the
    // exchange by the deadline is not waited for any longer: the responder hears `cancelled`, and what the host reports
    // later is refused. Returns at once within the responder, and while the process is terminating, when nobody is left
    // to complete anything. Does not throw.
    void stop(Transfer::Clock::time_point deadline) noexcept { transfer_->stop(deadline); }

private:
    const std::shared_ptr<Transfer> transfer_;
};

}  // namespace velmora::transfer
