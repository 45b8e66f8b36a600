// One part file of an event store.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/queue/queuestorage.h"

namespace velmora {

// Held by shared ownership: the part that is written and the part that is read may be the same.
class PartFileQueue {
public:
    // Opens the file, or creates it with room for `rotationSize` bytes of records; raises FQException.
    PartFileQueue(const Path& path, uint64_t rotationSize, platform::RandomAccessFileOpener opener);

    [[nodiscard]] const Path& path() const noexcept { return storage_.path(); }
    [[nodiscard]] uint64_t size() const noexcept { return storage_.recordCount(); }

    // Events that have left it, in whatever way, since it was opened: what tells a batch that it is stale.
    [[nodiscard]] uint64_t gone() const noexcept { return gone_; }

    void push(std::string_view event) { storage_.pushRecord(event); }
    uint64_t pop(uint64_t count);  // how many there were to pop
    void peek(uint64_t count, std::vector<std::string>& out) { storage_.peekRecords(storage_.header(), count, out); }

    // Gives the events up and begins anew with an empty file. If that raises, the part is empty, and the next push
    // fails with code 3.
    void truncate();

    // Deletes the file with the events in it.
    void remove();

private:
    QueueStorage<std::string> storage_;
    uint64_t gone_ = 0;
};

}  // namespace velmora
