#include "ingest/session/globalconfig.h"

#include <memory>
#include <utility>
#include <vector>

#include "core/json/validjson.h"
#include "core/types/mutex.h"
#include "core/utils/strings.h"

namespace velmora {
namespace {

using Config = service::config::session::Config;

constexpr char kLogLevelVariable[] = "VELMORA_CONFIG_RESERVED_LOG_LEVEL";

using SharedConfig = std::shared_ptr<const Config>;

Mutex globalConfigMutex;  // stands alone; held for a look or an exchange

SharedConfig& globalConfig() VELMORA_REQUIRES(globalConfigMutex) {
    static auto& config = *new SharedConfig(std::make_shared<Config>());  // outlives the session, whose end reads it
    return config;
}

SharedConfig presentConfig() {
    const MutexLock lock(globalConfigMutex);
    return globalConfig();
}

// On a copy and without the mutex, since the parser logs; once more if another change has come between.
SharedConfig overwrite(const std::string& document) {
    while (true) {
        const SharedConfig before = presentConfig();
        auto after = std::make_shared<Config>(*before);
        after->overwriteWith(document);
        const MutexLock lock(globalConfigMutex);
        if (globalConfig() == before) return globalConfig() = std::move(after);
    }
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
    const bool isOverridden = getEnvironmentVariable(kLogLevelVariable, level) && !level.empty();
    return isOverridden ? *overwrite(jsonFromPath("reserved.log.level", level)) : *presentConfig();
}

void overwriteGlobalConfig(const std::string& json) { static_cast<void>(overwrite(json)); }

}  // namespace velmora
