// Names of the events of a crash test: who submitted it, on which thread, and as which of that thread.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::test {

// What one thread of one process submits, in order.
struct Stream {
    int process = 0;
    int thread = 0;
    friend auto operator<=>(const Stream&, const Stream&) = default;
};

struct EventId {
    Stream stream;
    int64_t sequence = 0;
    friend auto operator<=>(const EventId&, const EventId&) = default;
};

[[nodiscard]] std::string toString(const EventId& id);  // "process.thread.sequence"
[[nodiscard]] std::optional<EventId> parseEventId(std::string_view text);

// An event's JSON with its name in it, and the names in a text that holds such events, in order.
[[nodiscard]] std::string eventNamed(const EventId& id);
[[nodiscard]] std::vector<EventId> namesIn(std::string_view text);

}  // namespace velmora::test
