// The bridge between transfers and the host's HTTP callbacks (velmora/http.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "core/utils/gate.h"
#include "velmora/http.h"

namespace velmora::transfer {

class Transfer;

// The host's callbacks. Exchanged by the host at any time, each on its own; a change acts on the next use. Null means
// that there is none. Atomic without a mutex: no two of them have to agree.
struct HostCallbacks {
    std::atomic<velmora_http_new_session_callback> newSession = nullptr;
    std::atomic<velmora_http_delete_session_callback> deleteSession = nullptr;
    std::atomic<velmora_http_send_request_callback> sendRequest = nullptr;
    std::atomic<velmora_http_cancel_request_callback> cancelRequest = nullptr;
};

inline constinit HostCallbacks hostCallbacks;

// Owns the host's session, from its construction to its destruction, and lists the transfers for which the host may
// report something. What the host holds of a transfer is a token that is never null and never used twice, so a host
// that reports something for a transfer that is over, against the rules, is refused instead of meeting freed memory.
//
//   sendRequest lists the transfer -> the host may report -> it completes, refuses it, or does not know it any more:
//   unlisted, and the token is dead. The end of the engine unlists what is left.
//
// Two gates: sends_ is closed while off line, notifications_ for ever when the engine ends.
//
// Threads: any. The host's callbacks and the error callback are called under no lock, and may enter the library.
class TransferEngine {
public:
    // Told of every request that fails below HTTP: the velmora_http_error, and the host's message. On the host's
    // thread, after the transfer's own responder. Runs no more once the engine is destroyed.
    using ErrorCallback = std::function<void(std::error_code, const std::string&)>;

    // Opens the host's session: throws `http_callback_not_set` or `http_session_creation_failed`.
    explicit TransferEngine(ErrorCallback onError);

    // Waits for the notifications under way, those of the calling thread aside, gives the session back, and tells the
    // transfers that are still with the host that they are cancelled. What the host reports afterwards is refused.
    ~TransferEngine();
    TransferEngine(const TransferEngine&) = delete;
    TransferEngine& operator=(const TransferEngine&) = delete;

    struct Sent {
        std::error_code error;   // 0: the host has taken the request over
        uint32_t requestId = 0;  // its name for the host; not 0 without an error
    };

    // Lists the transfer and hands it to the host. `offline` without asking the host while off line; `unknown` for a
    // host that takes a request over without naming it. After an error the transfer is not listed. Throws
    // `http_callback_not_set`.
    [[nodiscard]] Sent sendRequest(Transfer& transfer);

    // Asks the host to cancel; its answer. After `invalid_input` no completion is to come and the transfer is unlisted;
    // after every other answer the host still completes it. Throws `http_callback_not_set`.
    [[nodiscard]] std::error_code cancelRequest(const Transfer& transfer);

    // Allow and forbid sending; an engine begins on line. offline() returns when no send callback is under way; within
    // one it waits for none.
    void online() { sends_.open(); }
    void offline();

private:
    friend class Notification;

    void reportError(std::error_code error, const std::string& message) const;

    void* const session_;  // the host's
    const ErrorCallback onError_;
    Gate sends_;
    Gate notifications_;
};

// One notification of the host, while it is under way: the transfer that it names, and a hold on that one's engine,
// which does not end before it. On the stack of the host's thread.
class Notification {
public:
    // Empty, and logged, if the token names no transfer of that session.
    Notification(const void* session, const void* token);
    ~Notification();
    Notification(const Notification&) = delete;
    Notification& operator=(const Notification&) = delete;

    explicit operator bool() const noexcept { return transfer_ != nullptr; }
    [[nodiscard]] Transfer& transfer() const noexcept { return *transfer_; }  // only if it is not empty

    // The host has ended the exchange with a velmora_http_result. Tells the transfer, then, of a failure, the engine's
    // error callback. Nothing is accepted for the token afterwards, also if one of them throws.
    void complete(uint32_t result, const std::string& message);

private:
    const void* const token_;
    std::shared_ptr<Transfer> transfer_;
    TransferEngine* engine_ = nullptr;
};

// As the constructor; for callers who do not name the class's insides.
[[nodiscard]] std::shared_ptr<TransferEngine> makeTransferEngine(TransferEngine::ErrorCallback onError = {});

}  // namespace velmora::transfer
