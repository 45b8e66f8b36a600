// One log file after the other in a folder; a new one is begun when the present one has grown past its limit or can't
// be written. Names: "velmora-2023-03-14_10-15-30Z.log", then with "_000002" and so on for the same second.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

#include "core/filesystem/path.h"

namespace velmora {

// Not synchronised.
class RotatingLogFile {
public:
    RotatingLogFile(Path folder, std::string baseName, uint64_t maxSize);

    // Begins a new file if it is time to; whether one could be opened. None is opened in a folder that is not the
    // user's own.
    bool rotateIfNeeded();

    // Appends the line and a line end, flushed: it survives a crash of the host.
    void write(const std::string& line);

    // Begins a new file with the next line if the present one has been deleted: what is written to it is lost.
    void leaveIfDeleted();

    void setLimits(std::string baseName, uint64_t maxSize);

private:
    Path nextName() const;

    Path folder_;
    std::string baseName_;
    Path path_;
    bool rotateDue_ = true;
    uint64_t bytesWritten_ = 0;
    uint64_t maxSize_;
    std::ofstream stream_;
};

}  // namespace velmora
