// The abstract persistent queue of one line.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Threads: any; push may come from host threads while a batch is drained.
class Queue {
public:
    // The oldest records, as a peek found them, and where they stand. A value: it holds no file and no lock. It goes
    // stale once records leave the queue, by a pop or otherwise. The records are the holder's, who may move them out.
    class Batch {
    public:
        std::vector<std::string> records;

    private:
        friend class EventStore;
        std::weak_ptr<const void> part_;
        uint64_t first_ = 0;  // records that had left the part before
        std::vector<uint32_t> lengths_;
    };

    virtual ~Queue() = default;

    // Appends a record: it survives the end of the process when the call returns. Throws `event_too_big` for a record
    // that fits no file, and what the file layer raises.
    virtual void push(std::string_view record) = 0;

    // At most `count` of the oldest records, fewer if a file ends before. Repeatable.
    [[nodiscard]] virtual Batch peek(uint64_t count) = 0;

    // Removes the first `count` records of the batch, or all it has if they are fewer; how many it has removed. A stale
    // batch is ignored, with a log line.
    virtual uint64_t pop(const Batch& batch, uint64_t count) = 0;

    [[nodiscard]] virtual uint64_t size() const = 0;

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

}  // namespace velmora
