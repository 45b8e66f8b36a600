// The transfer engine over the host's callbacks.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>

#include "core/transfer/hostcontext.h"
#include "core/transfer/transferengine.h"
#include "core/types/mutex.h"

namespace velmora::transfer {

// Made and ended by makeTransferEngine, whose reference is the owner's. A notification holds the engine for a moment as
// well, but never ends it: the host's callbacks do not come on its own threads. They are called under no lock and may
// enter the library again.
class TransferEngineImpl final : public TransferEngine, public std::enable_shared_from_this<TransferEngineImpl> {
public:
    // Takes the host's session over; end() gives it back.
    explicit TransferEngineImpl(void* session);
    void end();

    // Throws `http_callback_not_set`.
    void sendRequest(std::error_code& out, http::Verb verb, const std::string& url,
                     std::shared_ptr<TransferResponder> responder, uint32_t* requestId) override;
    void cancelRequest(std::error_code& out, uint32_t requestId) override;

    void online() override;

    // Called from within a send callback it does not wait for that one.
    void offline() override;

    void setErrorCallback(ErrorCallback callback) override;

    [[nodiscard]] void* session() const noexcept { return session_; }

    // The host has ended the exchange. Tells the responder, and lets go of the context.
    void complete(HostContext& context, uint32_t result, const std::string& message);

private:
    // With the host, by request id; ids are the host's, so nothing keeps it from giving one twice.
    using Contexts = std::multimap<uint32_t, std::shared_ptr<HostContext>>;

    void afterSend(const std::shared_ptr<HostContext>& context, uint32_t requestId, bool isAccepted);
    void releaseContext(HostContext& context);
    void releaseContextOf(uint32_t requestId);
    void reportOutcome(TransferResponder& responder, uint32_t result, const std::string& message);
    void reportError(std::error_code error, const std::string& message);

    void* const session_;

    Mutex errorMutex_;
    std::shared_ptr<const ErrorCallback> onError_ VELMORA_GUARDED_BY(errorMutex_);  // held by each call of it, or null

    Mutex contextsMutex_;
    Contexts contexts_ VELMORA_GUARDED_BY(contextsMutex_);

    std::atomic<bool> online_ = true;         // written by online and offline
    std::atomic<uint32_t> activeSends_ = 0;   // calls of sendRequest; raised before online_ is looked at
    std::atomic<uint32_t> waitingSends_ = 0;  // those of them that wait in offline() themselves
};

}  // namespace velmora::transfer
