#include "core/logging/externallogger.h"

namespace velmora {

void ExternalLogger::write(LogLevel level, const char* channel, const std::string& line) {
    if (callback_ != nullptr) callback_(static_cast<int32_t>(level), channel, line.c_str());
}

}  // namespace velmora
