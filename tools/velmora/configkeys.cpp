#include "tools/velmora/configkeys.h"

#include "velmora/session.h"

namespace velmora::tool {
namespace {

constexpr struct {
    const char* name;
    int32_t key;
} kKeys[] = {
    {"networkPollInterval", VELMORA_CONFIG_NETWORK_POLL_INTERVAL},
    {"logPrefix", VELMORA_CONFIG_LOG_PREFIX},
    {"logLevel", VELMORA_CONFIG_LOG_LEVEL},
    {"retryInterval", VELMORA_CONFIG_RETRY_INTERVAL},
    {"logFileRotationSize", VELMORA_CONFIG_LOG_FILE_ROTATION_SIZE},
    {"logFileRetentionPeriod", VELMORA_CONFIG_LOG_FILE_RETENTION_PERIOD},
    {"logFolderSize", VELMORA_CONFIG_LOG_FOLDER_SIZE},
    {"permissionStageUrn", VELMORA_CONFIG_PERMISSION_STAGE_URN},
    {"permissionStageTtl", VELMORA_CONFIG_PERMISSION_STAGE_TTL},
    {"permissionProdUrn", VELMORA_CONFIG_PERMISSION_PROD_URN},
    {"permissionProdTtl", VELMORA_CONFIG_PERMISSION_PROD_TTL},
    {"identityStageUrn", VELMORA_CONFIG_IDENTITY_STAGE_URN},
    {"identityStageTtl", VELMORA_CONFIG_IDENTITY_STAGE_TTL},
    {"identityProdUrn", VELMORA_CONFIG_IDENTITY_PROD_URN},
    {"identityProdTtl", VELMORA_CONFIG_IDENTITY_PROD_TTL},
    {"project", VELMORA_CONFIG_PROJECT},
    {"apiKey", VELMORA_CONFIG_API_KEY},
    {"environment", VELMORA_CONFIG_ENVIRONMENT},
    {"sourceType", VELMORA_CONFIG_SOURCE_TYPE},
    {"sourceCategory", VELMORA_CONFIG_SOURCE_CATEGORY},
    {"consent", VELMORA_CONFIG_CONSENT},
    {"validationFlag", VELMORA_CONFIG_VALIDATION_FLAG},
    {"validationRules", VELMORA_CONFIG_VALIDATION_RULES},
    {"standardKeyPrefixes", VELMORA_CONFIG_STANDARD_KEY_PREFIXES},
    {"batchSize", VELMORA_CONFIG_BATCH_SIZE},
    {"batchInterval", VELMORA_CONFIG_BATCH_INTERVAL},
    {"pauseInterval", VELMORA_CONFIG_PAUSE_INTERVAL},
    {"eventFileRotationSize", VELMORA_CONFIG_EVENT_FILE_ROTATION_SIZE},
    {"eventFileRetentionPeriod", VELMORA_CONFIG_EVENT_FILE_RETENTION_PERIOD},
    {"eventFolderSize", VELMORA_CONFIG_EVENT_FOLDER_SIZE},
    {"invalidEventFileRotationSize", VELMORA_CONFIG_INVALID_EVENT_FILE_ROTATION_SIZE},
    {"invalidEventFileRetentionPeriod", VELMORA_CONFIG_INVALID_EVENT_FILE_RETENTION_PERIOD},
    {"invalidEventFolderSize", VELMORA_CONFIG_INVALID_EVENT_FOLDER_SIZE},
    {"heartbeatInterval", VELMORA_CONFIG_HEARTBEAT_INTERVAL},
    {"orphanInstanceEnabled", VELMORA_CONFIG_ORPHAN_INSTANCE_ENABLED},
    {"flushOnStopEnabled", VELMORA_CONFIG_FLUSH_ON_STOP_ENABLED},
};

}  // namespace

std::optional<int32_t> configKeyOf(const std::string& name) {
    for (const auto& entry : kKeys) {
        if (name == entry.name) return entry.key;
    }
    return std::nullopt;
}

std::vector<std::string> configKeyNames() {
    std::vector<std::string> names;
    for (const auto& entry : kKeys) names.emplace_back(entry.name);
    return names;
}

}  // namespace velmora::tool
