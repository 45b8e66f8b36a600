#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/files.h"
#include "tests/support/system.h"
#include "tests/support/tempfolder.h"
#include "tools/velmora/converter.h"
#include "tools/velmora/mappinglint.h"

namespace velmora::tool {
namespace {

RuleTable tableOf(const std::string& csv) {
    service::ingest::Mapping mapping;
    service::ingest::loadFromText(csv, "text", mapping);
    return RuleTable(std::move(mapping));
}

// Converted events, then notes.
std::string convert(const std::string& csv, const std::string& input, EventFormat format, bool explain = false) {
    std::ostringstream out;
    std::ostringstream notes;
    const ConvertReport report = convertEvents(tableOf(csv), input, format, explain, out, notes);
    return out.str() + notes.str() + std::to_string(report.converted) + "/" + std::to_string(report.unmatched) + "/" +
           std::to_string(report.failed);
}

TEST(Convert, TakesOneEventLinesOrCsv) {
    const std::string csv = "IN_a,OUT_b\n(x.*),<$1>\n";
    EXPECT_EQ(convert(csv, "{\n \"a\": \"x\"\n}\n", EventFormat::json), "{\"b\":\"<x>\"}\n1/0/0");
    EXPECT_EQ(convert(csv, "{\"a\":\"x1\"}\n\n{\"a\":\"y\"}\r\n{\"a\":\n{\"a\":\"x2\"}", EventFormat::json),
              "{\"b\":\"<x1>\"}\n{\"b\":\"<x2>\"}\n"
              "line 3: no rule matched\nline 4: no JSON object, at byte 5 of the line\n2/1/1");
    EXPECT_EQ(convert(csv, "a,c\nx1,1\n\ny,2\n", EventFormat::csv),
              "{\"c\":\"1\",\"b\":\"<x1>\"}\nline 4: no rule matched\n1/1/0");
}

TEST(Convert, ExplainsWhatTheRulesDid) {
    EXPECT_EQ(convert("CONFIG,IN_a,IN_b,OUT_c\n,x,y,z\n\nmissing-key-action=skip,,.*,z\n,x,,z\n"
                      "non-standard-keys=exclude,,,\n",
                      R"({"a":"x"})", EventFormat::json, true),
              "{\"c\":\"z\"}\n"
              "line 1:\n"
              "  rule of line 2: failed on key \"b\", which is missing\n"
              "  rule of line 4: failed on key \"b\", which is missing\n"
              "  rule of line 5: matched\n"
              "  rule of line 6: found nothing to do\n"
              "1/0/0");
    EXPECT_EQ(convert("IN_a,OUT_c\ny,z\n(,z\n", R"({"a":"x"})", EventFormat::json, true).substr(0, 110),
              "line 1:\n  rule of line 2: failed on key \"a\", whose value does not match\n"
              "line 1: failed in the rule of line 3: ");
}

TEST(MappingLint, NamesLineColumnAndReason) {
    const struct {
        const char *what, *csv, *findings;
    } rows[] = {
        {"nothing wrong", "CONFIG,IN_a,OUT_b\nmissing-key-action=skip,(.*),$1\n", ""},
        {"expression", "IN_a,OUT_b\n\n(x,y\n", "3:1 IN_a bad expression"},
        {"command", "CONFIG,IN_a\nsearch-replace-substrings=true,s/x\n", "2:2 IN_a no substitution"},
        {"flag of a command", "CONFIG,IN_a\nsearch-replace-substrings=true,s/x/y/gx\n", "2:2 IN_a unknown flag"},
        {"output of a rewrite", "CONFIG,IN_a,OUT_b\nsearch-replace-substrings=true,s/x/y/,z\n",
         "2:3 OUT_b a rewriting rule"},
        {"unknown option", "CONFIG,IN_a,OUT_b\nmissing-key=skip,x,y\n", "2:1 CONFIG unknown option"},
        {"no option", "CONFIG,IN_a,OUT_b\nskip,x,y\n", "2:1 CONFIG \"skip\" is no option"},
        {"number beyond the groups", "IN_a,OUT_b\n(x),$1$2\n", "2:2 OUT_b $2 is beyond the 1 groups"},
        {"number of no group", "IN_a,OUT_b\n(x),$0$1\n", "2:2 OUT_b no group has this number"},
        {"open brace", "IN_a,OUT_b\nx,$+{a\n", "2:2 OUT_b $+{ without"},
        {"ignored column", "in_a,IN_b,OUT_b\n1,x,y\n", "1:1 in_a neither CONFIG"},
        {"column that no rule writes", "IN_a,OUT_b,OUT_c\nx,y,\n", "1:3 OUT_c no rule writes"},
        {"lost value", "IN_a,IN_b,OUT_c\nx,(.*),y\n", "2:2 IN_b no output names"},
        {"value used by number", "IN_a,IN_b,OUT_c\n(x),(.*),$1$2\n", ""},
        {"value used by the key's name", "IN_a,OUT_c\n.*,$+{a}\n", ""},
        {"missing key accepted", "IN_a,OUT_b\n(x?),1$1\n(x?),2$1\n", ""},
        {"missing key not accepted",
         "CONFIG,IN_a,OUT_b\nmissing-key-action=skip,(x?),$1\nmissing-key-action=skip,(x?),2$1\n",
         "3:0  the rule can never match"},
        {"key written in between", "IN_a,IN_c,OUT_a\nx,,\n,q,x\nx,,y\n", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto findings = lintMapping(row.csv, "text");
        std::string text;
        for (const auto& finding : findings) {
            text += std::to_string(finding.line) + ":" + std::to_string(finding.column) + " " + finding.name + " " +
                    finding.text + "\n";
        }
        EXPECT_EQ(findings.size(), *row.findings ? 1u : 0u) << text;
        EXPECT_EQ(text.substr(0, std::string(row.findings).size()), row.findings);
    }
}

TEST(ConvertCommand, ConvertsFilesAndReportsByExitCode) {
    const test::TempFolder folder;
    const auto write = [&](const char* name, const std::string& text) {
        test::writeFile(folder / name, text);
        return (folder / name).string();
    };
    const auto read = [&](const char* name) { return test::readFile(folder / name); };
    // Starts the tool; its standard output and error go to the file "out". True for that exit code.
    const auto exitsWith = [&](int code, const std::string& arguments) {
        const std::string command = std::string("\"") + VELMORA_TOOL + "\" convert " + arguments + " > \"" +
                                    (folder / "out").string() + "\" 2>&1";
        return test::runInShell(command) == code;
    };
    const std::string good = "--mapping " + write("good.csv", "IN_a,OUT_b\n(x.*),$1\n");
    const std::string bad = write("bad.csv", "IN_a,OUT_b\nx,1\n\nx,1,2\n");
    const std::string wrong = write("wrong.csv", "IN_a,OUT_b\n(x,1\n");
    const std::string events = write("events.csv", "a\nx1\nx2\n");
    const std::string sheet = (folder / "sheet.csv").string();

    EXPECT_TRUE(exitsWith(0, good + " " + events + " --sheet " + sheet)) << read("out");
    EXPECT_NE(read("out").find("{\"b\":\"x1\"}\n{\"b\":\"x2\"}\n"), std::string::npos);
    EXPECT_EQ(read("sheet.csv"), "a,,CONFIG,IN_a,OUT_b,,b,a\nx1,,,(x.*),$1,,x1,\nx2,,,(x.*),$1,,x2,\n");
    EXPECT_TRUE(exitsWith(1, good + " " + write("events.json", R"({"a":"y"})"))) << read("out");
    EXPECT_TRUE(exitsWith(2, "--mapping " + bad + " " + events)) << read("out");
    EXPECT_NE(read("out").find(bad + ":4: CSVParser: corrupted data."), std::string::npos) << read("out");
    EXPECT_TRUE(exitsWith(2, good + " " + (folder / "nowhere.json").string())) << read("out");
    EXPECT_TRUE(exitsWith(0, good + " --check")) << read("out");
    EXPECT_TRUE(exitsWith(1, "--check --mapping " + wrong)) << read("out");
    EXPECT_NE(read("out").find(wrong + ":2:1: IN_a: bad expression"), std::string::npos) << read("out");
}

}  // namespace
}  // namespace velmora::tool
