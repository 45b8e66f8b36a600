#include "core/utils/strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <thread>

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

}  // namespace
}  // namespace velmora
