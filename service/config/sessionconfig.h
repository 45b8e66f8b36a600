// Process-wide settings: a plain value with built-in defaults.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/types/types.h"

namespace velmora::service::config::session {

struct ServiceEndpoint {
    std::string urn;   // host name of the service, or a base URL with its scheme
    uint64_t ttl = 0;  // milliseconds
};

using ServiceEndpoints = std::map<Environment, ServiceEndpoint>;

// Intervals, periods and the ttl are milliseconds, sizes bytes.
struct Config {
    uint64_t pollInterval = 0;
    std::string logPrefix;
    LogLevel logLevel = LogLevel::info;
    std::vector<uint64_t> retryInterval;
    uint64_t logFileRotationSize = 0;
    uint64_t logFileRetentionPeriod = 0;
    uint64_t logFolderSize = 0;
    ServiceEndpoints permissionEndpoints;
    ServiceEndpoints identityEndpoints;
    std::vector<std::string> accountTypeAllowList;
    ServiceEndpoints reservedEndpoints;
    std::string configUrn;
    uint64_t configTtl = 0;

    // The defaults of the built-in document.
    Config();

    // Lays a JSON document over the record: what it names is overwritten, all else stays; an array replaces the old
    // list, and 0 is refused for the poll interval and the rotation size. A bad document is logged on channel
    // "session.config"; what was assigned before the fault stays. Throws nothing.
    Config& overwriteWith(const std::string& json);

private:
    struct Empty {};
    explicit Config(Empty) {}
};

// The wait before a retry: what the response asks for or the interval of this attempt, whichever is longer. The last
// interval repeats; without any the wait is what the response asks for, or 30 s. A request of 0 or below asks for none.
[[nodiscard]] std::chrono::milliseconds retryWait(const std::vector<uint64_t>& intervals,
                                                  std::chrono::milliseconds requested, uint32_t attempt);

// The base URL of a service's endpoint; "https://" goes in front of a bare host name. Throws std::out_of_range for an
// environment that has no entry.
[[nodiscard]] std::string baseUrl(const ServiceEndpoints& endpoints, Environment environment);

}  // namespace velmora::service::config::session
