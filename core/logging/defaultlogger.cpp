#include "core/logging/defaultlogger.h"

#include <algorithm>
#include <boost/filesystem/exception.hpp>
#include <cstdio>
#include <map>
#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/utils/timestamps.h"

namespace velmora {
namespace {

constexpr uint64_t kMillisecondsPerSecond = 1000;

// What the logger's own file work logs has nowhere to go.
thread_local bool writing = false;

struct LogFile {
    Path path;
    uint64_t size = 0;
    bool expired = false;
};

// Oldest first, then by name.
using FilesByAge = std::map<std::pair<int64_t, std::string>, LogFile>;

struct LogFolder {
    FilesByAge files;
    uint64_t size = 0;
};

void addFile(LogFolder& folder, const Path& path, const std::string& name, int64_t now, uint64_t retention) {
    try {
        const int64_t age = now - path.lastWriteTime();
        const uint64_t size = path.fileSize();
        const bool expired = age > 0 && static_cast<uint64_t>(age) > retention;
        folder.files.emplace(std::pair(-age, name), LogFile{path, size, expired});
        folder.size += size;
    } catch (const boost::filesystem::filesystem_error&) {
        // Another process of the same user keeps house here too, and a folder has no size: neither may end the round.
    }
}

LogFolder readFolder(const Path& path, uint64_t retention) {
    const int64_t now = currentSeconds();
    LogFolder folder;
    Filesystem::listDirectory(path, [&](const std::string& name) {
        addFile(folder, path / name, name, now, retention);
        return true;
    });
    return folder;
}

// Whoever else picks the same name at the same moment must not lose what is in the file. No translation of line ends,
// so that the bytes counted are the bytes written.
constexpr std::ios::openmode kAppend = std::ios::app | std::ios::binary;

std::string currentTimeForNames() {
    std::string text = formatTimeUtc(currentTicks());
    std::replace(text.begin(), text.end(), ':', '-');
    std::replace(text.begin(), text.end(), 'T', '_');
    return text;
}

std::string sequenceSuffix(unsigned number) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "_%06u", number);
    return suffix;
}

}  // namespace

RotatingLogFile::RotatingLogFile(Path folder, std::string baseName, uint64_t maxSize)
    : folder_(std::move(folder)), baseName_(std::move(baseName)), maxSize_(maxSize) {}

bool RotatingLogFile::rotateIfNeeded() {
    if (!rotateDue_ && stream_.good() && bytesWritten_ <= maxSize_) return false;
    stream_.close();
    stream_.clear();
    if (!Filesystem::isUsersOwn(folder_)) return false;
    path_ = nextName();
    bytesWritten_ = 0;
    rotateDue_ = false;
    return Filesystem::open(stream_, path_, kAppend);
}

void RotatingLogFile::leaveIfDeleted() { rotateDue_ = rotateDue_ || !path_.exists(); }

void RotatingLogFile::write(const std::string& line) {
    stream_ << line << '\n' << std::flush;
    bytesWritten_ += line.size() + 1;
}

void RotatingLogFile::setLimits(std::string baseName, uint64_t maxSize) {
    baseName_ = std::move(baseName);
    maxSize_ = maxSize;
}

Path RotatingLogFile::nextName() const {
    const std::string name = baseName_ + "-" + currentTimeForNames();
    Path path = folder_ / (name + ".log");
    for (unsigned number = 2; path.exists(); ++number) path = folder_ / (name + sequenceSuffix(number) + ".log");
    return path;
}

DefaultLogger::DefaultLogger(LogLevel level, RemovedCallback onRemoved)
    : FormattedLogger(level),
      onRemoved_(std::move(onRemoved)),
      file_(Filesystem::getLogFolder(true), config_.baseName, config_.logFileRotationSize) {}

DefaultLogger::~DefaultLogger() {
    exceptionSafeWrapper([this] {
        stopped_ = true;
        engine_.stop();
    });
}

void DefaultLogger::write(LogLevel, const char*, const std::string& line) {
    if (writing) return;
    writing = true;
    const ScopeExit done([] { writing = false; });
    bool rotated = false;
    {
        const MutexLock lock(mutex_);
        rotated = file_.rotateIfNeeded();
        file_.write(line);
    }
    if (rotated && !stopped_) scheduleRoundUnlessDue();
}

void DefaultLogger::scheduleRoundUnlessDue() {
    if (roundDue_.exchange(true)) return;
    try {
        scheduleHousekeeping();
    } catch (...) {
        roundDue_ = false;
        throw;
    }
}

void DefaultLogger::setConfig(const LogConfig& config) {
    engine_.schedule([this, config] {
        config_ = config;
        const MutexLock lock(mutex_);
        file_.setLimits(config.baseName, config.logFileRotationSize);
    });
    if (!stopped_) scheduleHousekeeping();
}

void DefaultLogger::start() {
    stopped_ = false;
    engine_.start();
    roundDue_ = false;  // a round that was due when the engine stopped never came
    scheduleHousekeeping();
}

void DefaultLogger::stop() {
    stopped_ = true;
    engine_.stop();
}

void DefaultLogger::scheduleHousekeeping() {
    engine_.schedule([this] { doHousekeeping(); });
}

void DefaultLogger::doHousekeeping() {
    roundDue_ = false;
    const Path path = Filesystem::getLogFolder(false);
    if (!Filesystem::isUsersOwn(path)) return;
    const uint64_t retention = config_.logFileRetentionPeriod / kMillisecondsPerSecond;
    const LogFolder folder = readFolder(path, retention);
    uint64_t size = folder.size;
    uint64_t expired = 0;
    uint64_t overflowed = 0;
    for (const auto& [key, file] : folder.files) {
        if (stopped_) break;
        if (!file.expired && size <= config_.logFolderSize) break;
        ++(file.expired ? expired : overflowed);
        Filesystem::remove(file.path);
        size -= file.size;
    }
    leaveDeletedFile();
    if (expired > 0) onRemoved_("Expire", expired, folder.size);
    if (overflowed > 0) onRemoved_("Overflow", overflowed, folder.size);
}

void DefaultLogger::leaveDeletedFile() {
    const MutexLock lock(mutex_);
    file_.leaveIfDeleted();
}

}  // namespace velmora
