// Converts legacy events with a mapping table, as the library does it for a host, and tells what the rules did.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>

#include "ingest/event/conversion/ruletable.h"

namespace velmora::tool {

enum class EventFormat { json, csv };

struct ConvertReport {
    size_t converted = 0;
    size_t unmatched = 0;
    size_t failed = 0;  // no JSON object, or an expression that failed on the event

    [[nodiscard]] bool isComplete() const noexcept { return unmatched == 0 && failed == 0; }
};

// Converts all events of an input and writes those that a rule matched, one a line. JSON input is one event, over as
// many lines as it likes, or one event a line; CSV input has a column per key. What went wrong, and with `explain` what
// each rule did, goes to `notes`, by the line of the input. Throws csv::Error for a text that is no CSV table.
ConvertReport convertEvents(const RuleTable& table, const std::string& input, EventFormat format, bool explain,
                            std::ostream& out, std::ostream& notes);

}  // namespace velmora::tool
