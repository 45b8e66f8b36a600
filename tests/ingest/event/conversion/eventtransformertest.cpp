#include "ingest/event/conversion/eventtransformer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "tests/ingest/event/conversion/naivetransformer.h"
#include "tests/support/capturedlog.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

using test::readFile;
using test::writeFile;

constexpr char kGuid[] = "11111111-2222-3333-4444-555555555555";

class EventTransformerTest : public testing::Test {
protected:
    EventTransformerTest() { Filesystem::setRootPath(Path(folder_.path())); }
    ~EventTransformerTest() override { Filesystem::setRootPath(Path()); }

    boost::filesystem::path file(const std::string& name) const { return folder_ / name; }

    std::unique_ptr<EventTransformer> transformerOf(const std::string& csv) const {
        writeFile(EventTransformer::mappingPath(kGuid).native(), csv);
        return std::make_unique<EventTransformer>(kGuid);
    }

    // The converted event, "unmatched" or "failed".
    static std::string convert(EventTransformer& transformer, std::string json) {
        bool matched = true;
        try {
            transformer.transform(json, matched);
        } catch (const std::exception&) {
            return "failed";
        }
        EXPECT_TRUE(matched || json == "{}");
        return matched ? json : "unmatched";
    }

    struct Conversion {
        const char* what;
        std::string csv;
        std::string event;
        std::string result;
    };

    // Each row is converted by the transformer and by the definition of the transformation. An apostrophe in an event
    // or a result stands for a quotation mark.
    void expectConversions(std::vector<Conversion> rows) const {
        const auto transformer = transformerOf("IN_a\n");
        for (Conversion& row : rows) {
            SCOPED_TRACE(row.what);
            for (std::string* text : {&row.event, &row.result}) std::replace(text->begin(), text->end(), '\'', '"');
            const auto mapping = EventTransformer::parseMapping(row.csv, "text");
            transformer->setMapping(mapping);
            EXPECT_EQ(convert(*transformer, row.event), row.result);
            EXPECT_EQ(test::transformNaively(mapping, row.event), row.result);
        }
    }

private:
    test::TempFolder folder_;
};

std::string rewriting(const std::string& command) {
    return "CONFIG,IN_a\nsearch-replace-substrings=true," + command + "\n";
}

TEST_F(EventTransformerTest, MatchesRules) {
    expectConversions({
        {"no rules", "IN_a,OUT_b\n", "{'a':'1'}", "unmatched"},
        {"not a part of the value", "IN_a,OUT_b\nx,y\n", "{'a':'xx'}", "unmatched"},
        {"all keys have to match", "IN_a,IN_c,OUT_b\nx,x,y\n", "{'a':'x','c':'y'}", "unmatched"},
        {"no output only consumes", "IN_a,OUT_b\nx,\n", "{'a':'x','c':1}", "{'c':1}"},
        {"output is appended beside one of its name", "IN_a,OUT_b\nx,y\n", "{'a':'x','b':'1'}", "{'b':'1','b':'y'}"},
        {"case does not count", "CONFIG,IN_a,OUT_b\ncase-sensitive-values=false,abc,y\n", "{'a':'ABC'}", "{'b':'y'}"},
        {"duplicate members: the first counts and goes", "IN_a,OUT_b\n(.),$1$2$3\n", "{'a':'x','a':'y'}",
         "{'a':'y','b':'xxx'}"},
    });
}

TEST_F(EventTransformerTest, TreatsMissingKeysByOption) {
    expectConversions({
        {"matched as the empty text", "IN_a,OUT_b\n.*,y\n", "{'c':1}", "{'c':1,'b':'y'}"},
        {"its number is not defined", "IN_a,OUT_b,OUT_d\n(.*),<$1>,y\n", "{'c':1}", "{'c':1,'d':'y'}"},
        {"braces are not checked", "IN_a,OUT_b\n(.*),<${1}>\n", "{'c':1}", "{'c':1,'b':'<>'}"},
        {"skip", "CONFIG,IN_a,OUT_b\nmissing-key-action=skip,.*,y\n", "{'c':1}", "unmatched"},
        {"no group by the key's name", "CONFIG,IN_a,OUT_b,OUT_c\nmissing-key-value=x,.*,$+{a},y\n", "{}", "{'c':'y'}"},
    });
}

TEST_F(EventTransformerTest, FillsFormats) {
    expectConversions({
        {"zero is no group", "IN_a,OUT_c,OUT_d\n(.),$0,y\n", "{'a':'x'}", "{'d':'y'}"},
        {"number out of range", "IN_a,OUT_c,OUT_d\n(.),$99999999999999999999,y\n", "{'a':'x'}", "{'d':'y'}"},
        {"key before a group of its name", "IN_a,OUT_c\n(?<b>.),$+{b}\n", "{'a':'x','b':'y'}", "{'b':'y','c':'y'}"},
        {"last group of a name", "IN_a,IN_b,OUT_c\n(?<n>.),(?<n>.),$+{n}\n", "{'a':'x','b':'y'}", "{'c':'y'}"},
        {"whole match is all captures", "IN_a,OUT_c\n(x)y,[$&]\n", "{'a':'xy','b':'z'}", "{'b':'z','c':'[xxyzxyz]'}"},
        {"braces", "IN_a,OUT_c\n(x)(y),${2}1${9}\n", "{'a':'xy'}", "{'c':'y1'}"},
        {"words of Perl", "IN_a,OUT_c\n(x),$MATCH ${MATCH} $LAST_PAREN_MATCH\n", "{'a':'x'}", "{'c':'xxx xxx x'}"},
        {"case of characters", "IN_a,OUT_c\n(.*),\\u$1 \\U$1\\E \\l$1\n", "{'a':'Ab'}", "{'c':'Ab AB ab'}"},
        {"escapes", "IN_a,OUT_c\n(x),\\t\\x41\\$1\\\\\n", "{'a':'x'}", R"({"c":"\tA$1\\"})"},
        {"no conditionals in Perl formats", "IN_a,OUT_c\n(x),(?1yes:no)\n", "{'a':'x'}", "{'c':'(?1yes:no)'}"},
        {"special characters come through", "IN_a,OUT_c,OUT_d\n(.*),$1,\\0$1\n", "{'a':'[a] (b)*+?.,^$|#-{}\\t\\\\d'}",
         "{'c':'[a] (b)*+?.,^$|#-{}\\t\\\\d','d':'\\u0000[a] (b)*+?.,^$|#-{}\\t\\\\d'}"},
    });
}

TEST_F(EventTransformerTest, SurvivesOddNames) {
    expectConversions({
        {"key that ends its own name", "IN_a,OUT_c\nx,$+{k}\n", "{'a':'x','k>v':'v12'}", "unmatched"},
        {"and whose rest matches", "IN_a,OUT_c\nx,$+{k}|\n", "{'a':'x','k>v':'v.*'}", "unmatched"},
        {"rest is an expression", "IN_a,OUT_c\nx,[$+{k}]\n", "{'a':'x','k>.':'v>2'}", "{'k>.':'v>2','c':'[v>2]'}"},
        {"rest is no expression", "IN_a,OUT_c\nx,y\n", "{'a':'x','k>(':'v'}", "failed"},
        {"unless the rule fails before", "IN_a,OUT_c\nx,y\n", "{'a':'y','k>(':'v'}", "unmatched"},
        {"key like an assertion", "IN_a,OUT_c\nx,y\n", "{'a':'x','=k':'v'}", "failed"},
        {"key of brackets", "IN_a,OUT_c\nx,$+{)(][}\n", "{'a':'x',')(][':'v'}", "{')(][':'v','c':'v'}"},
        {"empty key", "IN_a,OUT_c\nx,$2\n", "{'a':'x','':'v'}", "{'':'v','c':'v'}"},
        {"column of the empty key", "IN_,OUT_\n(x),<$1>\n", "{'':'x'}", "{'':'<x>'}"},
        {"assertion taken for a name", "IN_a,OUT_c\n(?<=)(x)(?<n>),y\n", "{'a':'x'}", "failed"},
        {"bad expression", "IN_a,OUT_c\n(x,y\n", "{'a':'x'}", "failed"},
        {"bad expression behind one that fails", "IN_a,IN_b,OUT_c\nx,(x,y\n", "{'a':'y','b':'x'}", "unmatched"},
    });
}

TEST_F(EventTransformerTest, RewritesInPlace) {
    expectConversions({
        {"all matches", rewriting("s/o/0/g"), "{'a':'foo'}", "{'a':'f00'}"},
        {"slash in a part", rewriting(R"(s/\//\\n/g)"), "{'a':'x/y'}", "{'a':'x\\ny'}"},
        {"backslashes are taken away once", rewriting(R"(s/\\d+/#/)"), "{'a':'d12'}", "{'a':'d#'}"},
        {"what stands before the first slash", rewriting("any/o/0/"), "{'a':'foo'}", "{'a':'f0o'}"},
        {"missing key", rewriting("s/o/0/"), "{'b':1}", "{'b':1}"},
        {"too many parts", rewriting("s/o/0/g/"), "{'a':'foo'}", "{'a':'foo'}"},
        {"bad expression", rewriting("s/(/0/"), "{'a':'o'}", "failed"},
        {"only for the value true", "CONFIG,IN_a\nsearch-replace-substrings=yes,s/o/0/\n", "{'a':'o'}", "unmatched"},
    });
}

TEST_F(EventTransformerTest, FiltersKeys) {
    expectConversions({
        {"exclude", "CONFIG,IN_a,OUT_b\nnon-standard-keys=exclude,,\n",
         "{'a':1,'b':2,'event.x':3,'eventx':4,'user.':5,'entity.x':6,'c':7}",
         "{'b':2,'event.x':3,'user.':5,'entity.x':6}"},
        {"include", "CONFIG,OUT_b\nnon-standard-keys=include,ignored\n", "{'a':1,'exp.x':2}",
         "{'a':1,'exp.x':2,'b':{'a':1}}"},
        {"include into an object", "CONFIG,OUT_b\nnon-standard-keys=include,x\n",
         "{'a':{'c':1},'b':{'a':{'d':2},'e':3}}", "{'a':{'c':1},'b':{'a':{'d':2,'c':1},'e':3}}"},
        {"include over another value", "CONFIG,OUT_b\nnon-standard-keys=include,x\n", "{'b':'text','a':1}",
         "{'b':{'a':1},'a':1}"},
        {"another value", "CONFIG,OUT_b\nnon-standard-keys=drop,x\n", "{'a':1}", "unmatched"},
        {"other options are not read", "CONFIG,IN_a\nnon-standard-keys=exclude;search-replace-substrings=true,s/1/2/\n",
         "{'a':'1'}", "{}"},
    });
}

TEST_F(EventTransformerTest, AppliesRulesInOrderToWhatIsLeft) {
    expectConversions({
        {"on the result of the first", "IN_a,IN_b,OUT_b,OUT_c\nx,,y,\n,y,,z\n", "{'a':'x'}", "{'c':'z'}"},
        {"what the first took is missing", "IN_a,OUT_b,OUT_c\nx,y,\nx,,z\n", "{'a':'x'}", "{'b':'y'}"},
        {"the table of the documentation",
         "CONFIG,IN_component,IN_action,OUT_event.workflow,OUT_event.type\n"
         "search-replace-substrings=true,s/^legacy-//i,,,\n"
         "missing-key-action=skip,\"(panel|dialog)-(.+)\",(open|close),$2,$1-$3\n"
         "case-sensitive-values=false,startup,,startup,\"session, $+{version}\"\n"
         "non-standard-keys=exclude,,,,\n",
         "{'component':'legacy-panel-export','action':'open','version':'12.4'}",
         "{'event.workflow':'export','event.type':'panel-open'}"},
        {"rewrite, map, filter",
         "CONFIG,IN_a,OUT_event.type\n"
         "search-replace-substrings=true,s/legacy-//,\n"
         ",(.*),type-$1\n"
         "non-standard-keys=exclude,,\n",
         "{'a':'legacy-open','rest':1}", "{'event.type':'type-open'}"},
    });
}

TEST_F(EventTransformerTest, RefusesWhatIsNoObject) {
    const auto transformer = transformerOf("IN_a,OUT_b\n,y\n");
    for (const char* text : {"", "[]", "12", "{", R"({"a":1} x)"}) {
        SCOPED_TRACE(text);
        std::string json = text;
        bool matched = true;
        EXPECT_EQ(exceptionToVelmoraError([&] { transformer->transform(json, matched); }), 2);
        EXPECT_EQ(json, "{}");
        EXPECT_FALSE(matched);
    }
}

TEST_F(EventTransformerTest, EndsExpressionsThatExplode) {
    const auto transformer = transformerOf("IN_a,OUT_b\n(a+)+(a+)+(a+)+b,y\n");
    const std::string event = R"({"a":")" + std::string(60, 'a') + R"("})";
    const auto start = std::chrono::steady_clock::now();
    bool matched = false;
    std::string json = event;
    EXPECT_EQ(exceptionToVelmoraError([&] { transformer->transform(json, matched); }), 1);
    EXPECT_EQ(json, event) << "a failure keeps the host's event";
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST_F(EventTransformerTest, BoundsTablesThatMultiply) {
    std::string rewrites = "CONFIG,IN_a\n";
    std::string filters = "CONFIG,OUT_x,OUT_y\n";
    std::string formats = "IN_a,OUT_a\n";
    for (int i = 0; i < 200; ++i) {
        rewrites += "search-replace-substrings=true,s/^./$'$'$'/\n";
        filters += "non-standard-keys=include,x,x\n";
        formats += "(.*),$1$1$&\n";
    }
    const std::string event = R"({"a":")" + std::string(1000, 'a') + R"("})";
    EXPECT_EQ(convert(*transformerOf(rewrites), event), "failed");
    EXPECT_EQ(convert(*transformerOf(formats), event), "failed");
    EXPECT_NE(convert(*transformerOf(filters), event), "unmatched") << "output keys are standard and not repeated";
}

TEST_F(EventTransformerTest, ServesLargeTables) {
    std::string csv = "IN_a,IN_b,OUT_c\n";
    for (int i = 0; i < 10000; ++i) csv += "(no|maybe)" + std::to_string(i) + ",.*,$1\n";
    const auto transformer = transformerOf(csv);
    EXPECT_EQ(convert(*transformer, R"({"a":"maybe9999","b":"x"})"), R"({"c":"maybe"})");
    EXPECT_EQ(convert(*transformer, R"({"a":"maybe10000","b":"x"})"), "unmatched");
}

TEST_F(EventTransformerTest, ConvertsWhileTheMappingChanges) {
    const auto transformer = transformerOf("IN_a,OUT_b\n(x),$1$+{a}0\n");
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                const std::string result = convert(*transformer, R"({"a":"x"})");
                EXPECT_TRUE(result == R"({"b":"xx0"})" || result == R"({"b":"xx1"})") << result;
            }
        });
    }
    for (int i = 0; i < 20; ++i) {
        transformer->setMapping(EventTransformer::parseMapping("IN_a,OUT_b\n(x),$1$+{a}1\n", "text"));
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(convert(*transformer, R"({"a":"x"})"), R"({"b":"xx1"})");
}

TEST_F(EventTransformerTest, WritesASheetOfABatch) {
    const auto transformer = transformerOf(
        "CONFIG,IN_a,OUT_b,OUT_c\n"
        "missing-key-value=q;case-sensitive-values=false,(X),\"$1,\"\"1\"\"\",\n"
        ",,,2\n"
        "missing-key-action=skip,z,,3\n");
    writeFile(file("in.csv"), "a,d\nx,1\n");
    transformer->transformBatch(file("in.csv"), file("out.csv"));
    EXPECT_EQ(readFile(file("out.csv")),
              "a,d,,CONFIG,IN_a,OUT_b,OUT_c,,b,c,a,d\n"
              "x,1,,case-sensitive-values=false;missing-key-value=q,(X),\"$1,\"\"1\"\"\",,,\"x,\"\"1\"\"\",,,1\n"
              "x,1,,,,,2,,\"x,\"\"1\"\"\",2,,1\n");
    transformer->setMapping(EventTransformer::parseMapping("IN_a,OUT_b\ny,1\n", "text"));
    transformer->transformBatch(file("in.csv"), file("out.csv"));
    EXPECT_EQ(readFile(file("out.csv")), "a,d,,CONFIG,IN_a,OUT_b,,b,a,d\nx,1,,,,,,,,\n");
}

TEST_F(EventTransformerTest, ReportsTheFilesOfABatch) {
    const auto transformer = transformerOf("IN_a,OUT_b\nx,1\n");
    const test::CapturedLog log;
    const auto codeOf = [&](const Path& in, const Path& out) {
        return exceptionToVelmoraError([&] { transformer->transformBatch(in, out); });
    };
    const auto in = file("in.csv");
    const auto nowhere = file("nowhere") / "x.csv";
    EXPECT_EQ(codeOf(nowhere, file("out.csv")), 4);
    EXPECT_TRUE(log.has(LogLevel::error, "event.transformer", "file not found; inCsvPath: " + nowhere.string()));
    writeFile(in, "a\nx\n");
    EXPECT_EQ(codeOf(in, nowhere), 4);
    EXPECT_TRUE(log.has(LogLevel::error, "event.transformer", "file not opened; outCsvPath: " + nowhere.string()));
    writeFile(in, "a\nx,y\n");
    EXPECT_EQ(codeOf(in, file("out.csv")), 12);
    EXPECT_FALSE(exists(file("out.csv")));
}

}  // namespace
}  // namespace velmora
