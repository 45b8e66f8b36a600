#include "core/utils/strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <regex>
#include <set>
#include <thread>

#include "core/platform/localtime.h"
#include "core/utils/timestamps.h"
#include "tests/support/capturedlog.h"

namespace velmora {
namespace {

TEST(Strings, StoiReadsTheNumberAtTheStart) {
    const struct {
        const char* text;
        int value;
    } rows[] = {
        {"abc", -1},         {"", -1},
        {"  ", -1},          {"-", -1},
        {"+-3", -1},         {"12abc", 12},
        {" \t7", 7},         {"+5", 5},
        {"-8", -8},          {"007", 7},
        {"- 3", -1},         {"0x10", 0},
        {"99999999999", -1}, {"2147483647", 2147483647},
        {"-2147483649", -1},
    };
    for (const auto& row : rows) EXPECT_EQ(stoi(row.text), row.value) << row.text;
}

TEST(Strings, TokenizeSplitsUnlessEscaped) {
    using Tokens = std::vector<std::string>;
    const struct {
        const char* text;
        Tokens tokens;
    } rows[] = {
        {"a,b", {"a", "b"}},  {"a\\,b,c", {"a,b", "c"}}, {"", {""}},     {"a,", {"a", ""}},
        {",,", {"", "", ""}}, {"a\\\\,b", {"a\\", "b"}}, {"\\x", {"x"}}, {"\\", {""}},
    };
    for (const auto& row : rows) EXPECT_EQ(tokenize(row.text, ',', '\\'), row.tokens) << row.text;
    const test::CapturedLog log;
    EXPECT_EQ(tokenize("a\\", ',', '\\'), Tokens{"a"});
    EXPECT_TRUE(log.has(LogLevel::warn, "string.utils", "Invalid terminal escape"));
}

TEST(Strings, CaseIsFoldedForAsciiOnly) {
    EXPECT_TRUE(equalsIgnoringCase("Content-TYPE", "content-type"));
    EXPECT_FALSE(equalsIgnoringCase("content", "content-type"));
    EXPECT_FALSE(equalsIgnoringCase("@", "`"));
    EXPECT_FALSE(equalsIgnoringCase("\xC3\x84", "\xC3\xA4"));
}

TEST(Strings, GuidsAreLowerCaseAndUniqueAcrossThreads) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::vector<std::vector<std::string>> made(4, std::vector<std::string>(1000));
    std::vector<std::thread> threads;
    for (auto& mine : made) threads.emplace_back([&mine] { std::generate(mine.begin(), mine.end(), makeGuid); });
    for (auto& thread : threads) thread.join();
    std::set<std::string> all;
    for (const auto& mine : made) all.insert(mine.begin(), mine.end());
    EXPECT_EQ(all.size(), 4000U);
    for (const std::string& guid : all) EXPECT_TRUE(std::regex_match(guid, form)) << guid;
}

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
