#include "httpstack/exchange.h"

#include <stdexcept>
#include <string_view>

#include "velmora/http.h"

namespace velmora::httpstack {
namespace {

constexpr uint32_t kHeaderCapacity = 64;

bool hasLineBreak(const char* text) { return std::string_view(text).find_first_of("\r\n") != std::string_view::npos; }

}  // namespace

Exchange::Exchange(uint32_t id, int32_t verb, std::string url, void* session, void* context)
    : id_(id), verb_(verb), url_(std::move(url)), session_(session), context_(context) {}

bool Exchange::isPost() const { return verb_ == VELMORA_HTTP_POST; }

std::vector<Header> Exchange::requestHeaders() const {
    std::vector<velmora_http_header> records(kHeaderCapacity);
    uint32_t count = 0;
    if (velmora_http_onRequestHeaders(session_, records.data(), kHeaderCapacity, &count, context_) != 0) return {};
    std::vector<Header> headers;
    for (uint32_t i = 0; i < count && i < kHeaderCapacity; ++i) {
        const velmora_http_header& record = records[i];
        if (hasLineBreak(record.key) || hasLineBreak(record.value)) {
            throw std::invalid_argument("a request header holds a line break");
        }
        headers.emplace_back(record.key, record.value);
    }
    return headers;
}

uint64_t Exchange::requestBodyLength() const {
    uint64_t length = 0;
    return velmora_http_onRequestBodyLength(session_, &length, context_) == 0 ? length : 0;
}

std::optional<uint64_t> Exchange::readRequestBody(uint64_t offset, char* buffer, uint64_t capacity) const {
    uint64_t written = 0;
    if (velmora_http_onRequestBody(session_, offset, buffer, &written, capacity, context_) != 0) return std::nullopt;
    return written;
}

bool Exchange::reportStatus(const std::string& protocol, uint32_t status, const std::string& reason) const {
    return velmora_http_onResponseStatus(session_, protocol.c_str(), status, reason.c_str(), context_) == 0;
}

bool Exchange::reportHeaders(const std::vector<Header>& headers) const {
    std::vector<const char*> pairs;
    pairs.reserve(headers.size() * 2);
    for (const auto& [key, value] : headers) {
        pairs.push_back(key.c_str());
        pairs.push_back(value.c_str());
    }
    const auto count = static_cast<uint32_t>(headers.size());
    return velmora_http_onResponseHeaders(session_, pairs.data(), count, context_) == 0;
}

bool Exchange::reportBody(uint64_t offset, const char* data, uint64_t length) const {
    return velmora_http_onResponseBody(session_, offset, data, length, context_) == 0;
}

void Exchange::complete(int32_t result, const std::string& message) const {
    velmora_http_onCompletion(session_, static_cast<uint32_t>(result), message.c_str(), context_);
}

std::shared_ptr<Exchange> ExchangeTable::open(int32_t verb, std::string url, void* session, void* context) {
    const MutexLock lock(mutex_);
    if (closed_) return nullptr;
    const uint32_t id = unusedIdLocked();
    auto exchange = std::make_shared<Exchange>(id, verb, std::move(url), session, context);
    entries_.emplace(id, Entry{exchange, State::Running});
    return exchange;
}

uint32_t ExchangeTable::unusedIdLocked() {
    do {
        ++lastId_;
    } while (lastId_ == 0 || entries_.count(lastId_) != 0);
    return lastId_;
}

CancelAnswer ExchangeTable::cancel(uint32_t id) {
    const MutexLock lock(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) return CancelAnswer::Unknown;
    if (found->second.state == State::Finishing) return CancelAnswer::TooLate;
    found->second.state = State::Cancelled;
    return CancelAnswer::Accepted;
}

bool ExchangeTable::isCancelled(uint32_t id) const {
    const MutexLock lock(mutex_);
    const auto found = entries_.find(id);
    return found != entries_.end() && found->second.state == State::Cancelled;
}

void ExchangeTable::finish(const Exchange& exchange, int32_t result, const std::string& message) {
    bool isCancel = false;
    std::shared_ptr<Exchange> kept;  // outlives the entry, and so the caller's reference
    {
        const MutexLock lock(mutex_);
        const auto found = entries_.find(exchange.id());
        if (found == entries_.end() || found->second.state == State::Finishing) return;
        isCancel = found->second.state == State::Cancelled;
        found->second.state = State::Finishing;
        kept = found->second.exchange;
    }
    if (isCancel)
        kept->complete(VELMORA_HTTP_CANCELLED, "cancelled");
    else
        kept->complete(result, message);
    discard(*kept);
}

void ExchangeTable::discard(const Exchange& exchange) {
    const MutexLock lock(mutex_);
    entries_.erase(exchange.id());
    if (entries_.empty()) emptied_.notifyAll();
}

std::vector<uint32_t> ExchangeTable::close() {
    const MutexLock lock(mutex_);
    closed_ = true;
    std::vector<uint32_t> open;
    for (auto& [id, entry] : entries_) {
        if (entry.state == State::Finishing) continue;
        entry.state = State::Cancelled;
        open.push_back(id);
    }
    return open;
}

void ExchangeTable::waitUntilEmpty() {
    const MutexLock lock(mutex_);
    emptied_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return entries_.empty(); });
}

}  // namespace velmora::httpstack
