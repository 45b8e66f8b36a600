#include "httpstack/linux/curlexchange.h"

#include <algorithm>
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

bool isSecure(const std::string& url) { return url.size() > 4 && (url[4] == 's' || url[4] == 'S'); }

}  // namespace

CurlExchange::CurlExchange(std::shared_ptr<Exchange> exchange, const Settings& settings)
    : exchange_(std::move(exchange)), easy_(curl_easy_init()) {
    if (easy_ == nullptr) throw std::bad_alloc();
    set(CURLOPT_PRIVATE, this);
    set(CURLOPT_ERRORBUFFER, error_.data());
    setTransport(settings);
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
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectTimeout.count()));
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(settings.totalTimeout.count()));
    set(CURLOPT_USERAGENT, settings.userAgent.c_str());
    if (settings.proxy) set(CURLOPT_PROXY, settings.proxy->c_str());
    if (!settings.caBundle.empty()) set(CURLOPT_CAINFO, settings.caBundle.c_str());
}

// A redirect keeps the verb and the body, and never leads from https to http.
void CurlExchange::setRedirects(const Settings& settings) {
    set(CURLOPT_FOLLOWLOCATION, settings.maxRedirects > 0 ? 1L : 0L);
    set(CURLOPT_MAXREDIRS, static_cast<long>(settings.maxRedirects));
    set(CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
    set(CURLOPT_REDIR_PROTOCOLS_STR, isSecure(exchange_->url()) ? "https" : "http,https");
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
    static_cast<CurlExchange*>(self)->takeHeaderLine({line, size * count});
    return size * count;
}

void CurlExchange::takeHeaderLine(std::string_view line) {
    if (headReported_) return;  // a trailer
    if (line.substr(0, 5) == "HTTP/") return beginResponse(trimmed(line));
    if (trimmed(line).empty()) headComplete_ = true;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    responseHeaders_.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
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
    return reportHead() ? CURLE_OK : CURLE_WRITE_ERROR;
}

std::string CurlExchange::message(CURLcode code) const {
    if (code == CURLE_OK) return "";
    return error_[0] != '\0' ? error_.data() : curl_easy_strerror(code);
}

}  // namespace velmora::httpstack
