#include "service/config/ingestconfig.h"

#include "core/json/jsonparser.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "service/config/fields.h"

namespace velmora::service::config::ingest {
namespace {

constexpr const char* kBuiltIn = R"json({
    "setup": {
        "ingest": {
            "project": "unknown-project-key",
            "apiKey": "unknown-api-key",
            "environment": "stage",
            "sourceType": "component",
            "sourceCategory": "UNKNOWN",
            "consent": "default"
        }
    },
    "reserved": {
        "validation": {
            "flag": true,
            "rules": {
                "event.workflow": { "required": true, "default": "Unknown" },
                "event.category": { "required": true, "pattern": "^(DESKTOP|WEB|MOBILE|SERVICE|UNKNOWN)$", "default": "UNKNOWN" },
                "event.subcategory": { "required": true, "pattern": "^(?:[A-Z][^\\s]*\\s*)+$", "default": "Unknown" },
                "event.type": { "required": true, "pattern": "^[a-z]+$", "default": "unknown" },
                "event.subtype": { "required": true, "pattern": "^[a-z0-9-]+$", "default": "unknown" }
            }
        },
        "security": { "encryptionEnabled": true, "encryptionPassphrase": "cobalt" },
        "event": {
            "standardKeyPrefixes": [ "context.", "env.", "event.", "exp.", "source.", "user.", "entity." ],
            "batchSize": 50,
            "batchInterval": 30000,
            "pauseInterval": 300000,
            "orphanInstanceEnabled": true,
            "flushOnStopEnabled": false
        },
        "filerotation": {
            "eventFileRotationSize": 10485760,
            "eventFileRetentionPeriod": 31536000000,
            "eventFolderSize": 104857600,
            "invalidEventFileRotationSize": 10485760,
            "invalidEventFileRetentionPeriod": 31536000000,
            "invalidEventFolderSize": 104857600
        },
        "heartbeat": { "interval": 43200000 },
        "config": { "urn": "", "ttl": 86400000 }
    }
})json";

constexpr const char* kChannel = "config";

using SectionParser = config::SectionParser<Config>;

class IngestParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onString(const std::string& name, const std::string& value) override {
        assign(name, value, {{"project", &config_.project}, {"apiKey", &config_.apiKey}});
        if (name == "environment") config_.environment = environmentFromString(value);
        if (name == "sourceType") config_.sourceType = sourceTypeFromString(value);
        if (name == "sourceCategory") config_.sourceCategory = sourceCategoryFromString(value);
        if (name == "consent") config_.consent = consentFromString(value);
    }
};

class SetupParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "ingest") return std::make_shared<IngestParser>(config_);
        return JsonDefaultParser::onObject(name);
    }
};

class ValidationRuleParser : public SectionParser {
public:
    ValidationRuleParser(Config& config, std::string key) : SectionParser(config), key_(std::move(key)) {}
    void onBool(const std::string& name, bool value) override { assign(name, value, {{"required", &rule_.required}}); }
    void onString(const std::string& name, const std::string& value) override {
        if (name == "pattern") rule_.pattern.assign(value);
        assign(name, value, {{"default", &rule_.defaultValue}});
    }
    void onEnd() override { config_.validationRules.emplace(key_, std::move(rule_)); }  // an entry that is there stays

private:
    std::string key_;
    ValidationRule rule_;
};

class ValidationRulesParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        return std::make_shared<ValidationRuleParser>(config_, name);
    }
};

class ValidationParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onBool(const std::string& name, bool value) override {
        assign(name, value, {{"flag", &config_.validationFlag}});
    }
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "rules") return std::make_shared<ValidationRulesParser>(config_);
        return JsonDefaultParser::onObject(name);
    }
};

class SecurityParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onBool(const std::string& name, bool value) override {
        assign(name, value, {{"encryptionEnabled", &config_.encryptionEnabled}});
    }
    void onString(const std::string& name, const std::string& value) override {
        assign(name, value, {{"encryptionPassphrase", &config_.encryptionPassphrase}});
    }
};

class EventParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onUint(const std::string& name, uint64_t value) override {
        assignAboveZero(kChannel, name, value,
                        {{"batchSize", &config_.batchSize}, {"batchInterval", &config_.batchInterval}});
        assign(name, value, {{"pauseInterval", &config_.pauseInterval}});
    }
    void onBool(const std::string& name, bool value) override {
        assign(name, value,
               {{"orphanInstanceEnabled", &config_.orphanInstanceEnabled},
                {"flushOnStopEnabled", &config_.flushOnStopEnabled}});
    }
    std::shared_ptr<JsonParser> onArray(const std::string& name) override {
        if (name == "standardKeyPrefixes") {
            return std::make_shared<ArrayParser<std::string, void>>(config_.standardKeyPrefixes);
        }
        return JsonDefaultParser::onArray(name);
    }
};

class FileRotationParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onUint(const std::string& name, uint64_t value) override {
        assignAboveZero(kChannel, name, value,
                        {{"eventFileRotationSize", &config_.eventFileRotationSize},
                         {"invalidEventFileRotationSize", &config_.invalidEventFileRotationSize}});
        assign(name, value,
               {{"eventFileRetentionPeriod", &config_.eventFileRetentionPeriod},
                {"eventFolderSize", &config_.eventFolderSize},
                {"invalidEventFileRetentionPeriod", &config_.invalidEventFileRetentionPeriod},
                {"invalidEventFolderSize", &config_.invalidEventFolderSize}});
    }
};

class HeartbeatParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    void onUint(const std::string& name, uint64_t value) override {
        assignAboveZero(kChannel, name, value, {{"interval", &config_.heartbeatInterval}});
    }
    void onString(const std::string& name, const std::string& value) override {
        assign(name, value, {{"urn", &config_.heartbeatUrn}});
    }
};

class ReservedParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "validation") return std::make_shared<ValidationParser>(config_);
        if (name == "security") return std::make_shared<SecurityParser>(config_);
        if (name == "event") return std::make_shared<EventParser>(config_);
        if (name == "filerotation") return std::make_shared<FileRotationParser>(config_);
        if (name == "heartbeat") return std::make_shared<HeartbeatParser>(config_);
        if (name == "config") return std::make_shared<ServiceParser>(config_.configUrn, config_.configTtl);
        return JsonDefaultParser::onObject(name);
    }
};

}  // namespace

class ConfigParser : public SectionParser {
public:
    using SectionParser::SectionParser;
    std::shared_ptr<JsonParser> onObject(const std::string& name) override {
        if (name == "setup") return std::make_shared<SetupParser>(config_);
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

}  // namespace velmora::service::config::ingest
