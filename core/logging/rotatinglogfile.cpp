#include "core/logging/rotatinglogfile.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/utils/timestamps.h"

namespace velmora {
namespace {

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

}  // namespace velmora
