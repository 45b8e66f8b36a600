#include "core/queue/readahead.h"

#include <algorithm>
#include <cstring>

namespace velmora {

bool ReadAhead::read(uint64_t position, void* buffer, size_t size) {
    if (!contains(position, size)) return false;
    if (size > kWindowSize) return file_.read(position, buffer, size);
    const bool inWindow = position >= windowPosition_ && position + size <= windowPosition_ + windowSize_;
    if (!inWindow && !fill(position)) return false;
    std::memcpy(buffer, window_.get() + (position - windowPosition_), size);
    return true;
}

bool ReadAhead::fill(uint64_t position) {
    if (!window_) window_ = std::make_unique_for_overwrite<char[]>(kWindowSize);
    windowPosition_ = position;
    windowSize_ = static_cast<size_t>(std::min<uint64_t>(kWindowSize, fileSize_ - position));
    if (file_.read(position, window_.get(), windowSize_)) return true;
    windowSize_ = 0;
    return false;
}

}  // namespace velmora
