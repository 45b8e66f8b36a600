#include "service/ingest/mapping.h"

#include <gtest/gtest.h>

#include "service/ingest/csvparser.h"

namespace velmora::service::ingest {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Options = std::map<std::string, std::string>;

Mapping mappingOf(const std::string& csv) {
    Mapping mapping;
    loadFromText(csv, "text", mapping);
    return mapping;
}

TEST(Mapping, SortsColumnsAndLeavesEmptyCellsOut) {
    const Mapping mapping = mappingOf(
        "IN_a.b,note,OUT_x_y,CONFIG,in_c,IN_d,OUTx,OUT_z\n"
        "1,seen,$1,k=v,2,,3,\n"
        "\n"
        ",,,,,\"\",,z\n");
    EXPECT_EQ(mapping.inKeys, (std::vector<std::string>{"a.b", "d"}));
    EXPECT_EQ(mapping.outKeys, (std::vector<std::string>{"x_y", "z"}));
    ASSERT_EQ(mapping.rules.size(), 2u);
    EXPECT_EQ(mapping.rules[0].in, (Pairs{{"a.b", "1"}}));
    EXPECT_EQ(mapping.rules[0].out, (Pairs{{"x_y", "$1"}}));
    EXPECT_EQ(mapping.rules[0].options, (Options{{"k", "v"}}));
    EXPECT_EQ(mapping.rules[0].inCount, 1u);
    EXPECT_EQ(mapping.rules[1].in, Pairs());
    EXPECT_EQ(mapping.rules[1].out, (Pairs{{"z", "z"}}));
    EXPECT_EQ(mapping.rules[1].line, 4u);
    EXPECT_TRUE(mappingOf("CONFIG,IN_a\n").rules.empty());
}

TEST(Mapping, ReadsOptions) {
    const struct {
        const char* what;
        const char* cell;
        Options options;
    } rows[] = {
        {"pairs", "a=1;b=2", {{"a", "1"}, {"b", "2"}}},
        {"first equals sign splits", "a=b=c", {{"a", "b=c"}}},
        {"escaped semicolon", R"(a=1\;2;b=3)", {{"a", "1;2"}, {"b", "3"}}},
        {"escaped backslash", R"(a=1\\;b=3)", {{"a", "1\\"}, {"b", "3"}}},
        {"later one wins", "a=1;a=2", {{"a", "2"}}},
        {"pieces without key or sign", "a;=1;;b=2", {{"b", "2"}}},
        {"empty value", "a=", {{"a", ""}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(mappingOf(std::string("CONFIG,IN_a\n") + row.cell + ",x\n").rules.at(0).options, row.options);
    }
}

TEST(Mapping, IsEmptyAfterAFailure) {
    Mapping mapping = mappingOf("IN_a,OUT_b\n1,2\n");
    EXPECT_THROW(loadFromText("IN_a,OUT_b\n1,2\n1,2,3\n", "text", mapping), csv::Error);
    EXPECT_TRUE(mapping.rules.empty());
    EXPECT_TRUE(mapping.inKeys.empty());
}

}  // namespace
}  // namespace velmora::service::ingest
