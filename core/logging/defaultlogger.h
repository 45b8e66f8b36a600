// The log files of the library: one that rotates, and the logger that writes it and keeps its folder in order.
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

#include "core/filesystem/path.h"
#include "core/logging/formattedlogger.h"
#include "core/types/mutex.h"
#include "core/utils/taskengine.h"

namespace velmora {

// One log file after the other in a folder; a new one is begun when the present one has grown past its limit or can't
// be written. Names: "velmora-2023-03-14_10-15-30Z.log", then with "_000002" and so on for the same second.
//
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

// Writes rotating files to the log folder and keeps that folder within its limits. Lines are written from construction
// on; housekeeping runs between start() and stop(), on an engine of its own that no log statement waits for. A log
// folder that is not the user's own is left alone: nothing is written and nothing deleted there.
class DefaultLogger : public FormattedLogger {
public:
    // Told of deleted files: "Expire" or "Overflow", their number, and the folder's size in bytes as measured at the
    // start of the housekeeping.
    using RemovedCallback = std::function<void(const std::string& reason, uint64_t count, uint64_t folderSize)>;

    DefaultLogger(LogLevel level, RemovedCallback onRemoved);
    ~DefaultLogger() override;

    void write(LogLevel level, const char* channel, const std::string& line) override;
    void setConfig(const LogConfig& config) override;
    void start() override;
    void stop() override;

private:
    void scheduleHousekeeping();
    void scheduleRoundUnlessDue();
    void doHousekeeping();
    void leaveDeletedFile() VELMORA_EXCLUDES(mutex_);

    std::atomic<bool> stopped_ = true;    // written by start and stop, read by writers and by housekeeping
    std::atomic<bool> roundDue_ = false;  // by a rotation; one at a time, however often files can't be written
    Mutex mutex_;
    const RemovedCallback onRemoved_;
    LogConfig config_;  // touched on the engine only
    RotatingLogFile file_ VELMORA_GUARDED_BY(mutex_);
    SerialTaskEngine engine_;
};

}  // namespace velmora
