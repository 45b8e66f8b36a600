#include "core/transfer/transferengine.h"

#include <unordered_map>
#include <utility>
#include <vector>

#include "core/transfer/transfer.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/callbackscope.h"
#include "core/utils/gate.h"

namespace velmora::transfer {
namespace {

constexpr int32_t kSendVersion = 2;

struct Entry {
    std::shared_ptr<Transfer> transfer;
    TransferEngine* engine;
};

// The transfers of all engines, by their tokens.
struct Table {
    Mutex mutex;  // innermost but for an engine's gates
    uintptr_t lastToken VELMORA_GUARDED_BY(mutex) = 0;
    std::unordered_map<uintptr_t, Entry> entries VELMORA_GUARDED_BY(mutex);
};

// Never destroyed: a host may report until the very end of the process.
Table& table() {
    static Table& instance = *new Table;
    return instance;
}

uintptr_t addEntry(Entry entry) {
    Table& all = table();
    const MutexLock lock(all.mutex);
    all.entries.emplace(++all.lastToken, std::move(entry));
    return all.lastToken;
}

template <typename Predicate>
std::vector<Entry> removeEntriesIf(Predicate predicate) {
    std::vector<Entry> removed;  // what they hold is let go of after the unlocking
    Table& all = table();
    const MutexLock lock(all.mutex);
    for (auto it = all.entries.begin(); it != all.entries.end();) {
        if (predicate(it->second)) {
            removed.push_back(std::move(it->second));
            it = all.entries.erase(it);
        } else {
            ++it;
        }
    }
    return removed;
}

void removeEntry(uintptr_t token) {
    Entry removed;  // lets go after the unlocking
    Table& all = table();
    const MutexLock lock(all.mutex);
    const auto found = all.entries.find(token);
    if (found == all.entries.end()) return;
    removed = std::move(found->second);
    all.entries.erase(found);
}

thread_local const TransferEngine* sendingEngine = nullptr;  // whose send callback runs on this thread
thread_local uint32_t notificationsHere = 0;                 // under way on this thread

template <typename Callback>
Callback requireCallback(const std::atomic<Callback>& slot, const char* message) {
    const Callback callback = slot;
    if (!callback) throw std::system_error(VelmoraError::http_callback_not_set, message);
    return callback;
}

template <typename Callback, typename... Args>
auto call(Callback callback, Args... args) {
    const CallbackScope scope(nullptr);
    return callback(args...);
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

void* openSession() {
    const auto newSession = requireCallback(hostCallbacks.newSession, "http new session callback not set");
    void* const session = call(newSession);
    if (!session) throw std::system_error(VelmoraError::http_session_creation_failed, "failed to create http session");
    return session;
}

}  // namespace

std::shared_ptr<TransferEngine> makeTransferEngine(TransferEngine::ErrorCallback onError) {
    return std::make_shared<TransferEngine>(std::move(onError));
}

TransferEngine::TransferEngine(ErrorCallback onError) : session_(openSession()), onError_(std::move(onError)) {
    VELMORA_LOG(trace, "transfer") << "In TransferEngineImpl";
}

TransferEngine::~TransferEngine() {
    exceptionSafeWrapper([this] {
        VELMORA_LOG_AT(trace, "transfer", "velmora::transfer::TransferEngine::~TransferEngine")
            << "In ~TransferEngineImpl";
        const std::vector<Entry> open = removeEntriesIf([this](const Entry& entry) { return entry.engine == this; });
        notifications_.close();
        notifications_.wait(notificationsHere);
        if (const auto deleteSession = hostCallbacks.deleteSession.load()) {
            call(deleteSession, session_);
        } else {
            VELMORA_LOG(warn, "transfer") << "http delete session callback not set";
        }
        for (const Entry& entry : open) exceptionSafeWrapper([&] { entry.transfer->onCancellation(); });
    });
}

TransferEngine::Sent TransferEngine::sendRequest(Transfer& transfer) {
    if (!sends_.enter()) return {VelmoraHttpError::offline, 0};
    const ScopeExit leave([this, outer = std::exchange(sendingEngine, this)] {
        sendingEngine = outer;
        sends_.leave();
    });
    const auto send = requireCallback(hostCallbacks.sendRequest, "http send request callback not set");
    const http::Request& request = transfer.request();
    const uintptr_t token = addEntry({transfer.shared_from_this(), this});
    Sent sent;
    const int32_t rc = call(send, session_, hostVerb(request.verb), request.url.c_str(), kSendVersion,
                            reinterpret_cast<void*>(token), &sent.requestId);
    sent.error = httpError(rc);
    if (rc == 0 && sent.requestId != 0) return sent;
    removeEntry(token);
    if (rc != 0) {
        reportError(sent.error, "failed to send request");
    } else {
        sent.error = VelmoraHttpError::unknown;  // without an id it was not taken over
    }
    return sent;
}

std::error_code TransferEngine::cancelRequest(const Transfer& transfer) {
    const auto cancel = requireCallback(hostCallbacks.cancelRequest, "http cancel request callback not set");
    const std::error_code rc = httpError(call(cancel, session_, transfer.requestId()));
    if (rc == VelmoraHttpError::invalid_input) {
        removeEntriesIf([&](const Entry& entry) { return entry.transfer.get() == &transfer; });
    }
    return rc;
}

void TransferEngine::offline() {
    sends_.close();
    if (sendingEngine == this) return;
    waitFor([this](Gate::Clock::time_point deadline) { return sends_.waitUntil(deadline); }, "active send calls");
}

void TransferEngine::reportError(std::error_code error, const std::string& message) const {
    if (onError_) onError_(error, message);
}

// ---- notifications

// An engine takes its transfers off the table before it waits for notifications, so a listed one's is alive.
Notification::Notification(const void* session, const void* token) : token_(token) {
    const char* refusal = "No context!";
    {
        Table& all = table();
        const MutexLock lock(all.mutex);
        const auto found = all.entries.find(reinterpret_cast<uintptr_t>(token));
        if (found != all.entries.end()) {
            refusal = "Mismatch in session";
            if (found->second.engine->session_ == session && found->second.engine->notifications_.enter()) {
                transfer_ = found->second.transfer;
                engine_ = found->second.engine;
                ++notificationsHere;
            }
        }
    }
    if (!engine_) VELMORA_LOG(error, "transfer") << refusal;
}

Notification::~Notification() {
    if (!engine_) return;
    transfer_.reset();
    --notificationsHere;
    engine_->notifications_.leave();
}

void Notification::complete(uint32_t result, const std::string& message) {
    const ScopeExit forget([this] { removeEntry(reinterpret_cast<uintptr_t>(token_)); });
    if (result == VELMORA_HTTP_OK) return transfer_->onCompletion();
    if (result == VELMORA_HTTP_CANCELLED) return transfer_->onCancellation();
    const std::error_code error = httpError(static_cast<int32_t>(result));
    transfer_->onError(error, message);
    engine_->reportError(error, message);
}

}  // namespace velmora::transfer
