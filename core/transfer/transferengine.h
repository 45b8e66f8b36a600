// The bridge between transfers and the HTTP stack.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "core/http/message.h"

namespace velmora::transfer {

class TransferResponder;

// Threads: any. Nothing is called back under a lock.
class TransferEngine {
public:
    virtual ~TransferEngine() = default;

    // Asks for a request to be sent; `out` tells whether it was taken over, and `requestId` then names it.
    virtual void sendRequest(std::error_code& out, http::Verb verb, const std::string& url,
                             std::shared_ptr<TransferResponder> responder, uint32_t* requestId) = 0;
    virtual void cancelRequest(std::error_code& out, uint32_t requestId) = 0;

    // Allow and forbid sending; an engine begins on line. offline() returns when no send is under way.
    virtual void online() = 0;
    virtual void offline() = 0;

    // Told of every request that fails below HTTP; empty for nobody. Returns when the former callback runs no more, and
    // so must not be called from within it.
    using ErrorCallback = std::function<void(std::error_code, const std::string&)>;
    virtual void setErrorCallback(ErrorCallback callback) = 0;
};

// The engine over the host's callbacks (velmora/http.h). Opens the host's session: throws `http_callback_not_set` or
// `http_session_creation_failed`. Whoever drops the last reference gives the session back there: notifications under
// way are waited for, requests still with the host are cancelled, and what the host reports afterwards is refused.
[[nodiscard]] std::shared_ptr<TransferEngine> makeTransferEngine();

}  // namespace velmora::transfer
