#include "ingest/session/globalconfig.h"

#include <vector>

#include "core/json/validjson.h"
#include "core/utils/mutex.h"
#include "core/utils/strings.h"

namespace velmora {
namespace {

using Config = service::config::session::Config;

constexpr char kLogLevelVariable[] = "VELMORA_CONFIG_RESERVED_LOG_LEVEL";

Mutex globalConfigMutex;  // stands alone; held for a copy or an overwrite

Config& globalConfig() VELMORA_REQUIRES(globalConfigMutex) {
    static auto& config = *new Config;  // outlives the session, whose end still reads it
    return config;
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
    const bool overridden = getEnvironmentVariable(kLogLevelVariable, level) && !level.empty();
    const std::string document = overridden ? jsonFromPath("reserved.log.level", level) : std::string();
    const MutexLock lock(globalConfigMutex);
    if (overridden) globalConfig().overwriteWith(document);
    return globalConfig();
}

void overwriteGlobalConfig(const std::string& json) {
    const MutexLock lock(globalConfigMutex);
    globalConfig().overwriteWith(json);
}

}  // namespace velmora
