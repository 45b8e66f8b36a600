#include "core/http/httpstatus.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <string>
#include <string_view>

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

}  // namespace velmora::http
