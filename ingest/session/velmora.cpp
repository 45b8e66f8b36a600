#include <array>
#include <cstring>

#include "core/logging/formattedlogger.h"
#include "ingest/main/entryframe.h"
#include "ingest/session/hostsettings.h"
#include "ingest/session/session.h"
#include "velmora/session.h"

using velmora::refuse;
using velmora::requireText;
using velmora::runEntry;
using velmora::Session;
using velmora::shown;
using velmora::VelmoraError;

namespace {

constexpr size_t kGuidLength = 36;
constexpr int32_t kLastSessionKey = 14;

// By key; the numbers are those of velmora_config_key.
constexpr std::array<const char*, 36> kConfigPaths{
    "reserved.network.pollInterval",
    "reserved.log.prefix",
    "reserved.log.level",
    "reserved.error.retryInterval",
    "reserved.filerotation.logFileRotationSize",
    "reserved.filerotation.logFileRetentionPeriod",
    "reserved.filerotation.logFolderSize",
    "reserved.permission.endpoint.stage.urn",
    "reserved.permission.endpoint.stage.ttl",
    "reserved.permission.endpoint.prod.urn",
    "reserved.permission.endpoint.prod.ttl",
    "reserved.identity.endpoint.stage.urn",
    "reserved.identity.endpoint.stage.ttl",
    "reserved.identity.endpoint.prod.urn",
    "reserved.identity.endpoint.prod.ttl",
    "setup.ingest.project",
    "setup.ingest.apiKey",
    "setup.ingest.environment",
    "setup.ingest.sourceType",
    "setup.ingest.sourceCategory",
    "setup.ingest.consent",
    "reserved.validation.flag",
    "reserved.validation.rules",
    "reserved.event.standardKeyPrefixes",
    "reserved.event.batchSize",
    "reserved.event.batchInterval",
    "reserved.event.pauseInterval",
    "reserved.filerotation.eventFileRotationSize",
    "reserved.filerotation.eventFileRetentionPeriod",
    "reserved.filerotation.eventFolderSize",
    "reserved.filerotation.invalidEventFileRotationSize",
    "reserved.filerotation.invalidEventFileRetentionPeriod",
    "reserved.filerotation.invalidEventFolderSize",
    "reserved.heartbeat.interval",
    "reserved.event.orphanInstanceEnabled",
    "reserved.event.flushOnStopEnabled",
};

void requirePointer(const void* pointer, const char* function, const char* message) {
    if (pointer == nullptr) refuse(VelmoraError::invalid_argument, function, message, shown(nullptr));
}

const char* velmora_configKeyToJsonPath(int32_t key) {
    if (key < 0 || static_cast<size_t>(key) >= kConfigPaths.size()) {
        VELMORA_LOG_AT(warn, "api", "velmora_configKeyToJsonPath") << "unknown config key=" << key;
        throw std::system_error(VelmoraError::invalid_argument);
    }
    return kConfigPaths[static_cast<size_t>(key)];
}

// The host's own copy of a text, to be given back to velmora_release.
char* velmora_allocateString(std::string text) {
    char* const buffer = new char[text.size() + 1];
    VELMORA_LOG_AT(trace, "api", "velmora_allocateString")
        << "allocated buffer: " << std::hex << reinterpret_cast<uintptr_t>(buffer);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return buffer;
}

}  // namespace

int32_t velmora_init(void) {
    return runEntry([] {
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_init", "init");
        Session::getInstance();
    });
}

int32_t velmora_exit(void) {
    return runEntry([] { VELMORA_LOG_SCOPE_AT(info, "api", "velmora_exit", "exit"); });
}

int32_t velmora_online(void) {
    return runEntry([] {
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_online", "online");
        Session::getInstance().goOnline();
    });
}

int32_t velmora_offline(void) {
    return runEntry([] {
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_offline", "offline");
        Session::getInstance().goOffline();
    });
}

int32_t velmora_setSession(const char* guid) {
    return runEntry([=] {
        requireText(guid, "velmora_setSession", "setSession: sessionGuid=");
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_setSession", "setSession: guid=" << guid);
        Session::getInstance().setSessionGuid(guid);
    });
}

int32_t velmora_getSession(char* sessionGuid) {
    return runEntry([=] {
        requirePointer(sessionGuid, "velmora_getSession", "getSession: sessionGuid=");
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_getSession", "getSession");
        const std::string guid = Session::getInstance().getSessionGuid().substr(0, kGuidLength);
        std::memcpy(sessionGuid, guid.c_str(), guid.size() + 1);
        VELMORA_LOG_AT(info, "api", "velmora_getSession") << "getSession: returns guid=" << guid;
    });
}

int32_t velmora_setAccessToken(const char* accessToken) {
    return runEntry([=] {
        requirePointer(accessToken, "velmora_setAccessToken", "setAccessToken: accessToken=");
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_setAccessToken", "setAccessToken");
        Session::getInstance().setAccessToken(accessToken);
    });
}

int32_t velmora_setLorneProfile(const char* lorneProfile) {
    return runEntry([=] {
        requirePointer(lorneProfile, "velmora_setLorneProfile", "setLorneProfile: lorneProfile=");
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_setLorneProfile", "setLorneProfile");
        Session::getInstance().setLorneProfile(lorneProfile);
    });
}

int32_t velmora_setConfig(const char* configGuid, int32_t key, const char* value) {
    return runEntry([=] {
        requireText(value, "velmora_setConfig", "setConfig: value=");
        const char* const path = velmora_configKeyToJsonPath(key);
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_setConfig",
                             "setConfig: for configGuid=" << shown(configGuid) << " key=" << key << " (" << path << ")"
                                                          << " value=" << value);
        if (key > kLastSessionKey && configGuid != nullptr) {
            Session::getInstance().setConfigValue(configGuid, path, value);
        } else {
            Session::setGlobalConfigValue(path, value);
        }
    });
}

int32_t velmora_setIngestConfig(const char* configGuid, int32_t environment, const char* project, const char* apiKey,
                                int32_t sourceType, int32_t sourceCategory, int32_t consent) {
    return runEntry([=] {
        constexpr auto kFunction = "velmora_setIngestConfig";
        requireText(configGuid, kFunction, "setIngestConfig: configGuid=");
        requireText(project, kFunction, "setIngestConfig: project=");
        requireText(apiKey, kFunction, "setIngestConfig: apiKey=");
        VELMORA_LOG_SCOPE_AT(
            info, "api", kFunction,
            "setIngestConfig: configGuid=" << configGuid << " project=" << project << " apiKey=" << apiKey);
        velmora::service::config::ingest::Config setup;
        setup.project = project;
        setup.apiKey = apiKey;
        setup.environment = static_cast<velmora::Environment>(environment);
        setup.sourceType = static_cast<velmora::SourceType>(sourceType);
        setup.sourceCategory = static_cast<velmora::SourceCategory>(sourceCategory);
        setup.consent = static_cast<velmora::Consent>(consent);
        Session::getInstance().setIngestConfig(configGuid, setup);
    });
}

int32_t velmora_setIaasMapping(const char* configGuid, const char* iaasCsv) {
    return runEntry([=] {
        constexpr auto kFunction = "velmora_setIaasMapping";
        requireText(configGuid, kFunction, "setIaasMapping: configGuid=");
        requireText(iaasCsv, kFunction, "setIaasMapping: iaasCsv=");
        VELMORA_LOG_SCOPE_AT(info, "api", kFunction, "setIaasMapping: configGuid=" << configGuid);
        Session::getInstance().conversions().setMapping(configGuid, iaasCsv);
    });
}

int32_t velmora_iaasToIngestSDM(const char* configGuid, const char* inputJson, char** pOutputJson) {
    if (pOutputJson != nullptr) *pOutputJson = nullptr;
    bool matched = false;
    const int32_t result = runEntry([=, &matched] {
        constexpr auto kFunction = "velmora_iaasToIngestSDM";
        requirePointer(inputJson, kFunction, "iaasToIngestSDM: inputJson=");
        requirePointer(pOutputJson, kFunction, "iaasToIngestSDM: pOutputJson=");
        VELMORA_LOG_SCOPE_AT(info, "api", kFunction, "iaasToIngestSDM: inputJson=" << inputJson);
        if (configGuid == nullptr) throw std::system_error(VelmoraError::unknown, "no configuration guid");
        std::string json = Session::getInstance().conversions().convert(configGuid, inputJson, matched);
        VELMORA_LOG_AT(trace, "api", kFunction) << "iaasToIngestSDM: ingestJson=" << json;
        *pOutputJson = velmora_allocateString(std::move(json));
    });
    if (result != VELMORA_OK) return result;
    return matched ? VELMORA_OK : VELMORA_ERROR_IAAS_NO_RULE_MATCHED;
}

int32_t velmora_iaasBatchToIngestSDM(const char* configGuid, const char* inCsvPath, const char* outCsvPath) {
    return runEntry([=] {
        constexpr auto kFunction = "velmora_iaasBatchToIngestSDM";
        // The texts are those of the single conversion: parsers of the log rely on them.
        requirePointer(inCsvPath, kFunction, "iaasToIngestSDM: inCsvPath=");
        requirePointer(outCsvPath, kFunction, "iaasToIngestSDM: outCsvPath=");
        VELMORA_LOG_SCOPE_AT(info, "api", kFunction, "iaasToIngestSDM: inCsvPath=" << inCsvPath);
        if (configGuid == nullptr) throw std::system_error(VelmoraError::unknown, "no configuration guid");
        Session::getInstance().conversions().convertFile(configGuid, inCsvPath, outCsvPath);
    });
}

int32_t velmora_getSELBYData(char** pSelbyJson) {
    return runEntry([=] {
        requirePointer(pSelbyJson, "velmora_getSELBYData", "getSELBYData: pSelbyJson=");
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_getSELBYData", "getSELBYData");
        std::string selbyData = Session::getInstance().getSELBYData();
        VELMORA_LOG_AT(trace, "api", "velmora_getSELBYData") << "getSELBYData: selbyData=" << selbyData;
        *pSelbyJson = velmora_allocateString(std::move(selbyData));
    });
}

int32_t velmora_release(void* buffer) {
    return runEntry([=] {
        VELMORA_LOG_SCOPE_AT(info, "api", "velmora_release",
                             "release: dellocate buffer: " << std::hex << reinterpret_cast<uintptr_t>(buffer));
        delete[] static_cast<char*>(buffer);
    });
}

int32_t velmora_setLogCallback(velmora_log_callback callback) {
    return runEntry([=] {
        velmora::setLogger(std::make_unique<velmora::ExternalLogger>(velmora::getGlobalConfig().logLevel, callback));
    });
}

int32_t velmora_setLogLevel(int32_t level) {
    return runEntry([=] {
        Session::setGlobalConfigValue("reserved.log.level",
                                      velmora::logLevelToString(static_cast<velmora::LogLevel>(level)));
    });
}
