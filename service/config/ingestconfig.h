// Everything that one ingest instance is configured with: a plain value with built-in defaults.
#pragma once

#include <boost/regex.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/types/types.h"

namespace velmora::service::config::ingest {

struct ValidationRule {
    bool required = false;
    boost::regex pattern{".*"};  // the whole text of the attribute has to match
    std::string defaultValue;    // written if the attribute is required and missing
};

// Intervals, periods and the ttl are milliseconds, sizes bytes.
struct Config {
    std::string project;
    std::string apiKey;
    Environment environment = Environment::stage;
    SourceType sourceType = SourceType::component;
    SourceCategory sourceCategory = SourceCategory::unknown;
    Consent consent = Consent::byDefault;
    bool validationFlag = true;
    std::map<std::string, ValidationRule> validationRules;
    bool encryptionEnabled = false;
    std::string encryptionPassphrase;
    std::vector<std::string> standardKeyPrefixes;
    uint64_t batchSize = 0;
    uint64_t batchInterval = 0;
    uint64_t pauseInterval = 0;
    bool orphanInstanceEnabled = false;
    bool flushOnStopEnabled = false;
    uint64_t eventFileRotationSize = 0;
    uint64_t invalidEventFileRotationSize = 0;
    uint64_t eventFileRetentionPeriod = 0;
    uint64_t invalidEventFileRetentionPeriod = 0;
    uint64_t eventFolderSize = 0;
    uint64_t invalidEventFolderSize = 0;
    std::string heartbeatUrn;
    uint64_t heartbeatInterval = 0;
    std::string configUrn;
    uint64_t configTtl = 0;

    // The defaults of the built-in document.
    Config();

    // Lays a JSON document over the record: what it names is overwritten, all else stays. Key prefixes are appended,
    // and a validation rule whose key is there already is dropped; 0 is refused for the batch size, the batch and
    // heartbeat intervals and the rotation sizes. A bad document is logged on channel "config"; what was assigned
    // before the fault stays. Throws nothing.
    Config& overwriteWith(const std::string& json);

private:
    struct Empty {};
    explicit Config(Empty) {}
};

}  // namespace velmora::service::config::ingest
