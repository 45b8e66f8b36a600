// From a line of input to an event that can be found again.
#pragma once

#include <string>

namespace velmora::tool {

struct EventLine {
    std::string json;
    std::string guid;  // its event.guid; empty if the line is no JSON object and goes out as it is, to be refused
};

// An event with an event.guid: its own one, or a fresh one.
[[nodiscard]] EventLine identifiedEvent(const std::string& line);

// An event of the workflow that carries a line of text, whatever it is, as event.value. Bytes that are no UTF-8 become
// question marks.
[[nodiscard]] EventLine eventOfText(const std::string& line, const std::string& workflow);

}  // namespace velmora::tool
