// What the library keeps of a request while it is with the host.
#pragma once

#include <cstdint>
#include <memory>

#include "core/transfer/transferresponder.h"

namespace velmora::transfer {

class TransferEngineImpl;

struct HostContext {
    void* token = nullptr;   // what the host holds
    uint32_t requestId = 0;  // the next three under the mutex of the engine's contexts
    bool sent = false;       // sendRequest is done with it
    bool completed = false;  // the completion has come before that
    const std::weak_ptr<TransferEngineImpl> engine;
    const std::shared_ptr<TransferResponder> responder;
};

// The contexts of all engines by their tokens. A token is never null and never used twice, so a host that reports
// something for a request that is over, against the rules, is refused instead of meeting freed memory.
// Threads: any.
[[nodiscard]] std::shared_ptr<HostContext> addHostContext(std::weak_ptr<TransferEngineImpl> engine,
                                                          std::shared_ptr<TransferResponder> responder);
[[nodiscard]] std::shared_ptr<HostContext> findHostContext(void* token);  // null if there is none
void removeHostContext(void* token);

// Lives for as long as a notification of the host is under way.
class NotificationVisit {
public:
    NotificationVisit();
    ~NotificationVisit();
    NotificationVisit(const NotificationVisit&) = delete;
    NotificationVisit& operator=(const NotificationVisit&) = delete;
};

// Returns when the notifications that were under way are over, those of the calling thread aside. Whoever has removed
// contexts before knows that nothing uses them any more.
void waitForNotifications();

}  // namespace velmora::transfer
