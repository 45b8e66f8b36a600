#include "core/transfer/hostcontext.h"

#include <atomic>
#include <unordered_map>
#include <utility>

#include "core/types/mutex.h"
#include "core/utils/gate.h"

namespace velmora::transfer {
namespace {

struct Table {
    Mutex mutex;  // innermost: nothing else is locked or called under it
    uintptr_t lastToken VELMORA_GUARDED_BY(mutex) = 0;
    std::unordered_map<void*, std::shared_ptr<HostContext>> contexts VELMORA_GUARDED_BY(mutex);
};

// Never destroyed: a host may report until the very end of the process.
Table& table() {
    static Table& instance = *new Table;
    return instance;
}

std::atomic<uint32_t> visits = 0;      // raised before a context is looked for
thread_local uint32_t visitsHere = 0;  // those of them that are this thread's

}  // namespace

std::shared_ptr<HostContext> addHostContext(std::weak_ptr<TransferEngineImpl> engine,
                                            std::shared_ptr<TransferResponder> responder) {
    auto context =
        std::make_shared<HostContext>(HostContext{.engine = std::move(engine), .responder = std::move(responder)});
    Table& all = table();
    const MutexLock lock(all.mutex);
    context->token = reinterpret_cast<void*>(++all.lastToken);
    all.contexts.emplace(context->token, context);
    return context;
}

std::shared_ptr<HostContext> findHostContext(void* token) {
    Table& all = table();
    const MutexLock lock(all.mutex);
    const auto found = all.contexts.find(token);
    return found == all.contexts.end() ? nullptr : found->second;
}

void removeHostContext(void* token) {
    std::shared_ptr<HostContext> removed;  // what it holds is let go of after the unlocking
    Table& all = table();
    const MutexLock lock(all.mutex);
    const auto found = all.contexts.find(token);
    if (found == all.contexts.end()) return;
    removed = std::move(found->second);
    all.contexts.erase(found);
}

NotificationVisit::NotificationVisit() {
    ++visits;
    ++visitsHere;
}

NotificationVisit::~NotificationVisit() {
    --visitsHere;
    --visits;
}

void waitForNotifications() {
    waitFor([] { return visits <= visitsHere; }, "notifications", 1, kNoTimeout);
}

}  // namespace velmora::transfer
