// Writes rotating files to the log folder and keeps that folder within its limits. Lines are written from construction
// on; housekeeping runs between start() and stop(), on an engine of its own that no log statement waits for. A log
// folder that is not the user's own is left alone: nothing is written and nothing deleted there.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "core/logging/formattedlogger.h"
#include "core/logging/rotatinglogfile.h"
#include "core/types/mutex.h"
#include "core/utils/taskengine.h"

namespace velmora {

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
