#include "service/ingest/ingestrequest.h"

#include <gtest/gtest.h>

#include <random>

#include "service/ingest/csvparser.h"
#include "service/ingest/mapping.h"
#include "tests/support/fakehost.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora::service::ingest {
namespace {

TEST(BatchBody, JoinsEventsAsTheyAre) {
    EXPECT_EQ(makeBatchBody({}), "{\"events\":[\n]}");
    EXPECT_EQ(makeBatchBody({"{\"a\":1}"}), "{\"events\":[\n{\"a\":1}\n]}");
    EXPECT_EQ(makeBatchBody({"a", "", "a"}), "{\"events\":[\na,\n,\na\n]}");
}

// Random bytes outgrow the first chunk of output, equal ones leave most of it.
TEST(CompressGzip, GivesBackEveryByte) {
    std::mt19937 random(17);
    for (const size_t size : {0u, 1u, 2048u, 300000u, 5000000u}) {
        std::string noise(size, '\0');
        for (char& c : noise) c = static_cast<char>(random());
        for (const std::string& text : {noise, std::string(size, 'x')}) {
            const std::string data = compressGzip(text.data(), text.size(), -1);
            EXPECT_EQ(data.substr(0, 2), "\x1F\x8B");
            EXPECT_TRUE(test::gunzip(data) == text) << size;
        }
    }
}

TEST(CompressGzip, RefusesWhatItCannotDo) {
    EXPECT_THROW((void)compressGzip(nullptr, 2000000001, -1), std::runtime_error);
    EXPECT_THROW((void)compressGzip("a", 1, 99), std::runtime_error);
}

TEST(IngestRequest, GoesToTheHostOfItsEnvironment) {
    const http::Request stage = makeIngestRequest(Environment::stage, "key", "body", true);
    EXPECT_EQ(stage.headers.at("content-type"), "application/json");
    EXPECT_EQ(stage.url.find("https://"), 0u);
    const http::Request prod = makeIngestRequest(Environment::prod, "key", "body", false);
    EXPECT_NE(prod.url, stage.url);
    EXPECT_FALSE(prod.headers.contains("Content-Encoding"));
}

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
        const char *what, *cell;
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

using csv::Error;
using csv::Parser;

using Cells = std::vector<std::string>;

// The cells of the only row under a header of as many columns, or the message of the failure.
Cells cellsOf(const std::string& row, size_t columns) {
    std::string header = "c";
    for (size_t i = 1; i < columns; ++i) header += ",c";
    try {
        const Parser parser = Parser::fromText(header + "\n" + row + "\n", "text", ',');
        Cells cells;
        for (size_t i = 0; i < parser.rows().at(0).size(); ++i) cells.push_back(parser.rows()[0][i].second);
        return cells;
    } catch (const Error& error) {
        return {error.what()};
    }
}

TEST(CsvParser, ReadsCells) {
    const struct {
        const char *what, *row;
        size_t columns;
        Cells cells;
    } rows[] = {
        {"empty at the end", "a,", 2, {"a", ""}},
        {"white space around", " a\t, b c ", 2, {"a", "b c"}},
        {"white space alone is a cell", "  ", 1, {""}},
        {"separator in quotes", R"("a,b",c)", 2, {"a,b", "c"}},
        {"quotes after white space", R"( "a,b" ,c)", 2, {"a,b", "c"}},
        {"white space in quotes stays", R"(" a ")", 1, {" a "}},
        {"doubled quote", R"("a ""b"" c")", 1, {R"(a "b" c)"}},
        {"quoted quote", R"("""")", 1, {R"(")"}},
        {"quotes inside an unquoted cell stay", R"(a""b)", 1, {R"(a""b)"}},
        {"one quote", R"(")", 1, {R"(")"}},
        {"too short to be checked", R"("a)", 1, {R"("a)"}},
        {"not closed", R"("ab)", 1, {R"(CSVParser: invalid quotation: "ab)"}},
        {"text behind the quotes", R"("a"b)", 1, {R"(CSVParser: invalid quotation: "a"b)"}},
        {"open quotes swallow the rest", R"("ab,c)", 2, {R"(CSVParser: invalid quotation: "ab,c)"}},
        {"a cell too many", "a,b,c", 2, {"CSVParser: corrupted data."}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(cellsOf(row.row, row.columns), row.cells);
    }
}

TEST(CsvParser, SplitsLinesAndCountsThem) {
    const Parser parser = Parser::fromText("\xEF\xBB\xBF\r\n a,\"b,c\"\r\n\r\n1,2\n\n3,4", "text", ',');
    EXPECT_EQ(parser.header(), (Cells{" a", "\"b,c\""})) << "as read";
    EXPECT_EQ(parser.headerLine(), 2u);
    ASSERT_EQ(parser.rows().size(), 2u);
    EXPECT_EQ(parser.rows()[0].line(), 4u);
    EXPECT_EQ(parser.rows()[1].line(), 6u);
    EXPECT_EQ(parser.rows()[1][1], (std::pair<std::string, std::string>("\"b,c\"", "4")));
    EXPECT_THROW((void)parser.rows()[1][2], Error);
    EXPECT_EQ(Parser::fromText("a,b\r\n", "text", ',').header(), (Cells{"a", "b"}));
    EXPECT_EQ(Parser::fromText("a,b\r", "text", ',').header(), (Cells{"a", "b\r"})) << "ends no line by itself";
}

TEST(CsvParser, TellsWhichFaultAndWhere) {
    const test::TempFolder folder;
    const Path empty((folder / "empty.csv"));
    test::writeFile(empty.native(), "\r\n\n");
    const auto faultOf = [](auto&& parse) -> std::string {
        try {
            parse();
            return "none";
        } catch (const Error& error) {
            return std::to_string(error.number()) + "@" + std::to_string(error.line()) + " " + error.what();
        }
    };
    const Path missing((folder / "missing.csv"));
    EXPECT_EQ(faultOf([&] { Parser(missing, ','); }), "1@0 CSVParser: failed to open " + missing.string());
    EXPECT_EQ(faultOf([&] { Parser(Path(folder.path()), ','); }), "1@0 CSVParser: failed to open " + folder.string());
    EXPECT_EQ(faultOf([&] { Parser(empty, ','); }), "2@0 CSVParser: no data in " + empty.string());
    EXPECT_EQ(faultOf([] { (void)Parser::fromText("a\n1\n\n1,2\n", "t", ','); }), "3@4 CSVParser: corrupted data.");
    EXPECT_EQ(faultOf([] { (void)Parser::fromText("a\n1\n", "t", ',').rows()[0][1]; }),
              "4@2 CSVParser: can't return this value (doesn't exist)");
}

}  // namespace
}  // namespace velmora::service::ingest
