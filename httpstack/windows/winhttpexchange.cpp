#include "httpstack/windows/winhttpexchange.h"

#include <shlwapi.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "velmora/http.h"

namespace velmora::httpstack {
namespace {

Outcome retriable(std::string message) { return {VELMORA_HTTP_RETRIABLE, std::move(message)}; }

Outcome failure(DWORD code) {
    const struct {
        DWORD code;
        const char* text;
    } known[] = {
        {ERROR_WINHTTP_TIMEOUT, "timed out"},
        {ERROR_WINHTTP_NAME_NOT_RESOLVED, "the host's name can't be resolved"},
        {ERROR_WINHTTP_CANNOT_CONNECT, "can't connect"},
        {ERROR_WINHTTP_CONNECTION_ERROR, "the connection broke off"},
        {ERROR_WINHTTP_INVALID_SERVER_RESPONSE, "the server's answer is not HTTP"},
        {ERROR_WINHTTP_SECURE_FAILURE, "the server's certificate is not trusted"},
    };
    const auto* const found =
        std::find_if(std::begin(known), std::end(known), [code](const auto& row) { return row.code == code; });
    const std::string number = "WinHTTP error " + std::to_string(code);
    const bool isUrlsFault = code == ERROR_WINHTTP_INVALID_URL || code == ERROR_WINHTTP_UNRECOGNIZED_SCHEME;
    return {isUrlsFault ? VELMORA_HTTP_NON_RETRIABLE : VELMORA_HTTP_RETRIABLE,
            found == std::end(known) ? number : found->text + (" (" + number + ")")};
}

std::optional<Outcome> unlessBegun(DWORD code) {
    if (code == ERROR_SUCCESS) return std::nullopt;
    return failure(code);
}

std::string absoluteUrl(const std::string& base, const std::string& reference) {
    std::wstring url(base.size() + reference.size() + 16, L'\0');
    DWORD length = static_cast<DWORD>(url.size());
    if (FAILED(::UrlCombineW(wideText(base).c_str(), wideText(reference).c_str(), url.data(), &length, 0))) return {};
    url.resize(length);
    return utf8Text(url);
}

}  // namespace

WinHttpExchange::WinHttpExchange(std::shared_ptr<Exchange> exchange, const Settings& settings, HINTERNET session,
                                 std::shared_ptr<Mailbox> mailbox)
    : exchange_(std::move(exchange)),
      settings_(settings),
      session_(session),
      mailbox_(std::move(mailbox)),
      url_(exchange_->url()),
      headers_(exchange_->requestHeaders()),
      hopNumber_(uint64_t{exchange_->id()} << 32) {
    if (exchange_->isPost()) requestLength_ = exchange_->requestBodyLength();
}

std::optional<Outcome> WinHttpExchange::begin() {
    if (!isHttpUrl(url_) || !Target::parse(url_, target_)) return Outcome{VELMORA_HTTP_NON_RETRIABLE, "malformed URL"};
    if (requestLength_ >= MAXDWORD) return Outcome{VELMORA_HTTP_NON_RETRIABLE, "the body is too long"};
    return beginHop();
}

std::optional<Outcome> WinHttpExchange::beginHop() {
    requestOffset_ = 0;
    connected_ = false;
    hop_ = std::make_unique<WinHttpHop>(session_, target_, exchange_->isPost(), ++hopNumber_, mailbox_);
    return unlessBegun(hop_->beginSend(headers_, static_cast<uint32_t>(requestLength_)));
}

std::optional<Outcome> WinHttpExchange::advance(const Progress& progress) {
    if (progress.hop != hopNumber_) return std::nullopt;  // of a response that was left for its redirect
    progressed_ = std::chrono::steady_clock::now();
    switch (progress.kind) {
        case Progress::Kind::Connected:
            connected_ = true;
            return std::nullopt;
        case Progress::Kind::Written:
            requestOffset_ += progress.value;
            return sendMore();
        case Progress::Kind::Sent:
            return sendMore();
        case Progress::Kind::Headers:
            return takeHead();
        case Progress::Kind::Available:
            if (progress.value == 0) return end();
            return unlessBegun(
                hop_->beginRead(static_cast<uint32_t>(std::min<size_t>(progress.value, hop_->buffer().size()))));
        case Progress::Kind::Read:
            return takeBody(progress.value);
        case Progress::Kind::Failed:
            return failure(progress.value);
    }
    return std::nullopt;
}

std::optional<Outcome> WinHttpExchange::sendMore() {
    std::vector<char>& buffer = hop_->buffer();
    const uint64_t wanted = std::min<uint64_t>(buffer.size(), requestLength_ - requestOffset_);
    if (wanted == 0) return unlessBegun(hop_->beginResponse());
    const auto written = exchange_->readRequestBody(requestOffset_, buffer.data(), wanted);
    if (!written || *written == 0 || *written > wanted) return retriable("the library gave no body");
    return unlessBegun(hop_->beginWrite(static_cast<uint32_t>(*written)));
}

std::optional<Outcome> WinHttpExchange::takeHead() {
    const uint32_t status = hop_->status();
    if (status < 200) return unlessBegun(hop_->beginResponse());
    if (hop_->isHeadTooLong()) return retriable("the response's head is too long");
    const std::string location = isRedirect(status) ? hop_->text(WINHTTP_QUERY_LOCATION) : std::string();
    if (!location.empty()) return followTo(location);
    if (!exchange_->reportStatus(hop_->text(WINHTTP_QUERY_VERSION), status, hop_->text(WINHTTP_QUERY_STATUS_TEXT)) ||
        !exchange_->reportHeaders(hop_->headers()))
        return retriable("the library did not take the response");
    status_ = status;
    readLength(status);
    return unlessBegun(hop_->beginQuery());
}

bool WinHttpExchange::isRedirect(uint32_t status) const {
    const bool names = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    return names && settings_.maxRedirects > 0;
}

void WinHttpExchange::readLength(uint32_t status) {
    const std::string text = hop_->text(WINHTTP_QUERY_CONTENT_LENGTH);
    const bool hasBody = status != 204 && status != 304;
    const bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (hasBody && isNumber && text.size() < 19) responseLength_ = std::stoull(text);
}

std::optional<Outcome> WinHttpExchange::followTo(const std::string& location) {
    if (redirects_++ == settings_.maxRedirects) return retriable("too many redirects");
    const std::string next = absoluteUrl(url_, location);
    target_ = Target();
    if (!isSameOrigin(url_, next) || !Target::parse(next, target_)) return retriable("redirected to another server");
    url_ = next;
    return beginHop();
}

std::optional<Outcome> WinHttpExchange::takeBody(uint32_t length) {
    if (length == 0) return end();
    if (length > settings_.maxResponseBytes - responseOffset_) return retriable("the response is too long");
    if (!exchange_->reportBody(responseOffset_, hop_->buffer().data(), length))
        return retriable("the library did not take the response");
    responseOffset_ += length;
    return unlessBegun(hop_->beginQuery());
}

Outcome WinHttpExchange::end() const {
    if (responseLength_ && responseOffset_ < *responseLength_) return retriable("the response broke off");
    if (!isServicesAnswer(static_cast<long>(status_))) return retriable("the service has not answered");
    return {VELMORA_HTTP_OK, ""};
}

std::optional<WinHttpExchange::TimePoint> WinHttpExchange::deadline() const {
    const bool isConnecting = !connected_ && redirects_ == 0;
    std::optional<TimePoint> first;
    if (settings_.totalTimeout.count() > 0) first = begun_ + settings_.totalTimeout;
    if (isConnecting && settings_.connectTimeout.count() > 0) {
        const TimePoint limit = begun_ + settings_.connectTimeout;
        first = first ? std::min(*first, limit) : limit;
    }
    if (connected_) {
        const TimePoint limit = progressed_ + settings_.stallTimeout;
        first = first ? std::min(*first, limit) : limit;
    }
    return first;
}

Outcome WinHttpExchange::timedOut() const { return retriable(connected_ ? "timed out" : "timed out while connecting"); }

}  // namespace velmora::httpstack
