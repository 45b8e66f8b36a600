#include "core/utils/timestamps.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <regex>

#include "core/platform/localtime.h"

namespace velmora {
namespace {

constexpr int64_t kTicks = 10'000'000;

TEST(Timestamps, FormatsEveryDayOfTheCalendar) {
    const struct {
        const char* what;
        int64_t ticks;
        const char* text;
    } rows[] = {
        {"epoch", 0, "1970-01-01T00:00:00Z"},
        {"fractions are cut off", 1678788930 * kTicks + 9'999'999, "2023-03-14T10:15:30Z"},
        {"leap day", 951782400 * kTicks, "2000-02-29T00:00:00Z"},
        {"end of a year", 1703980799 * kTicks, "2023-12-30T23:59:59Z"},
        {"before the epoch", -1, "1969-12-31T23:59:59Z"},
        {"no year of four digits", INT64_MAX, ""},
        {"before the year 0", INT64_MIN, ""},
    };
    for (const auto& row : rows) EXPECT_EQ(formatTimeUtc(row.ticks), row.text) << row.what;
}

TEST(Timestamps, ShowTheClockInTheThreeForms) {
    const int64_t before = currentTicks();
    const std::string utc = currentTimeUtcMicros();
    const std::string local = currentTimeLocalMillis();
    uint32_t micros = 0;
    const int64_t seconds = currentSeconds(&micros);
    const int64_t after = currentTicks();
    EXPECT_LE(before / kTicks, seconds);
    EXPECT_LE(seconds, after / kTicks);
    EXPECT_LT(micros, 1'000'000U);
    EXPECT_TRUE(std::regex_match(utc, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)"))) << utc;
    EXPECT_TRUE(std::regex_match(local, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4})"))) << local;
    EXPECT_GE(utc.substr(0, 19) + "Z", formatTimeUtc(before));
    EXPECT_LE(utc.substr(0, 19) + "Z", formatTimeUtc(after));
}

TEST(Timestamps, LocalTimeIsAheadOfUtcByTheOffsetShown) {
    const int64_t before = currentSeconds();
    const std::string local = currentTimeLocalMillis();
    std::chrono::seconds offset{};
    ASSERT_TRUE(platform::localOffset(before, offset));
    const int64_t shown = (std::stoi(local.substr(24, 2)) * 60 + std::stoi(local.substr(26, 2))) * 60;
    EXPECT_EQ(local[23] == '-' ? -shown : shown, offset.count());
    EXPECT_GE(local.substr(0, 19) + "Z", formatTimeUtc((before + offset.count()) * kTicks));
    EXPECT_EQ(currentTimeLocalMillis().substr(23), local.substr(23)) << "the kept offset is the asked one";
}

}  // namespace
}  // namespace velmora
