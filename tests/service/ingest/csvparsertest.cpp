#include "service/ingest/csvparser.h"

#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora::csv {
namespace {

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
        const char* what;
        const char* row;
        size_t columns;
        Cells cells;
    } rows[] = {
        {"plain", "a,b", 2, {"a", "b"}},
        {"empty at the end", "a,", 2, {"a", ""}},
        {"white space around", " a\t, b c ", 2, {"a", "b c"}},
        {"white space alone is a cell", "  ", 1, {""}},
        {"separator in quotes", R"("a,b",c)", 2, {"a,b", "c"}},
        {"quotes after white space", R"( "a,b" ,c)", 2, {"a,b", "c"}},
        {"white space in quotes stays", R"(" a ")", 1, {" a "}},
        {"doubled quote", R"("a ""b"" c")", 1, {R"(a "b" c)"}},
        {"quoted text in quotes", R"("""a""")", 1, {R"("a")"}},
        {"empty quoted", R"("",a)", 2, {"", "a"}},
        {"quoted quote", R"("""")", 1, {R"(")"}},
        {"quotes inside an unquoted cell stay", R"(a""b)", 1, {R"(a""b)"}},
        {"one quote", R"(")", 1, {R"(")"}},
        {"too short to be checked", R"("a)", 1, {R"("a)"}},
        {"not closed", R"("ab)", 1, {R"(CSVParser: invalid quotation: "ab)"}},
        {"text behind the quotes", R"("a"b)", 1, {R"(CSVParser: invalid quotation: "a"b)"}},
        {"open quotes swallow the rest", R"("ab,c)", 2, {R"(CSVParser: invalid quotation: "ab,c)"}},
        {"a cell too many", "a,b,c", 2, {"CSVParser: corrupted data."}},
        {"a cell too few", "a", 2, {"CSVParser: corrupted data."}},
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
}  // namespace velmora::csv
