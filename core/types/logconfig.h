// Limits of the library's own log files.
#pragma once

#include <cstdint>
#include <string>

namespace velmora {

struct LogConfig {
    std::string baseName = "velmora";              // start of every log file's name
    uint64_t logFileRotationSize = 104857600;      // bytes; a file bigger than this is closed
    uint64_t logFolderSize = 1073741824;           // bytes; limit of the whole folder
    uint64_t logFileRetentionPeriod = 7776000000;  // milliseconds; older files are deleted
};

}  // namespace velmora
