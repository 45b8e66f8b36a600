#include "core/transfer/transferengineimpl.h"

#include <utility>

#include "core/transfer/hostcallbacks.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/gate.h"

namespace velmora::transfer {
namespace {

constexpr int32_t kSendVersion = 2;

thread_local const TransferEngineImpl* sendingEngine = nullptr;  // whose send is under way on this thread

template <typename Callback>
Callback requireCallback(const std::atomic<Callback>& slot, const char* message) {
    const Callback callback = slot;
    if (!callback) throw std::system_error(VelmoraError::http_callback_not_set, message);
    return callback;
}

int32_t hostVerb(http::Verb verb) {
    switch (verb) {
        case http::Verb::POST:
            return VELMORA_HTTP_POST;
        case http::Verb::GET:
            return VELMORA_HTTP_GET;
    }
    VELMORA_LOG(error, "transfer") << "Unrecognized HTTP verb " << static_cast<int32_t>(verb);
    return VELMORA_HTTP_GET;
}

std::error_code httpError(int32_t value) { return {value, velmoraHttpCategory()}; }

}  // namespace

std::shared_ptr<TransferEngine> makeTransferEngine() {
    const auto newSession = requireCallback(hostCallbacks.newSession, "http new session callback not set");
    void* const session = newSession();
    if (!session) {
        throw std::system_error(VelmoraError::http_session_creation_failed, "failed to create http session");
    }
    auto engine = std::make_shared<TransferEngineImpl>(session);
    TransferEngine* const owned = engine.get();
    return {owned, [engine = std::move(engine)](TransferEngine*) mutable {
                exceptionSafeWrapper([&] { engine->end(); });
                engine.reset();  // now, not with the last of the weak references
            }};
}

TransferEngineImpl::TransferEngineImpl(void* session) : session_(session) {
    VELMORA_LOG(trace, "transfer") << "In TransferEngineImpl";
}

void TransferEngineImpl::end() {
    VELMORA_LOG_AT(trace, "transfer", "velmora::transfer::TransferEngineImpl::~TransferEngineImpl")
        << "In ~TransferEngineImpl";
    Contexts open;
    {
        const MutexLock lock(contextsMutex_);
        open.swap(contexts_);
    }
    for (const auto& entry : open) removeHostContext(entry.second->token);
    waitForNotifications();
    setErrorCallback(nullptr);
    if (const auto deleteSession = hostCallbacks.deleteSession.load()) {
        deleteSession(session_);
    } else {
        VELMORA_LOG(warn, "transfer") << "http delete session callback not set";
    }
    for (const auto& entry : open) {
        exceptionSafeWrapper([&] { entry.second->responder->onCancellation(); });
    }
}

void TransferEngineImpl::sendRequest(std::error_code& out, http::Verb verb, const std::string& url,
                                     std::shared_ptr<TransferResponder> responder, uint32_t* requestId) {
    ++activeSends_;
    const ScopeExit leave([this, outer = std::exchange(sendingEngine, this)] {
        sendingEngine = outer;
        --activeSends_;
    });
    if (!online_) {
        out = VelmoraHttpError::offline;
        return;
    }
    const auto send = requireCallback(hostCallbacks.sendRequest, "http send request callback not set");
    const auto context = addHostContext(weak_from_this(), std::move(responder));
    const int32_t rc = send(session_, hostVerb(verb), url.c_str(), kSendVersion, context->token, requestId);
    afterSend(context, *requestId, rc == 0);
    out = httpError(rc);
    if (rc != 0) reportError(out, "failed to send request");
}

void TransferEngineImpl::afterSend(const std::shared_ptr<HostContext>& context, uint32_t requestId, bool isAccepted) {
    {
        const MutexLock lock(contextsMutex_);
        context->requestId = requestId;
        context->sent = true;
        if (isAccepted && !context->completed) {
            contexts_.emplace(requestId, context);
            return;
        }
    }
    removeHostContext(context->token);
}

void TransferEngineImpl::cancelRequest(std::error_code& out, uint32_t requestId) {
    const auto cancel = requireCallback(hostCallbacks.cancelRequest, "http cancel request callback not set");
    out = httpError(cancel(session_, requestId));
    if (out == VelmoraHttpError::invalid_input) releaseContextOf(requestId);  // no completion is to come
}

void TransferEngineImpl::complete(HostContext& context, uint32_t result, const std::string& message) {
    const ScopeExit release([&] { releaseContext(context); });
    reportOutcome(*context.responder, result, message);
}

void TransferEngineImpl::reportOutcome(TransferResponder& responder, uint32_t result, const std::string& message) {
    if (result == VELMORA_HTTP_OK) return responder.onCompletion();
    if (result == VELMORA_HTTP_CANCELLED) return responder.onCancellation();
    const std::error_code error = httpError(static_cast<int32_t>(result));
    responder.onError(error, message);
    reportError(error, message);
}

void TransferEngineImpl::reportError(std::error_code error, const std::string& message) {
    std::shared_ptr<const ErrorCallback> onError;
    {
        const MutexLock lock(errorMutex_);
        onError = onError_;
    }
    if (onError) (*onError)(error, message);
}

// Before sendRequest has got to the context, this leaves a mark, and sendRequest lets go of it.
void TransferEngineImpl::releaseContext(HostContext& context) {
    std::shared_ptr<HostContext> released;
    {
        const MutexLock lock(contextsMutex_);
        context.completed = true;
        if (!context.sent) return;
        const auto [first, last] = contexts_.equal_range(context.requestId);
        for (auto it = first; it != last; ++it) {
            if (it->second.get() != &context) continue;
            released = std::move(it->second);
            contexts_.erase(it);
            break;
        }
    }
    removeHostContext(context.token);
}

void TransferEngineImpl::releaseContextOf(uint32_t requestId) {
    std::shared_ptr<HostContext> context;
    {
        const MutexLock lock(contextsMutex_);
        if (contexts_.count(requestId) == 1) context = contexts_.find(requestId)->second;
    }
    if (context) releaseContext(*context);
}

void TransferEngineImpl::online() { online_ = true; }

void TransferEngineImpl::offline() {
    online_ = false;
    const bool isSending = sendingEngine == this;
    if (isSending) ++waitingSends_;
    const ScopeExit leave([&] {
        if (isSending) --waitingSends_;
    });
    waitFor([&] { return activeSends_ <= (isSending ? waitingSends_.load() : 0); }, "active send calls", 1, kNoTimeout);
}

void TransferEngineImpl::setErrorCallback(ErrorCallback callback) {
    auto exchanged = callback ? std::make_shared<const ErrorCallback>(std::move(callback)) : nullptr;
    {
        const MutexLock lock(errorMutex_);
        onError_.swap(exchanged);
    }
    if (!exchanged) return;
    waitFor([&] { return exchanged.use_count() == 1; }, "error callbacks", 1, kNoTimeout);
}

}  // namespace velmora::transfer
