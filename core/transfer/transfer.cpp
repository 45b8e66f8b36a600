#include "core/transfer/transfer.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "core/platform/process.h"
#include "core/transfer/transferengine.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"

namespace velmora::transfer {

// ---- the body of a response

void ResponseBody::add(uint64_t offset, std::string_view piece, std::vector<uint64_t>& refused) {
    if (piece.empty()) return;
    if (offset == bytes_.size() && waiting_.count(offset) == 0) {
        bytes_.append(piece);
        return adopt(refused);
    }
    const bool isKept = offset >= bytes_.size() && waiting_.emplace(offset, piece).second;
    if (!isKept) refused.push_back(offset);
}

// What has waited for the gap to close; a piece that an earlier one has covered is refused now.
void ResponseBody::adopt(std::vector<uint64_t>& refused) {
    while (!waiting_.empty() && waiting_.begin()->first <= bytes_.size()) {
        const auto first = waiting_.begin();
        if (first->first == bytes_.size()) {
            bytes_.append(first->second);
        } else {
            refused.push_back(first->first);
        }
        waiting_.erase(first);
    }
}

// ---- the owner's side

RequestHandle::RequestHandle(const std::shared_ptr<TransferEngine>& engine, http::Request request, Responder responder)
    : transfer_(std::make_shared<Transfer>(engine, std::move(request), std::move(responder))) {
    VELMORA_LOG(info, "http") << "Request: " << transfer_->request().verb << " " << transfer_->request().url;
}

RequestHandle::~RequestHandle() { transfer_->stop(Transfer::Clock::now() + kCancelPatience); }

Transfer::Transfer(std::weak_ptr<TransferEngine> engine, http::Request request, Responder responder)
    : engine_(std::move(engine)), request_(std::move(request)), responder_(std::move(responder)) {}

bool Transfer::execute(std::error_code& error) {
    const std::shared_ptr<Transfer> self = shared_from_this();  // the handle may go meanwhile
    const std::shared_ptr<TransferEngine> engine = engine_.lock();
    if (!beginSending()) {
        error = VelmoraHttpError::cancelled;
    } else if (!engine) {
        error = VelmoraHttpError::unknown;
    } else {
        try {
            if (handOver(*engine, error)) return true;
        } catch (...) {
            if (claimOutcome()) finish();
            throw;
        }
    }
    VELMORA_LOGF(error, "http", "Request failed synchronously!");
    if (claimOutcome()) tell(error);
    return false;
}

bool Transfer::beginSending() {
    const MutexLock lock(mutex_);
    if (state_ == State::sending || state_ == State::scheduled) throw std::logic_error("request is under way already");
    if (state_ != State::created) return false;
    state_ = State::sending;
    return !cancelRequested_;
}

bool Transfer::handOver(TransferEngine& engine, std::error_code& error) {
    const TransferEngine::Sent sent = engine.sendRequest(*this);
    error = sent.error;
    VELMORA_LOG(info, "transfer") << "Perform request=" << sent.requestId << " scheduled=" << (error ? 0 : 1);
    bool isCancelled = false;
    {
        const MutexLock lock(mutex_);
        requestId_ = sent.requestId;
        isCancelled = cancelRequested_;  // while the host was being asked
        if (!error && state_ == State::sending) state_ = State::scheduled;
    }
    if (!error && isCancelled) exceptionSafeWrapper([&] { cancelAtHost(engine); });
    return !error;
}

void Transfer::cancel() {
    VELMORA_LOG_SCOPE(info, "transfer", "Cancelling request=" << requestId_);
    State state{};
    {
        const MutexLock lock(mutex_);
        if (isOver() || std::exchange(cancelRequested_, true)) return;
        state = state_;
    }
    if (state == State::sending) return onCancellation();
    if (state != State::scheduled) return;
    if (const std::shared_ptr<TransferEngine> engine = engine_.lock()) cancelAtHost(*engine);
}

void Transfer::cancelAtHost(TransferEngine& engine) {
    std::error_code rc;
    try {
        rc = engine.cancelRequest(*this);
    } catch (...) {
        onCancellation();  // the host can't be told; nobody shall wait for it
        throw;
    }
    VELMORA_LOG(info, "transfer") << "Cancellation returned rc=" << toString(rc) << " request=" << requestId_;
    if (rc == VelmoraHttpError::cancel_ignored) return;
    if (rc == VelmoraHttpError::invalid_input) {
        {
            const MutexLock lock(mutex_);
            if (isOver()) return;
        }
        VELMORA_LOG(warn, "transfer") << "Cancellation rejected; no completion callback received; request="
                                      << requestId_;
    }
    onCancellation();
}

void Transfer::waitForCompletion() {
    VELMORA_LOG_SCOPE(info, "http", "wait for response");
    const MutexLock lock(mutex_);
    finished_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return state_ == State::finished; });
}

void Transfer::stop(Clock::time_point deadline) noexcept {
    const auto isFinished = [this]() VELMORA_REQUIRES(mutex_) { return state_ == State::finished; };
    exceptionSafeWrapper([&] {
        State state{};
        {
            const MutexLock lock(mutex_);
            state = state_;
            if (state == State::created) state_ = State::telling;  // of nothing
        }
        if (state == State::finished) return;
        if (state == State::created) return finish();
        exceptionSafeWrapper([this] { cancel(); });
        VELMORA_LOG_SCOPE(info, "http", "stop request context");
        if (isToldHere() || platform::isTerminating()) return;
        {
            const MutexLock lock(mutex_);
            if (finished_.waitUntil(mutex_, deadline, isFinished)) return;
        }
        VELMORA_LOG(warn, "transfer") << "Not completed after its cancellation, given up; request=" << requestId_;
        onCancellation();
        const MutexLock lock(mutex_);
        finished_.wait(mutex_, isFinished);  // for a responder that is being told
    });
}

// ---- the single outcome

// True for the first outcome: the caller goes on to tell it.
bool Transfer::claimOutcome() {
    const MutexLock lock(mutex_);
    if (isOver()) return false;
    state_ = State::telling;
    teller_ = std::this_thread::get_id();
    return true;
}

// Without an error the status decides.
void Transfer::tell(std::optional<std::error_code> error) {
    const ScopeExit end([this] { finish(); });
    http::Response response;
    Responder responder;
    {
        const MutexLock lock(mutex_);
        response = std::move(response_);
        response.body = body_.take();
        responder = std::move(responder_);
    }
    response.error = error ? *error : http::judgeStatus(response.status);
    if (responder) responder(std::move(response));
}

// Whoever has waited finds nothing of the responder still in use.
void Transfer::finish() {
    Responder dropped;
    {
        const MutexLock lock(mutex_);
        dropped = std::move(responder_);
    }
    dropped = nullptr;
    const MutexLock lock(mutex_);
    state_ = State::finished;
    teller_ = {};
    finished_.notifyAll();
}

bool Transfer::isToldHere() {
    const MutexLock lock(mutex_);
    return teller_ == std::this_thread::get_id();
}

void Transfer::onCompletion() {
    doLogMessage("completed sucessfully");
    if (!claimOutcome()) {
        VELMORA_LOG(info, "transfer") << "Normal-completion rejected; already completed; request=" << requestId_;
        return;
    }
    VELMORA_LOG(debug, "transfer") << "Normal-completion accepted; request=" << requestId_;
    tell(std::nullopt);
}

void Transfer::onError(std::error_code error, const std::string& message) {
    doLogMessage("completed with error");
    VELMORA_LOG_SCOPE(
        info, "transfer",
        "Error-completion errorCode=" << toString(error) << " errorMsg=" << message << " request=" << requestId_);
    VELMORA_LOG(trace, "transfer") << "Error-completion request=" << requestId_;
    if (!claimOutcome()) {
        VELMORA_LOG(info, "transfer") << "Error-completion rejected; already completed request=" << requestId_;
        return;
    }
    VELMORA_LOG(debug, "transfer") << "Error-completion accepted request=" << requestId_;
    tell(error);
}

void Transfer::onCancellation() {
    doLogMessage("is cancelled");
    if (!claimOutcome()) {
        VELMORA_LOG(info, "transfer")
            << "Cancel-completion rejected; callbacks in progress or already completed; request=" << requestId_;
        return;
    }
    VELMORA_LOG(debug, "transfer") << "Cancel-completion accepted; request=" << requestId_;
    VELMORA_LOG_SCOPE(info, "transfer", "Cancel callback; request=" << requestId_);
    tell(VelmoraHttpError::cancelled);
}

// ---- the host's side

void Transfer::onRequestHeaders(http::Headers& out) {
    {
        const MutexLock lock(mutex_);
        if (isOver()) return;
        if (!startTime_) startTime_ = Clock::now();
    }
    out = request_.headers;
}

void Transfer::onRequestBodyLength(uint64_t& out) {
    const MutexLock lock(mutex_);
    if (!isOver()) out = request_.body.size();
}

void Transfer::onRequestBody(uint64_t offset, char* buffer, uint64_t& written, uint64_t capacity) {
    {
        const MutexLock lock(mutex_);
        if (isOver()) return;
    }
    const uint64_t length = request_.body.size();
    const uint64_t size = offset < length ? std::min(length - offset, capacity) : 0;
    if (size != 0) std::memcpy(buffer, request_.body.data() + offset, size);
    written = size;
}

void Transfer::onResponseStatus(int status) {
    const MutexLock lock(mutex_);
    if (!isOver()) response_.status = status;
}

void Transfer::onResponseHeaders(http::Headers headers) {
    const MutexLock lock(mutex_);
    if (!isOver()) response_.headers.swap(headers);
}

void Transfer::onResponseBody(uint64_t offset, std::string_view piece) {
    std::vector<uint64_t> refused;
    {
        const MutexLock lock(mutex_);
        if (isOver()) return;
        body_.add(offset, piece, refused);
    }
    for (const uint64_t position : refused) {
        VELMORA_LOG(error, "transfer") << "Failed to add response data at position: " << position;
    }
}

void Transfer::doLogMessage(const char* reason) {
    if (!logs(LogLevel::info)) return;
    int status = 0;
    Clock::duration latency{};
    {
        const MutexLock lock(mutex_);
        status = response_.status;
        if (startTime_) latency = Clock::now() - *startTime_;
    }
    VELMORA_LOG(info, "transfer") << "Request " << requestId_ << ". url=" << request_.url
                                  << ", status=" << static_cast<http::Status>(status) << ", reason=" << reason
                                  << ", verb=" << request_.verb << ", latency="
                                  << std::chrono::duration_cast<std::chrono::microseconds>(latency).count()
                                  << " microseconds";
}

}  // namespace velmora::transfer
