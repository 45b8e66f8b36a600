#include "httpstack/windows/winhttptransport.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "velmora/http.h"

namespace velmora::httpstack {
namespace {

constexpr std::chrono::milliseconds kClosingLimit{1000};
constexpr DWORD kAutomaticProxy = 4;  // since Windows 8.1

// WinHTTP wants "host:port" of a proxy's URL.
std::wstring proxyName(std::string_view url) {
    const size_t scheme = url.find("://");
    if (scheme != std::string_view::npos) url.remove_prefix(scheme + 3);
    while (!url.empty() && url.back() == '/') url.remove_suffix(1);
    return wideText(url);
}

HINTERNET openWith(const Settings& settings, DWORD access, const wchar_t* proxy) {
    return ::WinHttpOpen(wideText(settings.userAgent).c_str(), access, proxy, WINHTTP_NO_PROXY_BYPASS,
                         WINHTTP_FLAG_ASYNC);
}

HINTERNET openSession(const Settings& settings) {
    if (settings.proxy && settings.proxy->empty())
        return openWith(settings, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME);
    if (settings.proxy) return openWith(settings, WINHTTP_ACCESS_TYPE_NAMED_PROXY, proxyName(*settings.proxy).c_str());
    HINTERNET session = openWith(settings, kAutomaticProxy, WINHTTP_NO_PROXY_NAME);
    if (session == nullptr) session = openWith(settings, WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME);
    return session;
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

// A system that does not know TLS 1.3 refuses the pair.
void allowProtocols(HINTERNET session) {
    constexpr DWORD kTls13 = 0x00002000;
    for (DWORD protocols : {WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | kTls13, DWORD{WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2}}) {
        if (::WinHttpSetOption(session, WINHTTP_OPTION_SECURE_PROTOCOLS, &protocols, sizeof protocols) != FALSE) return;
    }
}

// All time limits are the transport's own.
WinHttpHandle makeSession(const Settings& settings) {
    if (!settings.caBundle.empty()) throw std::invalid_argument("certificates come from the system's store");
    WinHttpHandle session(openSession(settings));
    if (session == nullptr) fail("WinHttpOpen");
    if (::WinHttpSetTimeouts(session.get(), 0, 0, 0, 0) == FALSE) fail("WinHttpSetTimeouts");
    DWORD never = MAXDWORD;
    ::WinHttpSetOption(session.get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &never, sizeof never);
    allowProtocols(session.get());
    return session;
}

// The system may still call into this module: it has to stay.
void keepModule() {
    HMODULE module = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                         reinterpret_cast<LPCWSTR>(reinterpret_cast<void*>(&keepModule)), &module);
}

}  // namespace

std::unique_ptr<Transport> makeTransport(const Settings& settings, ExchangeTable& table) {
    return std::make_unique<WinHttpTransport>(settings, table);
}

bool threadsAreGone() noexcept {
    using Query = BOOLEAN(WINAPI*)();
    const auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
    return query != nullptr && query() != FALSE;
}

WinHttpTransport::WinHttpTransport(const Settings& settings, ExchangeTable& table)
    : settings_(settings), table_(table), session_(makeSession(settings)), thread_([this] { run(); }) {}

WinHttpTransport::~WinHttpTransport() { stop(); }

void WinHttpTransport::start(std::shared_ptr<Exchange> exchange) { mailbox_->postStart(std::move(exchange)); }

void WinHttpTransport::cancel(uint32_t id) { mailbox_->postCancel(id); }

void WinHttpTransport::stop() {
    if (!thread_.joinable()) return;
    mailbox_->postEnd();
    thread_.join();
    session_.reset();
    if (!mailbox_->waitUntilClosed(kClosingLimit)) keepModule();
}

void WinHttpTransport::run() {
    for (bool ending = false; !ending;) {
        const Mailbox::Contents mail = mailbox_->take(nextDeadline());
        for (const auto& exchange : mail.started) begin(exchange);
        for (const uint32_t id : mail.cancelled) end(id, {VELMORA_HTTP_CANCELLED, "cancelled"});
        for (const Progress& progress : mail.progress) advance(progress);
        endExpired();
        ending = mail.ending;
    }
}

template <typename Step>
std::optional<Outcome> WinHttpTransport::guarded(Step step) {
    try {
        return step();
    } catch (const std::invalid_argument& problem) {
        return Outcome{VELMORA_HTTP_NON_RETRIABLE, problem.what()};
    } catch (const std::exception& problem) {
        return Outcome{VELMORA_HTTP_RETRIABLE, problem.what()};
    }
}

void WinHttpTransport::begin(const std::shared_ptr<Exchange>& exchange) {
    if (table_.isCancelled(exchange->id())) return table_.finish(*exchange, VELMORA_HTTP_CANCELLED, "");
    const auto outcome = guarded([&] {
        auto started = std::make_unique<WinHttpExchange>(exchange, settings_, session_.get(), mailbox_);
        return running_.emplace(exchange->id(), std::move(started)).first->second->begin();
    });
    if (!outcome) return;
    running_.erase(exchange->id());
    table_.finish(*exchange, outcome->result, outcome->message);
}

void WinHttpTransport::advance(const Progress& progress) {
    const auto id = static_cast<uint32_t>(progress.hop >> 32);
    const auto found = running_.find(id);
    if (found == running_.end()) return;
    if (const auto outcome = guarded([&] { return found->second->advance(progress); })) end(id, *outcome);
}

void WinHttpTransport::endExpired() {
    const auto now = std::chrono::steady_clock::now();
    std::vector<uint32_t> expired;
    for (const auto& [id, exchange] : running_) {
        if (const auto deadline = exchange->deadline(); deadline && *deadline <= now) expired.push_back(id);
    }
    for (const uint32_t id : expired) end(id, running_.at(id)->timedOut());
}

void WinHttpTransport::end(uint32_t id, const Outcome& outcome) {
    const auto found = running_.find(id);
    if (found == running_.end()) return;
    const std::unique_ptr<WinHttpExchange> done = std::move(found->second);
    running_.erase(found);
    table_.finish(done->exchange(), outcome.result, outcome.message);
}

std::optional<WinHttpExchange::TimePoint> WinHttpTransport::nextDeadline() const {
    std::optional<WinHttpExchange::TimePoint> first;
    for (const auto& [id, exchange] : running_) {
        const auto deadline = exchange->deadline();
        if (deadline && (!first || *deadline < *first)) first = deadline;
    }
    return first;
}

}  // namespace velmora::httpstack
