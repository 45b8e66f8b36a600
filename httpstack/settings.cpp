#include "httpstack/settings.h"

#include <algorithm>
#include <cctype>

namespace velmora::httpstack {
namespace {

bool isSet(const char* text) { return text != nullptr && *text != '\0'; }

bool readRoutes(const velmora_httpstack_options& options, Settings& settings) {
    if (options.routeCount > 0 && options.routes == nullptr) return false;
    for (uint32_t i = 0; i < options.routeCount; ++i) {
        const velmora_httpstack_route& route = options.routes[i];
        if (!isSet(route.from) || !isSet(route.to) || !isHttpUrl(route.from) || !isHttpUrl(route.to)) return false;
        settings.routes.push_back({route.from, route.to});
    }
    return true;
}

void readLaterFields(const velmora_httpstack_options& options, Settings& settings) {
    if (options.stallTimeoutMs != 0) settings.stallTimeout = std::chrono::milliseconds(options.stallTimeoutMs);
    if (options.maxResponseBytes != 0) settings.maxResponseBytes = options.maxResponseBytes;
}

bool fits(const Route& route, std::string_view url) {
    if (url.substr(0, route.from.size()) != route.from) return false;
    if (url.size() == route.from.size() || route.from.back() == '/') return true;
    const char next = url[route.from.size()];
    return next == '/' || next == '?' || next == '#';
}

bool beginsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return a == static_cast<char>(std::tolower(static_cast<unsigned char>(b)));
           });
}

// "host:port" in lower case, with the scheme's port where none is named; empty for no http or https URL.
std::string originOf(std::string_view url) {
    if (!isHttpUrl(url)) return {};
    const bool isSecure = beginsWithNoCase(url, "https");
    std::string_view authority = url.substr(isSecure ? 8 : 7);
    authority = authority.substr(0, authority.find_first_of("/?#\\"));
    if (const size_t at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
    std::string origin(authority);
    std::transform(origin.begin(), origin.end(), origin.begin(), [](unsigned char c) { return std::tolower(c); });
    const size_t colon = origin.find(':', origin.rfind(']') == std::string::npos ? 0 : origin.rfind(']'));
    if (colon == std::string::npos) origin += ':';
    if (origin.back() == ':') origin += isSecure ? "443" : "80";
    return (isSecure ? "s " : "p ") + origin;
}

}  // namespace

std::optional<Settings> readOptions(const velmora_httpstack_options* options) {
    Settings settings;
    if (options == nullptr) return settings;
    if (options->size < kFirstOptionsSize || options->size > sizeof(velmora_httpstack_options)) return std::nullopt;
    settings.connectTimeout = std::chrono::milliseconds(options->connectTimeoutMs);
    settings.totalTimeout = std::chrono::milliseconds(options->totalTimeoutMs);
    settings.maxRedirects = options->maxRedirects;
    if (options->proxy != nullptr) settings.proxy = options->proxy;
    if (isSet(options->caBundle)) settings.caBundle = options->caBundle;
    if (isSet(options->userAgent)) settings.userAgent = options->userAgent;
    if (!readRoutes(*options, settings)) return std::nullopt;
    if (options->size == sizeof(velmora_httpstack_options)) readLaterFields(*options, settings);
    return settings;
}

std::string routedUrl(const Settings& settings, std::string_view url) {
    for (const Route& route : settings.routes) {
        if (!fits(route, url)) continue;
        std::string_view rest = url.substr(route.from.size());
        if (route.to.back() == '/' && !rest.empty() && rest.front() == '/') rest.remove_prefix(1);
        const bool needsSlash = route.from.back() == '/' && route.to.back() != '/' && !rest.empty();
        return route.to + (needsSlash ? "/" : "") + std::string(rest);
    }
    return std::string(url);
}

bool isHttpUrl(std::string_view url) {
    const size_t scheme = beginsWithNoCase(url, "http://") ? 7 : beginsWithNoCase(url, "https://") ? 8 : 0;
    if (scheme == 0 || url.size() == scheme) return false;
    const bool isPrintable = std::all_of(url.begin(), url.end(), [](unsigned char c) { return c > 0x20 && c != 0x7F; });
    return isPrintable && url.find_first_of("/?#", scheme) != scheme;
}

bool isSameOrigin(std::string_view a, std::string_view b) {
    const std::string origin = originOf(a);
    return !origin.empty() && origin == originOf(b);
}

}  // namespace velmora::httpstack
