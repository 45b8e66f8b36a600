#include "tools/velmora/deliver/eventrow.h"

#include <rapidjson/document.h>

#include <charconv>
#include <chrono>

#include "core/json/jsontext.h"
#include "tools/velmora/jetstream/eventaddress.h"

namespace velmora::tool {
namespace {

constexpr int64_t kMicrosPerSecond = 1000000;
constexpr int64_t kSecondsPerDay = 86400;
constexpr size_t kMaxFraction = 9;

// Reads a text from the front, digit by digit.
class Cursor {
public:
    explicit Cursor(std::string_view text) : rest_(text) {}

    // Exactly so many digits.
    bool number(size_t digits, int& value) {
        if (rest_.size() < digits) return false;
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + digits, value);
        if (error != std::errc() || end != rest_.data() + digits || value < 0) return false;
        rest_.remove_prefix(digits);
        return true;
    }
    bool literal(char c) {
        if (!rest_.starts_with(c)) return false;
        rest_.remove_prefix(1);
        return true;
    }
    std::string_view digits() {
        const size_t end = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
        const std::string_view found = rest_.substr(0, end);
        rest_.remove_prefix(end);
        return found;
    }
    [[nodiscard]] bool atEnd() const { return rest_.empty(); }

private:
    std::string_view rest_;
};

bool readFraction(Cursor& cursor, int64_t& micros) {
    if (!cursor.literal('.')) return true;
    const std::string_view digits = cursor.digits();
    if (digits.empty() || digits.size() > kMaxFraction) return false;
    int64_t unit = kMicrosPerSecond / 10;
    for (const char digit : digits) {
        micros += (digit - '0') * unit;
        unit /= 10;
    }
    return true;
}

bool readOffset(Cursor& cursor, int64_t& seconds) {
    if (cursor.atEnd() || cursor.literal('Z')) return cursor.atEnd();
    const int sign = cursor.literal('-') ? -1 : 1;
    if (sign > 0 && !cursor.literal('+')) return false;
    int hours = 0;
    int minutes = 0;
    if (!cursor.number(2, hours)) return false;
    cursor.literal(':');
    if (!cursor.number(2, minutes) || hours > 23 || minutes > 59) return false;
    seconds = sign * (hours * 3600 + minutes * 60);
    return cursor.atEnd();
}

// A string member, or null.
const JsonValue* stringMember(const JsonValue& object, const char* name) {
    const auto found = object.FindMember(name);
    return found != object.MemberEnd() && found->value.IsString() ? &found->value : nullptr;
}

std::string textOf(const JsonValue* value) {
    return value ? std::string(value->GetString(), value->GetStringLength()) : std::string();
}

int32_t dayOf(int64_t micros) {
    const int64_t day = kMicrosPerSecond * kSecondsPerDay;
    return static_cast<int32_t>((micros >= 0 ? micros : micros - day + 1) / day);
}

void readMembers(const JsonDocument& event, EventRow& row) {
    row.project = textOf(stringMember(event, "project"));
    row.environment = textOf(stringMember(event, "environment"));
    const JsonValue* const time = stringMember(event, "time");
    if (time) row.time = parseEventTime({time->GetString(), time->GetStringLength()});
    if (row.time) row.day = dayOf(*row.time);
    const auto data = event.FindMember("data");
    if (data == event.MemberEnd() || !data->value.IsObject()) return;
    row.guid = textOf(stringMember(data->value, "event.guid"));
    std::string user = textOf(stringMember(data->value, "event.user_guid"));
    if (!user.empty()) row.user = std::move(user);
}

}  // namespace

std::optional<int64_t> parseEventTime(std::string_view text) {
    using namespace std::chrono;
    Cursor cursor(text);
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int64_t micros = 0;
    int64_t offset = 0;
    const bool isRead = cursor.number(4, year) && cursor.literal('-') && cursor.number(2, month) &&
                        cursor.literal('-') && cursor.number(2, day) && cursor.literal('T') && cursor.number(2, hour) &&
                        cursor.literal(':') && cursor.number(2, minute) && cursor.literal(':') &&
                        cursor.number(2, second) && readFraction(cursor, micros) && readOffset(cursor, offset);
    const year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day))};
    if (!isRead || !date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    const int64_t days = sys_days(date).time_since_epoch().count();
    const int64_t seconds = days * kSecondsPerDay + hour * 3600 + minute * 60 + second - offset;
    return seconds * kMicrosPerSecond + micros;
}

EventRow readEventRow(std::string_view text, int64_t published) {
    EventRow row;
    row.text = text;
    row.published = published;
    const std::string copy(text);
    JsonDocument event;
    if (!parseValue(event, copy).IsError() && event.IsObject()) {
        row.isEvent = true;
        readMembers(event, row);
    }
    if (row.guid.empty() || row.guid.size() > EventRow::kMaxGuid)
        row.guid = sha256Hex(row.guid.empty() ? copy : row.guid);
    return row;
}

}  // namespace velmora::tool
