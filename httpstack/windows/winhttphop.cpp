#include "httpstack/windows/winhttphop.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "httpstack/settings.h"

namespace velmora::httpstack {
namespace {

constexpr size_t kBufferSize = 64 * 1024;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

WinHttpHandle checked(HINTERNET handle, const char* what) {
    if (handle == nullptr) fail(what);
    return WinHttpHandle(handle);
}

void set(HINTERNET handle, DWORD option, DWORD value) {
    if (::WinHttpSetOption(handle, option, &value, sizeof value) == FALSE) fail("WinHttpSetOption");
}

DWORD begun(BOOL result) { return result == FALSE ? ::GetLastError() : ERROR_SUCCESS; }

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::wstring joined(const std::vector<Header>& headers) {
    std::string lines;
    for (const auto& [key, value] : headers) lines += key + ": " + value + "\r\n";
    return wideText(lines);
}

}  // namespace

std::wstring wideText(std::string_view text) {
    const int size = static_cast<int>(text.size());
    const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), length);
    return wide;
}

std::string utf8Text(std::wstring_view text) {
    const int size = static_cast<int>(text.size());
    const int length = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(length), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, utf8.data(), length, nullptr, nullptr);
    return utf8;
}

bool Target::parse(const std::string& url, Target& target) {
    const std::wstring text = wideText(url);
    URL_COMPONENTS parts{};
    parts.dwStructSize = sizeof parts;
    parts.dwSchemeLength = parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = MAXDWORD;
    if (::WinHttpCrackUrl(text.c_str(), static_cast<DWORD>(text.size()), 0, &parts) == FALSE) return false;
    if (parts.nScheme != INTERNET_SCHEME_HTTP && parts.nScheme != INTERNET_SCHEME_HTTPS) return false;
    if (parts.dwHostNameLength == 0) return false;
    target.isSecure = parts.nScheme == INTERNET_SCHEME_HTTPS;
    target.host.assign(parts.lpszHostName, parts.dwHostNameLength);
    target.port = parts.nPort;
    target.path.assign(parts.lpszUrlPath, parts.dwUrlPathLength);
    if (target.path.empty()) target.path = L"/";
    target.path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
    target.path.resize(std::min(target.path.size(), target.path.find(L'#')));  // a fragment stays at home
    return true;
}

struct WinHttpHop::Shared {
    uint64_t number;
    std::shared_ptr<Mailbox> mailbox;
    std::vector<char> buffer;
};

WinHttpHop::WinHttpHop(HINTERNET session, const Target& target, bool isPost, uint64_t number,
                       std::shared_ptr<Mailbox> mailbox)
    : connection_(checked(::WinHttpConnect(session, target.host.c_str(), target.port, 0), "WinHttpConnect")),
      request_(checked(::WinHttpOpenRequest(connection_.get(), isPost ? L"POST" : L"GET", target.path.c_str(), nullptr,
                                            WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                            WINHTTP_FLAG_ESCAPE_DISABLE | (target.isSecure ? WINHTTP_FLAG_SECURE : 0)),
                       "WinHttpOpenRequest")) {
    set(request_.get(), WINHTTP_OPTION_DISABLE_FEATURE, WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_COOKIES);
    auto shared = std::make_unique<Shared>(Shared{number, std::move(mailbox), std::vector<char>(kBufferSize)});
    auto* context = shared.get();
    if (::WinHttpSetOption(request_.get(), WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof context) == FALSE)
        fail("WinHttpSetOption");
    constexpr DWORD kWanted =
        WINHTTP_CALLBACK_FLAG_ALL_COMPLETIONS | WINHTTP_CALLBACK_FLAG_HANDLES | WINHTTP_CALLBACK_FLAG_SEND_REQUEST;
    if (::WinHttpSetStatusCallback(request_.get(), &onStatus, kWanted, 0) == WINHTTP_INVALID_STATUS_CALLBACK)
        fail("WinHttpSetStatusCallback");
    shared->mailbox->handleOpened();
    shared_ = shared.release();
}

void CALLBACK WinHttpHop::onStatus(HINTERNET, DWORD_PTR context, DWORD status, void* information, DWORD length) {
    auto* const shared = reinterpret_cast<Shared*>(context);
    if (shared == nullptr) return;
    const auto post = [shared](Progress::Kind kind, DWORD value) {
        shared->mailbox->postProgress({shared->number, kind, value});
    };
    switch (status) {
        case WINHTTP_CALLBACK_STATUS_SENDING_REQUEST:
            return post(Progress::Kind::Connected, 0);
        case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
            return post(Progress::Kind::Sent, 0);
        case WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE:
            return post(Progress::Kind::Written, *static_cast<DWORD*>(information));
        case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
            return post(Progress::Kind::Headers, 0);
        case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
            return post(Progress::Kind::Available, *static_cast<DWORD*>(information));
        case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
            return post(Progress::Kind::Read, length);
        case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
            return post(Progress::Kind::Failed, static_cast<WINHTTP_ASYNC_RESULT*>(information)->dwError);
        case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING: {
            const std::unique_ptr<Shared> last(shared);
            last->mailbox->handleClosed();
            return;
        }
        default:
            return;
    }
}

DWORD WinHttpHop::beginSend(const std::vector<Header>& headers, uint32_t bodyLength) {
    const std::wstring lines = joined(headers);
    return begun(::WinHttpSendRequest(request_.get(), lines.empty() ? nullptr : lines.c_str(),
                                      static_cast<DWORD>(lines.size()), nullptr, 0, bodyLength,
                                      reinterpret_cast<DWORD_PTR>(shared_)));
}

std::vector<char>& WinHttpHop::buffer() const { return shared_->buffer; }

DWORD WinHttpHop::beginWrite(uint32_t length) {
    return begun(::WinHttpWriteData(request_.get(), shared_->buffer.data(), length, nullptr));
}

DWORD WinHttpHop::beginResponse() { return begun(::WinHttpReceiveResponse(request_.get(), nullptr)); }

DWORD WinHttpHop::beginQuery() { return begun(::WinHttpQueryDataAvailable(request_.get(), nullptr)); }

DWORD WinHttpHop::beginRead(uint32_t length) {
    return begun(::WinHttpReadData(request_.get(), shared_->buffer.data(), length, nullptr));
}

uint32_t WinHttpHop::status() const {
    DWORD code = 0;
    DWORD size = sizeof code;
    ::WinHttpQueryHeaders(request_.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                          WINHTTP_HEADER_NAME_BY_INDEX, &code, &size, WINHTTP_NO_HEADER_INDEX);
    return code;
}

std::string WinHttpHop::text(DWORD which) const {
    DWORD size = 0;
    ::WinHttpQueryHeaders(request_.get(), which, WINHTTP_HEADER_NAME_BY_INDEX, WINHTTP_NO_OUTPUT_BUFFER, &size,
                          WINHTTP_NO_HEADER_INDEX);
    std::wstring value(size / sizeof(wchar_t) + 1, L'\0');
    size = static_cast<DWORD>(value.size() * sizeof(wchar_t));
    if (::WinHttpQueryHeaders(request_.get(), which, WINHTTP_HEADER_NAME_BY_INDEX, value.data(), &size,
                              WINHTTP_NO_HEADER_INDEX) == FALSE)
        return {};
    value.resize(size / sizeof(wchar_t));
    return utf8Text(value);
}

bool WinHttpHop::isHeadTooLong() const {
    DWORD size = 0;
    ::WinHttpQueryHeaders(request_.get(), WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                          WINHTTP_NO_OUTPUT_BUFFER, &size, WINHTTP_NO_HEADER_INDEX);
    return size / sizeof(wchar_t) > kMaxHeadBytes;
}

std::vector<Header> WinHttpHop::headers() const {
    const std::string raw = text(WINHTTP_QUERY_RAW_HEADERS_CRLF);
    std::vector<Header> headers;
    size_t begin = std::min(raw.size(), raw.find('\n'));  // past the status line
    while (begin < raw.size()) {
        const size_t end = std::min(raw.size(), raw.find('\n', begin + 1));
        const std::string_view line = std::string_view(raw).substr(begin + 1, end - begin - 1);
        const size_t colon = line.find(':');
        if (colon != std::string_view::npos)
            headers.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
        begin = end;
    }
    return headers;
}

}  // namespace velmora::httpstack
