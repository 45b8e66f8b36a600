// An event of the log as a row of the table of events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::tool {

// Times are microseconds since 1970, UTC.
struct EventRow {
    std::optional<int64_t> time;  // of the event's own clock; none if it tells no time that can be read
    int32_t day = kNoDay;         // of that time, in UTC, since 1970: the same whenever the event comes again
    std::string project;
    std::string environment;
    std::optional<std::string> user;
    std::string guid;       // the SHA-256 of the text for an event without one, or with one above kMaxGuid bytes
    std::string_view text;  // as it arrived
    int64_t published = 0;  // when the log took it
    bool isEvent = false;   // the text is a JSON object; if not, only text and guid mean anything

    static constexpr int32_t kNoDay = -719162;  // 0001-01-01
    static constexpr size_t kMaxGuid = 200;
};

// The text has to outlive the row. Never fails: what the text does not tell stays empty.
[[nodiscard]] EventRow readEventRow(std::string_view text, int64_t published);

// "2023-03-14T11:15:30.123+0100": the fraction may be missing or have up to nine digits, the offset may be Z, +01:00 or
// missing (UTC). Nothing for any other text and for days that do not exist.
[[nodiscard]] std::optional<int64_t> parseEventTime(std::string_view text);

}  // namespace velmora::tool
