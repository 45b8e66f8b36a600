// The one logger of the process, its interface and the macros' back end (see log.h).
//
// The installed logger is read without a lock: setLogger and setDefaultLogger are called only while nothing else runs
// in the library, at start and at the end of a run. Its level may change at any time on any thread.
#pragma once

#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "core/types/logconfig.h"
#include "core/types/types.h"

namespace velmora {

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

// The installed logger, or null.
[[nodiscard]] Logger* logger() noexcept;

// Installs a logger in place of the present one, which is destroyed; null removes it.
void setLogger(std::unique_ptr<Logger> logger);

// Installs a logger only if there is none; otherwise it is destroyed at once. A host's callback thus always wins.
void setDefaultLogger(std::unique_ptr<Logger> logger);

// Whether a line of this level would be written.
[[nodiscard]] bool logs(LogLevel level) noexcept;

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

// What a statement or scope streams is formatted by the "C" locale, whatever the host's is. A logger that throws loses
// the line and disturbs nobody.

// A line of printf format.
template <typename... Args>
void logFormatted(LogLevel level, const LogSite& site, const char* format, Args... args) noexcept {
    try {
        logger()->logf(level, site.channel, logFunctionName(site.function).c_str(), logFileName(site.file).c_str(),
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

// A timed section: begin() writes "Begin " and the text, the destructor "End " and the text. Movable; what has been
// moved from writes nothing.
class LogScope {
public:
    LogScope(LogLevel level, const char* channel, const char* function, const char* file, int line);

    // The text is what `describe` streams, which is called only if the level lets the scope pass; begins at once.
    template <typename Describe>
    LogScope(LogLevel level, const char* channel, const char* function, const char* file, int line, Describe describe)
        : LogScope(level, channel, function, file, line) {
        if (message_) describe(*message_);
        begin();
    }
    LogScope(LogScope&& other) noexcept;
    LogScope& operator=(LogScope&&) = delete;
    ~LogScope();

    // Null when the level drops the scope, so that nothing is formatted.
    std::ostringstream* stream() { return message_ ? &*message_ : nullptr; }
    void begin() noexcept;

private:
    void write(const char* prefix) noexcept;

    std::optional<std::ostringstream> message_;
    LogLevel level_;
    LogSite site_;
    bool armed_ = true;
};

}  // namespace velmora
