#include "ingest/event/store/partfilequeue.h"

#include <utility>

#include "core/types/logger.h"

namespace velmora {

PartFileQueue::PartFileQueue(const Path& path, uint64_t rotationSize, platform::RandomAccessFileOpener opener)
    : storage_(path, rotationSize + kQueueHeaderSize, std::move(opener)) {}

uint64_t PartFileQueue::pop(uint64_t count) {
    const uint64_t popped = storage_.popRecords(count);
    gone_ += popped;
    return popped;
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
