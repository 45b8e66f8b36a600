#include "tests/crash/eventid.h"

#include <charconv>

namespace velmora::test {
namespace {

constexpr std::string_view kMark = "crash:";

template <typename Number>
bool take(std::string_view& text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

bool takeDot(std::string_view& text) {
    if (text.empty() || text.front() != '.') return false;
    text.remove_prefix(1);
    return true;
}

}  // namespace

std::string toString(const EventId& id) {
    return std::to_string(id.stream.process) + "." + std::to_string(id.stream.thread) + "." +
           std::to_string(id.sequence);
}

std::optional<EventId> parseEventId(std::string_view text) {
    EventId id;
    const bool whole = take(text, id.stream.process) && takeDot(text) && take(text, id.stream.thread) &&
                       takeDot(text) && take(text, id.sequence) && text.empty();
    return whole ? std::optional(id) : std::nullopt;
}

std::string eventNamed(const EventId& id) {
    return R"({"event.workflow":"Crash","event.type":"success","event.value":")" + std::string(kMark) + toString(id) +
           R"("})";
}

std::vector<EventId> namesIn(std::string_view text) {
    std::vector<EventId> names;
    for (size_t at = text.find(kMark); at != std::string_view::npos; at = text.find(kMark, at)) {
        at += kMark.size();
        const size_t end = text.find('"', at);
        if (const auto id = parseEventId(text.substr(at, end == std::string_view::npos ? end : end - at)))
            names.push_back(*id);
    }
    return names;
}

}  // namespace velmora::test
