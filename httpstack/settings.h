// The options of the stack in checked and owned form.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/httpstack.h"

namespace velmora::httpstack {

struct Route {
    std::string from;
    std::string to;
};

struct Settings {
    std::chrono::milliseconds connectTimeout{10000};
    std::chrono::milliseconds totalTimeout{60000};  // 0: no limit
    uint32_t maxRedirects = 5;
    std::optional<std::string> proxy;  // nothing: as the system says; empty: none
    std::string caBundle;              // empty: the system's
    std::string userAgent = "velmora-httpstack";
    std::vector<Route> routes;
};

// Copies the host's options; null stands for the defaults. Nothing if one of them is bad: a size that is not known, or
// a route with a null or empty text.
[[nodiscard]] std::optional<Settings> readOptions(const velmora_httpstack_options* options);

// The URL that a request for `url` is sent to. A route fits where its `from` is followed by a path, a query or nothing,
// so that a host name never matches a longer one; the first that fits counts.
[[nodiscard]] std::string routedUrl(const Settings& settings, std::string_view url);

// True for an absolute URL of http or https with a host: what the stack accepts to send.
[[nodiscard]] bool isHttpUrl(std::string_view url);

}  // namespace velmora::httpstack
