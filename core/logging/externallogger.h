// Hands lines to the host's function, on whichever thread logs and without a lock.
#pragma once

#include "core/logging/formattedlogger.h"
#include "velmora/types.h"

namespace velmora {

class ExternalLogger : public FormattedLogger {
public:
    // A null callback drops every line.
    ExternalLogger(LogLevel level, velmora_log_callback callback) : FormattedLogger(level), callback_(callback) {}
    void write(LogLevel level, const char* channel, const std::string& line) override;

private:
    velmora_log_callback callback_;
};

}  // namespace velmora
