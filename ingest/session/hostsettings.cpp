#include "ingest/session/hostsettings.h"

#include <vector>

#include "core/json/jsontext.h"
#include "core/utils/strings.h"

namespace velmora {
namespace {

using Config = service::config::session::Config;

constexpr char kLogLevelVariable[] = "VELMORA_CONFIG_RESERVED_LOG_LEVEL";

// Never destroyed: the session's end reads it.
Published<Config>& globalConfig() {
    static auto& config = *new Published<Config>;
    return config;
}

Published<Config>::Shared overwrite(const std::string& document) {
    return globalConfig().change([&](Config& config) { config.overwriteWith(document); });
}

std::vector<std::string> splitPath(const std::string& path) {
    std::vector<std::string> segments(1);
    char quote = '\0';
    for (const char c : path) {
        if (quote == '\0' && c == '.') {
            segments.emplace_back();
            continue;
        }
        if (quote == '\0' && (c == '"' || c == '\'')) {
            quote = c;
        } else if (c == quote) {
            quote = '\0';
        }
        segments.back() += c;
    }
    return segments;
}

std::string unquoted(const std::string& segment) {
    const bool isQuoted =
        segment.size() >= 2 && (segment.front() == '"' || segment.front() == '\'') && segment.front() == segment.back();
    return isQuoted ? segment.substr(1, segment.size() - 2) : segment;
}

}  // namespace

Published<IngestSettings::Config>::Shared IngestSettings::get(const std::string& configGuid) const {
    const MutexLock lock(mutex_);
    const auto found = configs_.find(configGuid);
    return found == configs_.end() ? defaults_ : found->second.get();
}

void IngestSettings::change(const std::string& configGuid, const std::function<void(Config&)>& change) {
    Published<Config>* config = nullptr;
    {
        const MutexLock lock(mutex_);
        config = &configs_[configGuid];
    }
    config->change(change);
}

std::string jsonFromPath(const std::string& path, const std::string& value) {
    const std::vector<std::string> segments = splitPath(path);
    std::string document;
    for (const std::string& segment : segments) document.append("{\"").append(unquoted(segment)).append("\":");
    if (validJSONValue(value)) {
        document.append(value);
    } else {
        document.append("\"").append(value).append("\"");
    }
    return document.append(segments.size(), '}');
}

Config getGlobalConfig() {
    std::string level;
    const bool isOverridden = getEnvironmentVariable(kLogLevelVariable, level) && !level.empty();
    return isOverridden ? *overwrite(jsonFromPath("reserved.log.level", level)) : *globalConfig().get();
}

void overwriteGlobalConfig(const std::string& json) { static_cast<void>(overwrite(json)); }

}  // namespace velmora
