#include "service/config/sessionconfig.h"

#include <algorithm>

#include "core/json/jsonparser.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "core/utils/timestamps.h"
#include "deployment.h"
#include "service/config/fields.h"

namespace velmora::service::config::session {
namespace {

constexpr const char* kBuiltIn = R"json({
    "reserved": {
        "network": { "pollInterval": 30000 },
        "log": { "prefix": "velmora", "level": "info" },
        "error": { "retryInterval": [ 30000, 60000, 300000, 900000 ] },
        "filerotation": {
            "logFileRotationSize": 104857600,
            "logFileRetentionPeriod": 7776000000,
            "logFolderSize": 104857600
        },
        "permission": {
            "endpoint": {
                "stage": { "urn": ")json" VELMORA_PERMISSION_STAGE_HOST R"json(", "ttl": 86400000 },
                "prod": { "urn": ")json" VELMORA_PERMISSION_PROD_HOST R"json(", "ttl": 86400000 }
            }
        },
        "identity": {
            "endpoint": {
                "stage": { "urn": ")json" VELMORA_IDENTITY_STAGE_HOST R"json(", "ttl": 86400000 },
                "prod": { "urn": ")json" VELMORA_IDENTITY_PROD_HOST R"json(", "ttl": 86400000 }
            },
            "accountTypeAllowList": [ "type1", "type2e" ]
        },
        "config": { "urn": "", "ttl": 86400000 }
    }
})json";

constexpr std::chrono::milliseconds kRetryWaitWithoutIntervals(30000);

constexpr const char* kChannel = "session.config";

using SectionParser = config::SectionParser<Config>;

class NetworkParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onUint(const std::string& name, uint64_t value) override {
        assignAboveZero(kChannel, name, value, {{"pollInterval", &config_.pollInterval}});
    }
};

class LogParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onString(const std::string& name, const std::string& value) override {
        assign(name, value, {{"prefix", &config_.logPrefix}});
        if (name == "level") config_.logLevel = logLevelFromString(value);
    }
};

class RetryIntervalParser : public JsonDefaultParser {
public:
    explicit RetryIntervalParser(std::vector<uint64_t>& intervals) : JsonDefaultParser(true), intervals_(intervals) {}
    void onUint(const std::string&, uint64_t value) override { intervals_.push_back(value); }

private:
    std::vector<uint64_t>& intervals_;
};

class ErrorParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onArray(const std::string& name) override {
        if (name != "retryInterval") return JsonDefaultParser::onArray(name);
        config_.retryInterval.clear();
        return std::make_shared<RetryIntervalParser>(config_.retryInterval);
    }
};

class FileRotationParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onUint(const std::string& name, uint64_t value) override {
        assignAboveZero(kChannel, name, value, {{"logFileRotationSize", &config_.logFileRotationSize}});
        assign(
            name, value,
            {{"logFileRetentionPeriod", &config_.logFileRetentionPeriod}, {"logFolderSize", &config_.logFolderSize}});
    }
};

class ServiceMapParser : public JsonDefaultParser {
public:
    explicit ServiceMapParser(ServiceEndpoints& endpoints) : endpoints_(endpoints) {}
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        ServiceEndpoint& endpoint = endpoints_[environmentFromString(name)];
        return std::make_shared<ServiceParser>(endpoint.urn, endpoint.ttl);
    }

private:
    ServiceEndpoints& endpoints_;
};

class PermissionParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "endpoint") return std::make_shared<ServiceMapParser>(config_.permissionEndpoints);
        return JsonDefaultParser::onObject(name);
    }
};

using AllowedAccountListParser = ArrayParser<std::string, void>;

class IdentityParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "endpoint") return std::make_shared<ServiceMapParser>(config_.identityEndpoints);
        return JsonDefaultParser::onObject(name);
    }
    std::shared_ptr<JsonParser> onArray(const std::string& name) override {
        if (name != "accountTypeAllowList") return JsonDefaultParser::onArray(name);
        config_.accountTypeAllowList.clear();
        return std::make_shared<AllowedAccountListParser>(config_.accountTypeAllowList);
    }
};

class ReservedParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "network") return std::make_shared<NetworkParser>(config_);
        if (name == "log") return std::make_shared<LogParser>(config_);
        if (name == "error") return std::make_shared<ErrorParser>(config_);
        if (name == "filerotation") return std::make_shared<FileRotationParser>(config_);
        if (name == "permission") return std::make_shared<PermissionParser>(config_);
        if (name == "identity") return std::make_shared<IdentityParser>(config_);
        if (name == "config") return std::make_shared<ServiceParser>(config_.configUrn, config_.configTtl);
        return JsonDefaultParser::onObject(name);
    }
};

}  // namespace

class ConfigParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "reserved") return std::make_shared<ReservedParser>(config_);
        return JsonDefaultParser::onObject(name);
    }
};

// The document is parsed once; later records are copies. Never destroyed, since records may be made during teardown.
Config::Config() {
    static const Config& builtIn = *new Config(Config(Empty()).overwriteWith(kBuiltIn));
    *this = builtIn;
}

Config& Config::overwriteWith(const std::string& json) {
    if (const std::error_code error = JsonParser::parse(json, std::make_shared<ConfigParser>(*this))) {
        VELMORA_LOG(error, kChannel) << "failed to parse config error=" << toString(error) << " json=" << json;
    }
    return *this;
}

std::chrono::milliseconds retryWait(const std::vector<uint64_t>& intervals, std::chrono::milliseconds requested,
                                    uint32_t attempt) {
    if (intervals.empty()) return requested.count() > 0 ? requested : kRetryWaitWithoutIntervals;
    const size_t index = std::min<size_t>(attempt, intervals.size() - 1);
    return std::max(requested, toMilliseconds(intervals[index]));
}

std::string baseUrl(const ServiceEndpoints& endpoints, Environment environment) {
    const std::string& urn = endpoints.at(environment).urn;
    return urn.find("://") == std::string::npos ? "https://" + urn : urn;
}

}  // namespace velmora::service::config::session
