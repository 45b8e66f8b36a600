// The abstract persistent queue of one pipeline.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/filesystem/path.h"

namespace velmora {

// Threads: any; push may come from host threads while a batch is drained.
class Queue {
public:
    virtual ~Queue() = default;

    // Appends a record: it survives the end of the process when the call returns. Throws `event_too_big` for a record
    // that fits no file, and what the file layer raises.
    virtual void push(const std::string& event) = 0;

    // Removes the oldest records, those of the last peek. Ignored if they may be gone since.
    virtual void pop(uint64_t count) = 0;

    // Copies at most `count` of the oldest records, fewer if a file ends before. Repeatable.
    virtual std::vector<std::string> peek(uint64_t count) = 0;

    [[nodiscard]] virtual uint64_t size() = 0;

    // Deletes everything.
    virtual void remove() = 0;
};

// Told of records that a store has thrown away: the store's name, "Empty", "Expire" or "Overflow", the number of files
// (Empty) or events, and the folder's size in bytes before. Called under the store's lock: it must not call back into
// the store.
using DropCallback =
    std::function<void(const std::string& storeName, const std::string& reason, uint64_t count, uint64_t folderSize)>;

struct QueueConfig {
    std::string name;           // for logs and the drop callback
    uint64_t fileRotationSize;  // bytes in one part file; not 0
    uint64_t folderSizeLimit;   // bytes in all part files
    uint64_t retentionPeriod;   // milliseconds after which a part file expires
};

using QueueFactory = std::function<std::unique_ptr<Queue>(Path folder, DropCallback onDrop, QueueConfig config)>;

// By the registered factory, else an EventStore.
[[nodiscard]] std::unique_ptr<Queue> makeQueue(Path folder, DropCallback onDrop, QueueConfig config);
void setQueueFactory(QueueFactory factory);

}  // namespace velmora
