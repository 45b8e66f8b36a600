#include "velmora/httpstack.h"

#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

#include "httpstack/exchange.h"
#include "httpstack/settings.h"
#include "httpstack/transport.h"
#include "velmora/http.h"
#include "velmora/types.h"

namespace velmora::httpstack {
namespace {

// Settings, exchanges and transport of one installation.
class Stack {
public:
    explicit Stack(Settings settings) : settings_(std::move(settings)), transport_(makeTransport(settings_, table_)) {}

    int32_t send(int32_t verb, const char* url, void* session, void* context, uint32_t& requestId) {
        std::string target = routedUrl(settings_, url);
        const auto exchange = table_.open(verb, std::move(target), session, context);
        if (exchange == nullptr) return VELMORA_HTTP_RETRIABLE;
        requestId = exchange->id();
        try {
            transport_->start(exchange);
        } catch (...) {
            table_.discard(*exchange);
            throw;
        }
        return VELMORA_HTTP_OK;
    }

    int32_t cancel(uint32_t id) {
        switch (table_.cancel(id)) {
            case CancelAnswer::Unknown:
                return VELMORA_HTTP_INVALID_INPUT;
            case CancelAnswer::TooLate:
                return VELMORA_HTTP_CANCEL_IGNORED;
            case CancelAnswer::Accepted:
                break;
        }
        transport_->cancel(id);
        return VELMORA_HTTP_OK;
    }

    void shutDown() {
        for (const uint32_t id : table_.close()) transport_->cancel(id);
        table_.waitUntilEmpty();
        transport_->stop();
    }

private:
    const Settings settings_;
    ExchangeTable table_;
    const std::unique_ptr<Transport> transport_;
};

// The installed stack. Neither part is ever destroyed, since the library may still ask while the process ends.
struct Installation {
    Mutex mutex;
    std::shared_ptr<Stack> stack VELMORA_GUARDED_BY(mutex);
};

Installation& installation() {
    static auto* const kInstallation = new Installation;
    return *kInstallation;
}

std::shared_ptr<Stack> installedStack() {
    Installation& current = installation();
    const MutexLock lock(current.mutex);
    return current.stack;
}

std::shared_ptr<Stack> takeStack() {
    Installation& current = installation();
    const MutexLock lock(current.mutex);
    return std::exchange(current.stack, nullptr);
}

void* onNewSession() { return &installation(); }

void onDeleteSession(void*) {}

int32_t onSend(void* session, int32_t verb, const char* url, int32_t, void* context, uint32_t* requestId) {
    if (url == nullptr || requestId == nullptr) return VELMORA_HTTP_INVALID_INPUT;
    try {
        const auto stack = installedStack();
        return stack ? stack->send(verb, url, session, context, *requestId) : VELMORA_HTTP_RETRIABLE;
    } catch (const std::exception&) {
        return VELMORA_HTTP_RETRIABLE;
    }
}

int32_t onCancel(void*, uint32_t requestId) {
    try {
        const auto stack = installedStack();
        return stack ? stack->cancel(requestId) : VELMORA_HTTP_INVALID_INPUT;
    } catch (const std::exception&) {
        return VELMORA_HTTP_UNKNOWN;
    }
}

void setCallbacks() {
    velmora_http_setNewSessionCallback(onNewSession);
    velmora_http_setDeleteSessionCallback(onDeleteSession);
    velmora_http_setSendRequestCallback(onSend);
    velmora_http_setCancelRequestCallback(onCancel);
}

void removeCallbacks() {
    velmora_http_setSendRequestCallback(nullptr);
    velmora_http_setCancelRequestCallback(nullptr);
    velmora_http_setNewSessionCallback(nullptr);
    velmora_http_setDeleteSessionCallback(nullptr);
}

// Ends a stack that the host has left installed, before the libraries below it end their own state.
struct UninstallAtExit {
    ~UninstallAtExit() {
        if (!threadsAreGone()) velmora_httpstack_uninstall();
    }
};

int32_t install(const velmora_httpstack_options* options) {
    auto settings = readOptions(options);
    if (!settings) return VELMORA_ERROR_INVALID_ARGUMENT;
    Installation& current = installation();
    {
        const MutexLock lock(current.mutex);
        if (current.stack != nullptr) return VELMORA_ERROR_PRECONDITION_FAILED;
        current.stack = std::make_shared<Stack>(std::move(*settings));
    }
    static const UninstallAtExit kUninstallAtExit;
    setCallbacks();
    return VELMORA_OK;
}

}  // namespace
}  // namespace velmora::httpstack

extern "C" {

void velmora_httpstack_defaults(velmora_httpstack_options* options) {
    if (options == nullptr) return;
    const velmora::httpstack::Settings defaults;
    std::memset(options, 0, velmora::httpstack::kFirstOptionsSize);  // the caller's struct may end there
    options->size = static_cast<uint32_t>(velmora::httpstack::kFirstOptionsSize);
    options->connectTimeoutMs = static_cast<uint32_t>(defaults.connectTimeout.count());
    options->totalTimeoutMs = static_cast<uint32_t>(defaults.totalTimeout.count());
    options->maxRedirects = defaults.maxRedirects;
}

int32_t velmora_httpstack_install(const velmora_httpstack_options* options) {
    try {
        return velmora::httpstack::install(options);
    } catch (const std::invalid_argument&) {
        return VELMORA_ERROR_INVALID_ARGUMENT;
    } catch (const std::exception&) {
        return VELMORA_ERROR_UNKNOWN;
    }
}

void velmora_httpstack_uninstall(void) {
    const auto stack = velmora::httpstack::takeStack();
    if (stack == nullptr) return;
    velmora::httpstack::removeCallbacks();
    stack->shutDown();
}

}  // extern "C"
