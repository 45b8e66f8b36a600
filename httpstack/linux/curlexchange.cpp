#include "httpstack/linux/curlexchange.h"

#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <new>
#include <utility>

namespace velmora::httpstack {
namespace {

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// libcurl takes "key;" for a header without a value; "key:" would remove it.
std::string headerLine(const Header& header) {
    return header.second.empty() ? header.first + ";" : header.first + ": " + header.second;
}

bool isLocation(std::string_view name) {
    constexpr std::string_view kName = "location";
    return name.size() == kName.size() && ::strncasecmp(name.data(), kName.data(), kName.size()) == 0;
}

}  // namespace

CurlExchange::CurlExchange(std::shared_ptr<Exchange> exchange, const Settings& settings)
    : exchange_(std::move(exchange)), maxResponseBytes_(settings.maxResponseBytes), easy_(curl_easy_init()) {
    if (easy_ == nullptr) throw std::bad_alloc();
    set(CURLOPT_PRIVATE, this);
    set(CURLOPT_ERRORBUFFER, error_.data());
    setTransport(settings);
    setLimits(settings);
    setRedirects(settings);
    setRequest();
    set(CURLOPT_HEADERFUNCTION, &CurlExchange::onHeader);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &CurlExchange::onWrite);
    set(CURLOPT_WRITEDATA, this);
}

CurlExchange& CurlExchange::of(CURL* easy) {
    char* self = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &self);
    return *reinterpret_cast<CurlExchange*>(self);
}

template <typename Value>
void CurlExchange::set(CURLoption option, Value value) {
    if (curl_easy_setopt(easy_.get(), option, value) != CURLE_OK) throw std::bad_alloc();
}

void CurlExchange::setTransport(const Settings& settings) {
    set(CURLOPT_URL, exchange_->url().c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);  // a cancel does not wait for a name server
    set(CURLOPT_OPENSOCKETFUNCTION, &CurlExchange::onOpenSocket);
    set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    set(CURLOPT_USERAGENT, settings.userAgent.c_str());
    if (settings.proxy) set(CURLOPT_PROXY, settings.proxy->c_str());
    if (settings.caBundle.empty()) return;
    set(CURLOPT_CAINFO, settings.caBundle.c_str());
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // else the system's folder of certificates counts as well
}

// libcurl reads a connect time-out of 0 as one of its own.
void CurlExchange::setLimits(const Settings& settings) {
    const auto connect = settings.connectTimeout.count() == 0 ? INT_MAX : settings.connectTimeout.count();
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::min<int64_t>(connect, INT_MAX)));
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(settings.totalTimeout.count()));
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, static_cast<long>((settings.stallTimeout.count() + 999) / 1000));
}

// Not inherited by programs that the host executes.
curl_socket_t CurlExchange::onOpenSocket(void*, curlsocktype, curl_sockaddr* address) {
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

// A redirect keeps the verb and the body. Where it leads is looked at when its head comes.
void CurlExchange::setRedirects(const Settings& settings) {
    set(CURLOPT_FOLLOWLOCATION, settings.maxRedirects > 0 ? 1L : 0L);
    set(CURLOPT_MAXREDIRS, static_cast<long>(settings.maxRedirects));
    set(CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
}

void CurlExchange::setRequest() {
    for (const Header& header : exchange_->requestHeaders()) addHeader(headerLine(header));
    if (exchange_->isPost()) {
        addHeader("Expect:");
        requestLength_ = exchange_->requestBodyLength();
        set(CURLOPT_POST, 1L);
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(requestLength_));
        set(CURLOPT_READFUNCTION, &CurlExchange::onRead);
        set(CURLOPT_READDATA, this);
        set(CURLOPT_SEEKFUNCTION, &CurlExchange::onSeek);
        set(CURLOPT_SEEKDATA, this);
    }
    set(CURLOPT_HTTPHEADER, requestHeaders_.get());
}

void CurlExchange::addHeader(const std::string& line) {
    curl_slist* const longer = curl_slist_append(requestHeaders_.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    (void)requestHeaders_.release();
    requestHeaders_.reset(longer);
}

size_t CurlExchange::onRead(char* buffer, size_t size, size_t count, void* self) {
    return static_cast<CurlExchange*>(self)->readBody(buffer, size * count);
}

size_t CurlExchange::readBody(char* buffer, size_t capacity) {
    const uint64_t wanted = std::min<uint64_t>(capacity, requestLength_ - requestOffset_);
    if (wanted == 0) return 0;
    const auto written = exchange_->readRequestBody(requestOffset_, buffer, wanted);
    if (!written || *written == 0 || *written > wanted) return CURL_READFUNC_ABORT;
    requestOffset_ += *written;
    return static_cast<size_t>(*written);
}

int CurlExchange::onSeek(void* self, curl_off_t offset, int origin) {
    auto& exchange = *static_cast<CurlExchange*>(self);
    if (origin != SEEK_SET || offset < 0 || static_cast<uint64_t>(offset) > exchange.requestLength_)
        return CURL_SEEKFUNC_FAIL;
    exchange.requestOffset_ = static_cast<uint64_t>(offset);
    return CURL_SEEKFUNC_OK;
}

size_t CurlExchange::onHeader(char* line, size_t size, size_t count, void* self) {
    return static_cast<CurlExchange*>(self)->takeHeaderLine({line, size * count}) ? size * count : 0;
}

bool CurlExchange::takeHeaderLine(std::string_view line) {
    headBytes_ += line.size();
    if (headBytes_ > kMaxHeadBytes) return refuse("the response's head is too long");
    if (headReported_) return true;  // a trailer
    if (line.substr(0, 5) == "HTTP/") beginResponse(trimmed(line));
    if (trimmed(line).empty()) headComplete_ = true;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return true;
    const std::string_view name = trimmed(line.substr(0, colon));
    const std::string_view value = trimmed(line.substr(colon + 1));
    if (isLocation(name) && !mayFollow(value)) return refuse("redirected to another server");
    responseHeaders_.emplace_back(name, value);
    return true;
}

// Whether this response is no redirect, or one that stays within the request's origin.
bool CurlExchange::mayFollow(std::string_view location) const {
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status < 300 || status > 399) return true;
    const std::unique_ptr<CURLU, void (*)(CURLU*)> url(curl_url(), curl_url_cleanup);
    char* target = nullptr;
    const bool isUrl =
        url && curl_url_set(url.get(), CURLUPART_URL, exchange_->url().c_str(), 0) == CURLUE_OK &&
        curl_url_set(url.get(), CURLUPART_URL, std::string(location).c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK &&
        curl_url_get(url.get(), CURLUPART_URL, &target, 0) == CURLUE_OK;
    const std::unique_ptr<char, void (*)(void*)> text(target, curl_free);
    return isUrl && isSameOrigin(exchange_->url(), text.get());
}

bool CurlExchange::refuse(const char* why) {
    refusal_ = why;
    return false;
}

void CurlExchange::beginResponse(std::string_view statusLine) {
    responseHeaders_.clear();
    headComplete_ = false;
    const size_t protocolEnd = statusLine.find(' ');
    protocol_ = statusLine.substr(0, protocolEnd);
    const size_t reason = protocolEnd == std::string_view::npos ? protocolEnd : statusLine.find(' ', protocolEnd + 1);
    reason_ = reason == std::string_view::npos ? "" : std::string(trimmed(statusLine.substr(reason)));
}

size_t CurlExchange::onWrite(char* data, size_t size, size_t count, void* self) {
    return static_cast<CurlExchange*>(self)->takeBody(data, size * count);
}

size_t CurlExchange::takeBody(const char* data, size_t length) {
    if (length > maxResponseBytes_ - responseOffset_ && !refuse("the response is too long"))
        return CURL_WRITEFUNC_ERROR;
    if (!reportHead() || !exchange_->reportBody(responseOffset_, data, length)) return CURL_WRITEFUNC_ERROR;
    responseOffset_ += length;
    return length;
}

bool CurlExchange::reportHead() {
    if (std::exchange(headReported_, true)) return true;
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    return exchange_->reportStatus(protocol_, static_cast<uint32_t>(status), reason_) &&
           exchange_->reportHeaders(responseHeaders_);
}

CURLcode CurlExchange::reportEnd() {
    if (!headComplete_) return CURLE_PARTIAL_FILE;
    if (!reportHead()) return CURLE_WRITE_ERROR;
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    return isServicesAnswer(status) || refuse("the service has not answered") ? CURLE_OK : CURLE_WEIRD_SERVER_REPLY;
}

std::string CurlExchange::message(CURLcode code) const {
    if (code == CURLE_OK) return "";
    if (refusal_ != nullptr) return refusal_;
    return error_[0] != '\0' ? error_.data() : curl_easy_strerror(code);
}

}  // namespace velmora::httpstack
