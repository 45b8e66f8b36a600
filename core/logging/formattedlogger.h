// The line that every logger of the library writes, and the logger that gives it to the host:
//
//   2023-03-14T10:15:30.123456Z: t=1a2c: info: log: start logger (velmora::setLogger.logger.44)
#pragma once

#include <atomic>
#include <string>

#include "core/types/logger.h"
#include "velmora/types.h"

namespace velmora {

class FormattedLogger : public Logger {
public:
    explicit FormattedLogger(LogLevel level) : level_(level) {}

    LogLevel getLogLevel() override { return level_; }
    void setLogLevel(LogLevel level) override { level_ = level; }
    void logf(LogLevel level, const char* channel, const char* function, const char* file, int line, const char* format,
              ...) override;
    void log(LogLevel level, const char* channel, const char* function, const char* file, int line,
             std::ostringstream& message) override;

    // Takes a finished line without a line end, on any thread.
    virtual void write(LogLevel level, const char* channel, const std::string& line) = 0;

private:
    std::atomic<LogLevel> level_;  // set by any thread, read at every statement
};

// Hands lines to the host's function, on whichever thread logs and without a lock.
class ExternalLogger : public FormattedLogger {
public:
    // A null callback drops every line.
    ExternalLogger(LogLevel level, velmora_log_callback callback) : FormattedLogger(level), callback_(callback) {}
    void write(LogLevel level, const char* channel, const std::string& line) override;

private:
    velmora_log_callback callback_;
};

}  // namespace velmora
