// Log statements. Nothing to the right of a statement is evaluated unless the level lets it pass.
//
//     VELMORA_LOG(info, "pipeline") << "Open pipeline: num_events=" << size;
//     VELMORA_LOGF(warn, "fq", "Invalid filesize: size=%d path=%s", size, path.c_str());
//     VELMORA_LOG_SCOPE(info, "api", "flush for instance=" << instance);   // "Begin ..." here, "End ..." at scope exit
//
// Channels are lower case: "api", "config", "configprovider", "crypt", "event.preset", "event.store",
// "event.transformer", "event.validator", "fq", "fs", "healthcheck", "http", "identitymanager", "ingestinstance",
// "json", "log", "mapping", "mappingprovider", "netmon", "netpoll", "orphaninstance", "pipeline", "session",
// "session.config", "session.configprovider", "string.utils", "sysinfo", "taskengine", "transfer", "types", "utils".
#pragma once

#include "core/types/logger.h"

namespace velmora {

// Gives a statement and the unwritten one the same type, void, and binds weaker than <<.
struct LogDone {
    void operator&(const std::ostream&) const noexcept {}
};

}  // namespace velmora

// The ..._AT forms name the function themselves, for templates and for lambdas that speak for their owner.
#define VELMORA_LOG_AT(level, channel, function) \
    !::velmora::logs(::velmora::LogLevel::level) \
        ? static_cast<void>(0)                   \
        : ::velmora::LogDone() &                 \
              ::velmora::LogStatement(::velmora::LogLevel::level, channel, function, __FILE__, __LINE__).stream()

#define VELMORA_LOG(level, channel) VELMORA_LOG_AT(level, channel, __PRETTY_FUNCTION__)

#define VELMORA_LOGF_AT(level, channel, function, ...)         \
    (!::velmora::logs(::velmora::LogLevel::level)              \
         ? static_cast<void>(0)                                \
         : ::velmora::logFormatted(::velmora::LogLevel::level, \
                                   ::velmora::LogSite{channel, function, __FILE__, __LINE__}, __VA_ARGS__))

#define VELMORA_LOGF(level, channel, ...) VELMORA_LOGF_AT(level, channel, __PRETTY_FUNCTION__, __VA_ARGS__)

#define VELMORA_LOG_CONCAT2(a, b) a##b
#define VELMORA_LOG_CONCAT(a, b) VELMORA_LOG_CONCAT2(a, b)
#define VELMORA_LOG_SCOPE_AT(level, channel, function, text)               \
    const ::velmora::LogScope VELMORA_LOG_CONCAT(logScope, __LINE__)(      \
        ::velmora::LogLevel::level, channel, function, __FILE__, __LINE__, \
        [&](std::ostream& logScopeText) { logScopeText << text; })

#define VELMORA_LOG_SCOPE(level, channel, text) VELMORA_LOG_SCOPE_AT(level, channel, __PRETTY_FUNCTION__, text)
