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
//
// The process has one logger. What a statement or scope streams is formatted by the "C" locale, whatever the host's is.
// A logger that throws loses the line and disturbs nobody.
//
// The logger may be exchanged and removed at any time: whoever writes a line is counted, and the old logger is waited
// for until nobody writes to it. One that a line does not leave in time, since a callback of the host hangs in it, is
// left alive. The level stands beside the logger, so that a line which it drops costs one look.
#pragma once

#include <cstdint>
#include <locale>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "core/types/types.h"

namespace velmora {

// Limits of the library's own log files.
struct LogConfig {
    std::string baseName = "velmora";              // start of every log file's name
    uint64_t logFileRotationSize = 104857600;      // bytes; a file bigger than this is closed
    uint64_t logFolderSize = 1073741824;           // bytes; limit of the whole folder
    uint64_t logFileRetentionPeriod = 7776000000;  // milliseconds; older files are deleted
};

class Logger {
public:
    virtual ~Logger() = default;

    virtual LogLevel getLogLevel() = 0;
    virtual void setLogLevel(LogLevel level) = 0;

    // Write one line; the level has been tested by the caller. `file` is the source file's base name. logf takes a
    // printf format.
    virtual void logf(LogLevel level, const char* channel, const char* function, const char* file, int line,
                      const char* format, ...) = 0;
    virtual void log(LogLevel level, const char* channel, const char* function, const char* file, int line,
                     std::ostringstream& message) = 0;

    // For loggers with files: new limits; begin and end of the housekeeping.
    virtual void setConfig(const LogConfig&) {}
    virtual void start() {}
    virtual void stop() {}
};

// The installed logger, or null. Only for a caller that knows it to stay: lines go through the macros.
[[nodiscard]] Logger* logger() noexcept;

// Installs a logger in place of the present one, which is destroyed; null removes it.
void setLogger(std::unique_ptr<Logger> logger);

// Installs a logger only if there is none; otherwise it is destroyed at once. A host's callback thus always wins.
void setDefaultLogger(std::unique_ptr<Logger> logger);

// Changes the level of the installed logger; without effect if there is none.
void setLogLevel(LogLevel level);

// Whether a line of this level would be written.
[[nodiscard]] bool logs(LogLevel level) noexcept;

// The installed logger for as long as the object lives, or null.
class LoggerUse {
public:
    LoggerUse() noexcept;
    ~LoggerUse();
    LoggerUse(const LoggerUse&) = delete;
    LoggerUse& operator=(const LoggerUse&) = delete;

    [[nodiscard]] explicit operator bool() const noexcept { return logger_ != nullptr; }
    Logger* operator->() const noexcept { return logger_; }

private:
    uint32_t generation_ = 0;
    Logger* logger_ = nullptr;
};

// Where a log statement stands.
struct LogSite {
    const char* channel;
    const char* function;
    const char* file;
    int line;
};

// The name behind the last separator, without its extension: what a log line shows of __FILE__.
std::string logFileName(const char* path);

// The function's qualified name out of __PRETTY_FUNCTION__: "velmora::Pipeline::flush".
std::string logFunctionName(const char* prettyFunction);

// A line of printf format.
template <typename... Args>
void logFormatted(LogLevel level, const LogSite& site, const char* format, Args... args) noexcept {
    try {
        const LoggerUse used;
        if (!used) return;
        used->logf(level, site.channel, logFunctionName(site.function).c_str(), logFileName(site.file).c_str(),
                   site.line, format, args...);
    } catch (...) {
    }
}

// One statement: collects the text and writes it at its end.
class LogStatement {
public:
    LogStatement(LogLevel level, const char* channel, const char* function, const char* file, int line);
    ~LogStatement();
    LogStatement(const LogStatement&) = delete;
    LogStatement& operator=(const LogStatement&) = delete;

    std::ostream& stream() { return message_; }

private:
    LogLevel level_;
    LogSite site_;
    std::ostringstream message_;
};

// Writes a line of a scope; what can't be written is lost.
void writeScopeLine(LogLevel level, const LogSite& site, const char* prefix, const std::string& text) noexcept;

// A timed section: "Begin " and the text here, "End " and the same text at its end. Each decides for itself whether the
// level lets it pass; the text is made by the first that does.
template <typename Describe>
class LogScope {
public:
    // `describe` streams the text, and may be called as late as at the end of the scope.
    LogScope(LogLevel level, const char* channel, const char* function, const char* file, int line, Describe describe)
        : level_(level), site_{channel, function, file, line}, describe_(std::move(describe)) {
        write("Begin ");
    }
    ~LogScope() { write("End "); }
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

private:
    void write(const char* prefix) noexcept {
        if (!logs(level_)) return;
        try {
            if (!text_) {
                std::ostringstream out;
                out.imbue(std::locale::classic());
                describe_(out);
                text_ = out.str();
            }
            writeScopeLine(level_, site_, prefix, *text_);
        } catch (...) {
        }
    }

    const LogLevel level_;
    const LogSite site_;
    Describe describe_;
    std::optional<std::string> text_;
};

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
