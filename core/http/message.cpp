#include "core/http/message.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <string_view>

#include "core/types/errors.h"
#include "core/types/logger.h"
#include "core/types/text.h"
#include "core/utils/strings.h"

namespace velmora::http {
namespace {

struct NamedStatus {
    int code;
    std::string_view name;
};

// Ordered by code. The names reach logs, their spelling is fixed.
constexpr std::array<NamedStatus, 51> kStatuses{{
    {0, "None"},
    {100, "Continue"},
    {101, "SwitchingProtocls"},
    {200, "Ok"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "NonAuthoritativeInformation"},
    {204, "NoContent"},
    {205, "ResetContent"},
    {206, "PartialContent"},
    {207, "MultiStatus"},
    {300, "MultipleChoices"},
    {301, "MovedPermanently"},
    {302, "Found"},
    {303, "SeeOther"},
    {304, "NotModified"},
    {305, "UseProxy"},
    {306, "SwitchProxy"},
    {307, "TemporaryRedirect"},
    {308, "PermanentRedirect"},
    {400, "BadRequest"},
    {401, "Unauthorized"},
    {402, "PaymentRequired"},
    {403, "Forbidden"},
    {404, "NotFound"},
    {405, "MethodNotAllowed"},
    {406, "NotAcceptable"},
    {407, "ProxyAuthenticationRequired"},
    {408, "RequestTimeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "LengthRequired"},
    {412, "PreconditionFailed"},
    {413, "PayloadTooLarge"},
    {414, "RequestURITooLong"},
    {415, "UnsupportedMediaType"},
    {416, "RequestRangeNotSatisfiable"},
    {417, "ExpectationFailed"},
    {418, "ImATeapot"},
    {428, "PreconditionRequired"},
    {429, "TooManyRequests"},
    {431, "RequestHeaderFieldsTooLarge"},
    {500, "InternalServerError"},
    {501, "NotImplemented"},
    {502, "BadGateway"},
    {503, "ServiceUnavailable"},
    {504, "GatewayTimeout"},
    {505, "HTTPVersionNotSupported"},
    {507, "InsufficientStorage"},
    {511, "NetworkAuthenticationRequired"},
    {522, "CloudFlareConnectionTimedOut"},
}};

const NamedStatus* find(int code) {
    const auto* const it = std::lower_bound(kStatuses.begin(), kStatuses.end(), code,
                                            [](const NamedStatus& status, int wanted) { return status.code < wanted; });
    return it != kStatuses.end() && it->code == code ? it : nullptr;
}

class HttpErrorCategoryImpl final : public std::error_category {
public:
    const char* name() const noexcept override { return "http_error"; }
    std::string message(int value) const override {
        const NamedStatus* const known = value == 0 || value >= 400 ? find(value) : nullptr;
        return known ? std::string(known->name) : "Unrecognized HTTP status code " + std::to_string(value);
    }
};

}  // namespace

// ---- statuses

std::ostream& operator<<(std::ostream& out, Status status) {
    const NamedStatus* const known = find(static_cast<int>(status));
    return out << static_cast<int>(status) << ' ' << (known ? known->name : "unknown");
}

const std::error_category& httpCategory() noexcept {
    static const auto& category = *new HttpErrorCategoryImpl;
    return category;
}

bool isHttpError(const std::error_code& error) noexcept {
    return error.category() == httpCategory() && error.value() >= 400 && error.value() <= 599;
}

bool isForbidden(const std::error_code& error) noexcept {
    return error.category() == httpCategory() && error.value() == 403;
}

bool isServerError(const std::error_code& error) noexcept {
    return error.category() == httpCategory() && error.value() >= 500;
}

std::error_code judgeStatus(int status) {
    if (status >= 200 && status <= 299) return {};
    if (status >= 400 && status <= 599) return static_cast<Status>(status);
    VELMORA_LOG(warn, "http") << "HTTP status " << static_cast<Status>(status) << " was neither success nor failure. "
                              << "We expect redirection to be handled transparently by the HTTP library";
    return VelmoraHttpError::retriable;
}

// ---- messages

std::ostream& operator<<(std::ostream& out, Verb verb) {
    switch (verb) {
        case Verb::GET:
            return out << "GET";
        case Verb::POST:
            return out << "POST";
    }
    return out;
}

bool ci_map_traits::comp::operator()(const std::string& a, const std::string& b) const {
    const auto isLess = [](char x, char y) {
        return static_cast<unsigned char>(toLower(x)) < static_cast<unsigned char>(toLower(y));
    };
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), isLess);
}

int Response::getRetryAfter() const {
    const auto found = headers.find("retry-after");
    return found == headers.end() ? 0 : velmora::stoi(found->second);
}

std::string joinUrl(const std::string& base, const std::string& path) {
    const bool closed = !base.empty() && base.back() == '/';
    const bool opened = !path.empty() && path.front() == '/';
    return base + (closed ? "" : "/") + (opened ? path.substr(1) : path);
}

}  // namespace velmora::http
