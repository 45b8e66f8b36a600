#include "core/transfer/requestcontext.h"

#include <stdexcept>

#include "core/platform/process.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"

namespace velmora::transfer {

RequestContext::RequestContext(std::shared_ptr<TransferRequest> transfer, std::shared_ptr<http::Responder> responder)
    : transfer_(std::move(transfer)), responder_(std::move(responder)) {}

void RequestContext::waitForCompletion() {
    VELMORA_LOG_SCOPE(info, "http", "wait for response");
    const MutexLock lock(finishedMutex_);
    finishedCondition_.wait(finishedMutex_,
                            [this]() VELMORA_REQUIRES(finishedMutex_) { return state_ == State::finished; });
}

void RequestContext::stop() noexcept {
    exceptionSafeWrapper([this] {
        {
            const MutexLock lock(finishedMutex_);
            if (state_ == State::finished) return;
        }
        exceptionSafeWrapper([this] { transfer_->cancel(); });
        VELMORA_LOG_SCOPE(info, "http", "stop request context");
        if (isConcludedHere() || platform::isTerminating()) return;
        const MutexLock lock(finishedMutex_);
        finishedCondition_.wait(finishedMutex_,
                                [this]() VELMORA_REQUIRES(finishedMutex_) { return state_ != State::performing; });
        state_ = State::finished;
        finishedCondition_.notifyAll();
    });
}

bool RequestContext::begin() {
    const MutexLock lock(finishedMutex_);
    if (state_ == State::finished) return false;
    if (state_ == State::performing) throw std::logic_error("request is under way already");
    state_ = State::performing;
    return true;
}

void RequestContext::conclude(UniqueFunction<void(http::Responder&)> tell) {
    std::shared_ptr<http::Responder> responder;
    {
        const MutexLock lock(responderMutex_);
        responder.swap(responder_);
    }
    if (!responder) return;
    {
        const MutexLock lock(finishedMutex_);
        concluder_ = std::this_thread::get_id();
    }
    const ScopeExit finish([&] {
        responder.reset();  // whoever has waited finds nothing of the request still in use
        setFinished();
    });
    if (tell) tell(*responder);
}

void RequestContext::setFinished() {
    const MutexLock lock(finishedMutex_);
    state_ = State::finished;
    concluder_ = {};
    finishedCondition_.notifyAll();
}

bool RequestContext::isConcludedHere() {
    const MutexLock lock(finishedMutex_);
    return concluder_ == std::this_thread::get_id();
}

}  // namespace velmora::transfer
