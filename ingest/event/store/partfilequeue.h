// One part file of an event store, and its name.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/queue/queuestorage.h"

namespace velmora {

// As the manifest lists it.
class PartName {
public:
    PartName() = default;
    explicit PartName(std::string name) : name_(std::move(name)) {}

    [[nodiscard]] const std::string& string() const noexcept { return name_; }

    // Whether a name can only mean a file in the manifest's own folder. One out of a damaged manifest may not.
    [[nodiscard]] static bool isPlain(std::string_view name) noexcept {
        return !name.empty() && name.front() != '.' && std::all_of(name.begin(), name.end(), isNameCharacter);
    }

    friend bool operator==(const PartName&, const PartName&) = default;

private:
    static bool isNameCharacter(char c) noexcept {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' ||
               c == '.';
    }

    std::string name_;
};

// Held by shared ownership: the part that is written and the part that is read may be the same.
class PartFileQueue {
public:
    // Opens the file, or creates it with room for `rotationSize` bytes of records; raises FQException.
    PartFileQueue(const Path& path, uint64_t rotationSize, platform::RandomAccessFileOpener opener);

    [[nodiscard]] const Path& path() const noexcept { return storage_.path(); }
    [[nodiscard]] uint64_t size() const noexcept { return storage_.recordCount(); }

    // Events that have left it, in whatever way, since it was opened: what tells a batch that it is stale.
    [[nodiscard]] uint64_t gone() const noexcept { return gone_; }

    // False if the part has not taken the event: it is full, or the write failed, which is logged.
    [[nodiscard]] bool push(std::string_view event);
    void pop(std::span<const QueueRecordLength> lengths);  // the oldest events, of these lengths
    void peek(uint64_t count, std::vector<std::string>& out) { storage_.peekRecords(storage_.header(), count, out); }

    // Gives the events up and begins anew with an empty file. If that raises, the part is empty, and the next push
    // tries again to make the file.
    void truncate();

    // Deletes the file with the events in it.
    void remove();

private:
    QueueStorage storage_;
    uint64_t gone_ = 0;
};

}  // namespace velmora
