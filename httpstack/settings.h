// The options of the stack in checked and owned form.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/httpstack.h"

namespace velmora::httpstack {

// A base URL and where its requests go instead; both absolute, of http or https.
struct Route {
    std::string from;
    std::string to;
};

// Values, without a tie to the host's memory; constant for the life of an installation. What a member starts with is
// the default that velmora/httpstack.h names.
struct Settings {
    std::chrono::milliseconds connectTimeout{10000};  // 0: no limit but the total one
    std::chrono::milliseconds totalTimeout{60000};    // from the exchange's start to its end; 0: no limit
    uint32_t maxRedirects = 5;                        // 0: none is followed
    std::optional<std::string> proxy;                 // nothing: as the system says; empty: none
    std::string caBundle;                             // a file, the only trust; empty: the system's certificates
    std::string userAgent = "velmora-httpstack";
    std::vector<Route> routes;                      // the first that fits counts
    std::chrono::milliseconds stallTimeout{30000};  // without a byte moved, once connected; above 0
    uint64_t maxResponseBytes = uint64_t{8} << 20;  // of one body
};

inline constexpr uint64_t kMaxHeadBytes = uint64_t{256} << 10;  // of all heads on the way to one response

// The size of the options' first version, which ends with routeCount; later ones are longer.
inline constexpr size_t kFirstOptionsSize = offsetof(velmora_httpstack_options, stallTimeoutMs);

// Copies the host's options; null stands for the defaults. Fields beyond `size` are neither read nor counted. Nothing
// if one of them is bad: a size that is not known, or a route whose texts are no absolute URLs. Whether the system can
// honour proxy and certificates is the transport's to say.
[[nodiscard]] std::optional<Settings> readOptions(const velmora_httpstack_options* options);

// The URL that a request for `url` is sent to. A route fits where its `from` is followed by a path, a query or nothing,
// so that a host name never matches a longer one; the first that fits counts.
[[nodiscard]] std::string routedUrl(const Settings& settings, std::string_view url);

// True for an absolute URL of http or https with a host, without blanks and control characters: what the stack accepts
// to send.
[[nodiscard]] bool isHttpUrl(std::string_view url);

// Whether both are such URLs with the same scheme, host and port, in any case of letters and with the scheme's port
// where none is named: where a redirect may lead. A user name counts for nothing.
[[nodiscard]] bool isSameOrigin(std::string_view a, std::string_view b);

// Whether a status is an answer of the service: final, not a redirect, and not a proxy's.
[[nodiscard]] constexpr bool isServicesAnswer(long status) noexcept {
    return status >= 200 && status != 407 && (status < 300 || status > 399);
}

}  // namespace velmora::httpstack
