// Ties a transfer to the responder that hears of it, and lets callers wait for the end.
#pragma once

#include <memory>
#include <thread>
#include <utility>

#include "core/http/responder.h"
#include "core/transfer/transferrequest.h"
#include "core/types/function.h"
#include "core/types/mutex.h"

namespace velmora::transfer {

// Held by std::shared_ptr. The responder's operations are called one at a time, none of them after its outcome, and the
// outcome under no lock. Threads: any.
class RequestContext {
public:
    RequestContext(std::shared_ptr<TransferRequest> transfer, std::shared_ptr<http::Responder> responder);

    [[nodiscard]] TransferRequest& transfer() const { return *transfer_; }

    // Blocks until the responder has heard its outcome, or until a request that was never performed has been stopped.
    void waitForCompletion();

    // Cancels what is under way and returns when the completion path has ended; at once if it has, if there is none, if
    // it is the completion path that calls, or if the process is terminating, whose threads complete nothing any more.
    // Does not throw.
    void stop() noexcept;

    // For whoever performs the transfer: announces an outcome. False if the request is over already. Throws
    // std::logic_error if it is under way.
    [[nodiscard]] bool begin();

    // Tells the responder something on the way.
    template <typename Tell>
    void inform(Tell tell) {
        const MutexLock lock(responderMutex_);
        if (responder_) tell(*responder_);
    }

    // Tells the responder its outcome, and wakes those who wait, also if the responder throws. Only the first call has
    // an effect; an empty function ends the request without a word.
    void conclude(UniqueFunction<void(http::Responder&)> tell);

private:
    enum class State { idle, performing, finished };

    void setFinished() VELMORA_EXCLUDES(finishedMutex_);
    [[nodiscard]] bool isConcludedHere() VELMORA_EXCLUDES(finishedMutex_);

    const std::shared_ptr<TransferRequest> transfer_;

    Mutex finishedMutex_;  // the two mutexes are never held together
    Condition finishedCondition_;
    State state_ VELMORA_GUARDED_BY(finishedMutex_) = State::idle;
    std::thread::id concluder_ VELMORA_GUARDED_BY(finishedMutex_);

    Mutex responderMutex_;
    std::shared_ptr<http::Responder> responder_ VELMORA_GUARDED_BY(responderMutex_);  // null once the outcome is told
};

}  // namespace velmora::transfer
