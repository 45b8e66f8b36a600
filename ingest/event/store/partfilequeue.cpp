#include "ingest/event/store/partfilequeue.h"

#include <utility>

#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora {

PartFileQueue::PartFileQueue(const Path& path, uint64_t rotationSize, platform::RandomAccessFileOpener opener)
    : storage_(path, rotationSize + kQueueHeaderSize, std::move(opener)) {}

bool PartFileQueue::push(std::string_view event) {
    try {
        if (storage_.pushRecord(event)) return true;
    } catch (const FQException& e) {
        if (e.code() == FQError::file_limit_exceeded) return false;
        if (e.code() != FQError::file_corrupt) throw;
    }
    VELMORA_LOG(warn, "event.store") << "push failed: num_events=" << size() << " stay in path=" << path().string();
    return false;
}

void PartFileQueue::pop(std::span<const QueueRecordLength> lengths) {
    storage_.popRecords(lengths);
    gone_ += lengths.size();
}

void PartFileQueue::truncate() {
    VELMORA_LOG(warn, "event.store") << "truncate file loses num_events=" << size() << " path=" << path().string();
    gone_ += size();
    storage_.recreate();
}

void PartFileQueue::remove() {
    if (size() == 0) {
        VELMORA_LOG(debug, "event.store") << "remove file loses num_events=0 path=" << path().string();
    } else {
        VELMORA_LOG(warn, "event.store") << "remove file loses num_events=" << size() << " path=" << path().string();
    }
    storage_.remove();
}

}  // namespace velmora
