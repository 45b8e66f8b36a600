#include "ingest/event/store/queue.h"

#include <utility>

#include "core/types/mutex.h"
#include "ingest/event/store/eventstore.h"

namespace velmora {
namespace {

Mutex factoryMutex;
QueueFactory registeredFactory VELMORA_GUARDED_BY(factoryMutex);

QueueFactory currentFactory() {
    const MutexLock lock(factoryMutex);
    return registeredFactory;
}

}  // namespace

std::unique_ptr<Queue> makeQueue(Path folder, DropCallback onDrop, QueueConfig config) {
    if (const QueueFactory factory = currentFactory()) {
        return factory(std::move(folder), std::move(onDrop), std::move(config));
    }
    return std::make_unique<EventStore>(std::move(folder), std::move(onDrop), std::move(config));
}

void setQueueFactory(QueueFactory factory) {
    const MutexLock lock(factoryMutex);
    registeredFactory.swap(factory);
}

}  // namespace velmora
