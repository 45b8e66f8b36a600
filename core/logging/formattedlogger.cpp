#include "core/logging/formattedlogger.h"

#include <cstdarg>
#include <cstdio>

#include "core/platform/process.h"
#include "core/utils/timestamps.h"

namespace velmora {
namespace {

std::string formatMessage(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string message;
    if (length > 0) {
        message.resize(static_cast<size_t>(length) + 1);
        std::vsnprintf(message.data(), message.size(), format, again);
        message.pop_back();  // the terminator
    }
    va_end(again);
    return message;
}

void appendHex(std::string& out, uint64_t value) {
    char digits[17];
    out.append(digits, static_cast<size_t>(
                           std::snprintf(digits, sizeof digits, "%llx", static_cast<unsigned long long>(value))));
}

std::string formatLine(LogLevel level, const char* channel, const char* function, const char* file, int line,
                       const std::string& message) {
    std::string text = currentTimeUtcMicros();
    text.append(": t=");
    appendHex(text, platform::currentThreadId());
    text.append(": ").append(logLevelToString(level)).append(": ").append(channel).append(": ");
    text.append(message);
    text.append(" (").append(function).append(".").append(file).append(".").append(std::to_string(line)).append(")");
    return text;
}

}  // namespace

void FormattedLogger::logf(LogLevel level, const char* channel, const char* function, const char* file, int line,
                           const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string message = formatMessage(format, arguments);
    va_end(arguments);
    write(level, channel, formatLine(level, channel, function, file, line, message));
}

void FormattedLogger::log(LogLevel level, const char* channel, const char* function, const char* file, int line,
                          std::ostringstream& message) {
    write(level, channel, formatLine(level, channel, function, file, line, message.str()));
}

void ExternalLogger::write(LogLevel level, const char* channel, const std::string& line) {
    if (callback_ != nullptr) callback_(static_cast<int32_t>(level), channel, line.c_str());
}

}  // namespace velmora
