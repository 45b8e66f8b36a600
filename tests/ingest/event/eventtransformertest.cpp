#include "ingest/event/eventtransformer.h"

#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "core/types/exceptions.h"
#include "tests/ingest/event/naivetransformer.h"
#include "tests/support/capturedlog.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

constexpr char kGuid[] = "11111111-2222-3333-4444-555555555555";

void writeFile(const Path& path, const std::string& text) {
    boost::filesystem::create_directories(path.native().parent_path());
    std::ofstream(path.string(), std::ios::binary) << text;
}

std::string readFile(const Path& path) {
    std::ifstream stream(path.string(), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

class EventTransformerTest : public testing::Test {
protected:
    EventTransformerTest() { Filesystem::setRootPath(Path(folder_.path())); }
    ~EventTransformerTest() override { Filesystem::setRootPath(Path()); }

    Path file(const std::string& name) const { return Path(folder_ / name); }

    std::unique_ptr<EventTransformer> transformerOf(const std::string& csv) const {
        writeFile(EventTransformer::mappingPath(kGuid), csv);
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

private:
    test::TempFolder folder_;
};

struct Conversion {
    const char* what;
    const char* csv;
    const char* event;
    const char* result;
};

// Each row is converted by the transformer and by the definition of the transformation.
void expectConversions(EventTransformer& transformer, const std::vector<Conversion>& rows,
                       std::string (*convert)(EventTransformer&, std::string)) {
    for (const Conversion& row : rows) {
        SCOPED_TRACE(row.what);
        const auto mapping = EventTransformer::parseMapping(row.csv, "text");
        transformer.setMapping(mapping);
        EXPECT_EQ(convert(transformer, row.event), row.result);
        EXPECT_EQ(test::transformNaively(mapping, row.event), row.result);
    }
}

TEST_F(EventTransformerTest, MatchesRules) {
    expectConversions(*transformerOf("IN_a\n"),
                      {
                          {"no rules", "IN_a,OUT_b\n", R"({"a":"1"})", "unmatched"},
                          {"whole value", "IN_a,OUT_b\nx,y\n", R"({"a":"x"})", R"({"b":"y"})"},
                          {"not a part of the value", "IN_a,OUT_b\nx,y\n", R"({"a":"xx"})", "unmatched"},
                          {"all keys have to match", "IN_a,IN_c,OUT_b\nx,x,y\n", R"({"a":"x","c":"y"})", "unmatched"},
                          {"no input matches everything", "IN_a,OUT_b\n,y\n", R"({"a":"x"})", R"({"a":"x","b":"y"})"},
                          {"empty event", "IN_a,OUT_b\n,y\n", "{}", R"({"b":"y"})"},
                          {"no output only consumes", "IN_a,OUT_b\nx,\n", R"({"a":"x","c":1})", R"({"c":1})"},
                          {"input key written again", "IN_a,OUT_a\n(.*),<$1>\n", R"({"a":"x"})", R"({"a":"<x>"})"},
                          {"order of the rest stays", "IN_b,OUT_z\nx,y\n", R"({"a":1,"b":"x","c":2,"d":3})",
                           R"({"a":1,"c":2,"d":3,"z":"y"})"},
                          {"output is appended beside one of its name", "IN_a,OUT_b\nx,y\n", R"({"a":"x","b":"1"})",
                           R"({"b":"1","b":"y"})"},
                          {"case counts", "IN_a,OUT_b\nabc,y\n", R"({"a":"ABC"})", "unmatched"},
                          {"case does not count", "CONFIG,IN_a,OUT_b\ncase-sensitive-values=false,abc,y\n",
                           R"({"a":"ABC"})", R"({"b":"y"})"},
                          {"other value of the option", "CONFIG,IN_a,OUT_b\ncase-sensitive-values=no,abc,y\n",
                           R"({"a":"ABC"})", "unmatched"},
                          {"number as text", "IN_a,OUT_b\n-?\\d+,$+{a}\n", R"({"a":-12})", R"({"b":"-12"})"},
                          {"values of other kinds", "IN_a,IN_b,OUT_c\n\\{.*\\},true,$+{a}$+{b}$+{n}$+{l}\n",
                           R"({"a":{"x":[1]},"b":true,"n":null,"l":[1,"q"]})",
                           R"({"n":null,"l":[1,"q"],"c":"{\"x\":[1]}truenull[1,\"q\"]"})"},
                          {"line feeds are characters", "IN_a,OUT_b\nx.*,y\n", R"({"a":"x\ny"})", R"({"b":"y"})"},
                          {"duplicate members: the first counts and goes", "IN_a,OUT_b\n(.),$1$2$3\n",
                           R"({"a":"x","a":"y"})", R"({"a":"y","b":"xxx"})"},
                          {"two columns of one key", "IN_a,IN_a,OUT_b\nx.,.(.),$1\n", R"({"a":"xy"})", R"({"b":"y"})"},
                          {"bytes beyond ASCII", "IN_a,OUT_b\n(.*)ö,$1\n", R"({"a":"äö"})", R"({"b":"ä"})"},
                      },
                      convert);
}

TEST_F(EventTransformerTest, TreatsMissingKeysByOption) {
    expectConversions(
        *transformerOf("IN_a\n"),
        {
            {"matched as the empty text", "IN_a,OUT_b\n.*,y\n", R"({"c":1})", R"({"c":1,"b":"y"})"},
            {"which the expression may refuse", "IN_a,OUT_b\n.+,y\n", R"({"c":1})", "unmatched"},
            {"its number is not defined", "IN_a,OUT_b,OUT_d\n(.*),<$1>,y\n", R"({"c":1})", R"({"c":1,"d":"y"})"},
            {"its name is not defined", "IN_a,OUT_b,OUT_d\n(?<n>.*),<$+{n}>,y\n", R"({"c":1})", R"({"c":1,"d":"y"})"},
            {"braces are not checked", "IN_a,OUT_b\n(.*),<${1}>\n", R"({"c":1})", R"({"c":1,"b":"<>"})"},
            {"skip", "CONFIG,IN_a,OUT_b\nmissing-key-action=skip,.*,y\n", R"({"c":1})", "unmatched"},
            {"skip leaves present keys alone", "CONFIG,IN_a,OUT_b\nmissing-key-action=skip,.*,y\n", R"({"a":""})",
             R"({"b":"y"})"},
            {"other action", "CONFIG,IN_a,OUT_b\nmissing-key-action=fail,.*,y\n", R"({"c":1})", R"({"c":1,"b":"y"})"},
            {"value instead", "CONFIG,IN_a,OUT_b\nmissing-key-value=x,(.*),<$1>\n", R"({"c":1})",
             R"({"c":1,"b":"<x>"})"},
            {"value before skip", "CONFIG,IN_a,OUT_b\nmissing-key-value=x;missing-key-action=skip,(.*),<$1>\n", "{}",
             R"({"b":"<x>"})"},
            {"value that does not match", "CONFIG,IN_a,OUT_b\nmissing-key-value=x,y,z\n", "{}", "unmatched"},
            {"empty value is a value", "CONFIG,IN_a,OUT_b\nmissing-key-value=,(.*),<$1>\n", "{}", R"({"b":"<>"})"},
            {"no group by the key's name", "CONFIG,IN_a,OUT_b,OUT_c\nmissing-key-value=x,.*,$+{a},y\n", "{}",
             R"({"c":"y"})"},
        },
        convert);
}

TEST_F(EventTransformerTest, FillsFormats) {
    expectConversions(
        *transformerOf("IN_a\n"),
        {
            {"numbers count over all keys", "IN_a,IN_b,OUT_c\n(.)(.),(.),$3-$2-$1\n", R"({"a":"xy","b":"z"})",
             R"({"c":"z-y-x"})"},
            {"and on over the event's keys", "IN_a,OUT_c\n(.)(.),$4-$3\n", R"({"a":"xy","b":"z"})",
             R"({"b":"z","c":"z-xy"})"},
            {"number without a group", "IN_a,OUT_c,OUT_d\n(.),$3,y\n", R"({"a":"x"})", R"({"d":"y"})"},
            {"zero is no group", "IN_a,OUT_c,OUT_d\n(.),$0,y\n", R"({"a":"x"})", R"({"d":"y"})"},
            {"number out of range", "IN_a,OUT_c,OUT_d\n(.),$99999999999999999999,y\n", R"({"a":"x"})", R"({"d":"y"})"},
            {"leading zero", "IN_a,OUT_c\n(.),$01\n", R"({"a":"x"})", R"({"c":"x"})"},
            {"group that took no part", "IN_a,OUT_c\n(x)|(y),[$1$2]\n", R"({"a":"y"})", R"({"c":"[y]"})"},
            {"names", "IN_a,OUT_c\n(?<first>.)(?<rest>.*),$+{rest}$+{first}\n", R"({"a":"xyz"})", R"({"c":"yzx"})"},
            {"unknown name", "IN_a,OUT_c,OUT_d\n(.),$+{nobody},y\n", R"({"a":"x"})", R"({"d":"y"})"},
            {"keys by name", "IN_a,OUT_c\nx,$+{event.workflow}/$+{a}\n", R"({"a":"x","event.workflow":"w"})",
             R"({"event.workflow":"w","c":"w/x"})"},
            {"key before a group of its name", "IN_a,OUT_c\n(?<b>.),$+{b}\n", R"({"a":"x","b":"y"})",
             R"({"b":"y","c":"y"})"},
            {"last group of a name", "IN_a,IN_b,OUT_c\n(?<n>.),(?<n>.),$+{n}\n", R"({"a":"x","b":"y"})",
             R"({"c":"y"})"},
            {"doubled dollar", "IN_a,OUT_c\nx,$$1 $$+{q}\n", R"({"a":"x"})", R"({"c":"$1 $+{q}"})"},
            {"tripled dollar", "IN_a,OUT_c\n(x),$$$1\n", R"({"a":"x"})", R"({"c":"$x"})"},
            {"lone dollar", "IN_a,OUT_c\nx,a$ b$\n", R"({"a":"x"})", R"({"c":"a$ b$"})"},
            {"whole match is all captures", "IN_a,OUT_c\n(x)y,[$&]\n", R"({"a":"xy","b":"z"})",
             R"({"b":"z","c":"[xxyzxyz]"})"},
            {"before and behind the match", "IN_a,OUT_c\n(x),[$`$']\n", R"({"a":"x"})", R"({"c":"[]"})"},
            {"last group", "IN_a,OUT_c\n(x),$+\n", R"({"a":"x","b":"z"})", R"({"b":"z","c":"z"})"},
            {"braces", "IN_a,OUT_c\n(x)(y),${2}1${9}\n", R"({"a":"xy"})", R"({"c":"y1"})"},
            {"words of Perl", "IN_a,OUT_c\n(x),$MATCH ${MATCH} $LAST_PAREN_MATCH\n", R"({"a":"x"})",
             R"({"c":"xxx xxx x"})"},
            {"case of characters", "IN_a,OUT_c\n(.*),\\u$1 \\U$1\\E \\l$1\n", R"({"a":"Ab"})", R"({"c":"Ab AB ab"})"},
            {"escapes", "IN_a,OUT_c\n(x),\\t\\x41\\$1\\\\\n", R"({"a":"x"})", R"({"c":"\tA$1\\"})"},
            {"no conditionals in Perl formats", "IN_a,OUT_c\n(x),(?1yes:no)\n", R"({"a":"x"})",
             R"-({"c":"(?1yes:no)"})-"},
            {"special characters come through", "IN_a,OUT_c,OUT_d\n(.*),$1,\\0$1\n",
             R"({"a":"[a] (b)*+?.,^$|#-{}\t\\d"})",
             R"({"c":"[a] (b)*+?.,^$|#-{}\t\\d","d":"\u0000[a] (b)*+?.,^$|#-{}\t\\d"})"},
            {"comma in a quoted format", "IN_a,OUT_c\n(x),\"$1,$1\"\n", R"({"a":"x"})", R"({"c":"x,x"})"},
        },
        convert);
}

TEST_F(EventTransformerTest, SurvivesOddNames) {
    expectConversions(
        *transformerOf("IN_a\n"),
        {
            {"key that ends its own name", "IN_a,OUT_c\nx,$+{k}\n", R"({"a":"x","k>v":"v12"})", "unmatched"},
            {"and whose rest matches", "IN_a,OUT_c\nx,$+{k}|\n", R"({"a":"x","k>v":"v.*"})", "unmatched"},
            {"rest is an expression", "IN_a,OUT_c\nx,[$+{k}]\n", R"({"a":"x","k>.":"v>2"})",
             R"({"k>.":"v>2","c":"[v>2]"})"},
            {"rest is no expression", "IN_a,OUT_c\nx,y\n", R"({"a":"x","k>(":"v"})", "failed"},
            {"unless the rule fails before", "IN_a,OUT_c\nx,y\n", R"({"a":"y","k>(":"v"})", "unmatched"},
            {"key like an assertion", "IN_a,OUT_c\nx,y\n", R"({"a":"x","=k":"v"})", "failed"},
            {"key of brackets", "IN_a,OUT_c\nx,$+{)(][}\n", R"({"a":"x",")(][":"v"})", R"({")(][":"v","c":"v"})"},
            {"empty key", "IN_a,OUT_c\nx,$2\n", R"({"a":"x","":"v"})", R"({"":"v","c":"v"})"},
            {"column of the empty key", "IN_,OUT_\n(x),<$1>\n", R"({"":"x"})", R"({"":"<x>"})"},
            {"assertion taken for a name", "IN_a,OUT_c\n(?<=)(x)(?<n>),y\n", R"({"a":"x"})", "failed"},
            {"bad expression", "IN_a,OUT_c\n(x,y\n", R"({"a":"x"})", "failed"},
            {"bad expression of a missing key", "CONFIG,IN_a,OUT_c\nmissing-key-action=skip,(x,y\n", "{}", "unmatched"},
            {"bad expression behind one that fails", "IN_a,IN_b,OUT_c\nx,(x,y\n", R"({"a":"y","b":"x"})", "unmatched"},
        },
        convert);
}

TEST_F(EventTransformerTest, RewritesInPlace) {
    expectConversions(
        *transformerOf("IN_a\n"),
        {
            {"first match", "CONFIG,IN_a\nsearch-replace-substrings=true,s/o/0/\n", R"({"a":"foo","b":1})",
             R"({"b":1,"a":"f0o"})"},
            {"without the last slash", "CONFIG,IN_a\nsearch-replace-substrings=true,s/o/0\n", R"({"a":"foo"})",
             R"({"a":"f0o"})"},
            {"all matches", "CONFIG,IN_a\nsearch-replace-substrings=true,s/o/0/g\n", R"({"a":"foo"})",
             R"({"a":"f00"})"},
            {"any case", "CONFIG,IN_a\nsearch-replace-substrings=true,s/O/0/gi\n", R"({"a":"foo"})", R"({"a":"f00"})"},
            {"groups", "CONFIG,IN_a\nsearch-replace-substrings=true,s/(.)(.)/$2$1/\n", R"({"a":"xyz"})",
             R"({"a":"yxz"})"},
            {"slash in a part", R"(CONFIG,IN_a
search-replace-substrings=true,s/\//\\n/g
)",
             R"({"a":"x/y"})", R"({"a":"x\ny"})"},
            {"backslashes are taken away once", R"(CONFIG,IN_a
search-replace-substrings=true,s/\\d+/#/
)",
             R"({"a":"d12"})", R"({"a":"d#"})"},
            {"what stands before the first slash", "CONFIG,IN_a\nsearch-replace-substrings=true,any/o/0/\n",
             R"({"a":"foo"})", R"({"a":"f0o"})"},
            {"numbers become texts", "CONFIG,IN_a\nsearch-replace-substrings=true,s/1/2/\n", R"({"a":11})",
             R"({"a":"21"})"},
            {"missing key", "CONFIG,IN_a\nsearch-replace-substrings=true,s/o/0/\n", R"({"b":1})", R"({"b":1})"},
            {"missing key with a value", "CONFIG,IN_a\nsearch-replace-substrings=true;missing-key-value=o,s/o/0/\n",
             R"({"b":1})", R"({"b":1,"a":"0"})"},
            {"too few parts", "CONFIG,IN_a\nsearch-replace-substrings=true,s/o\n", R"({"a":"foo"})", R"({"a":"foo"})"},
            {"too many parts", "CONFIG,IN_a\nsearch-replace-substrings=true,s/o/0/g/\n", R"({"a":"foo"})",
             R"({"a":"foo"})"},
            {"outputs are ignored", "CONFIG,IN_a,OUT_b\nsearch-replace-substrings=true,s/o/0/,y\n", R"({"a":"o"})",
             R"({"a":"0"})"},
            {"bad expression", "CONFIG,IN_a\nsearch-replace-substrings=true,s/(/0/\n", R"({"a":"o"})", "failed"},
            {"bad expression of a missing key", "CONFIG,IN_a\nsearch-replace-substrings=true,s/(/0/\n", "{}", "{}"},
            {"only for the value true", "CONFIG,IN_a\nsearch-replace-substrings=yes,s/o/0/\n", R"({"a":"o"})",
             "unmatched"},
        },
        convert);
}

TEST_F(EventTransformerTest, FiltersKeys) {
    expectConversions(
        *transformerOf("IN_a\n"),
        {
            {"exclude", "CONFIG,IN_a,OUT_b\nnon-standard-keys=exclude,,\n",
             R"({"a":1,"b":2,"event.x":3,"eventx":4,"user.":5,"entity.x":6,"c":7})",
             R"({"b":2,"event.x":3,"user.":5,"entity.x":6})"},
            {"nothing to exclude", "CONFIG,OUT_b\nnon-standard-keys=exclude,\n", R"({"b":2,"env.x":3})", "unmatched"},
            {"include", "CONFIG,OUT_b\nnon-standard-keys=include,ignored\n", R"({"a":1,"exp.x":2})",
             R"({"a":1,"exp.x":2,"b":{"a":1}})"},
            {"include into an object", "CONFIG,OUT_b\nnon-standard-keys=include,x\n",
             R"({"a":{"c":1},"b":{"a":{"d":2},"e":3}})", R"({"a":{"c":1},"b":{"a":{"d":2,"c":1},"e":3}})"},
            {"include over another value", "CONFIG,OUT_b\nnon-standard-keys=include,x\n", R"({"b":"text","a":1})",
             R"({"b":{"a":1},"a":1})"},
            {"include twice", "CONFIG,OUT_b,OUT_c\nnon-standard-keys=include,x,x\n", R"({"a":1})",
             R"({"a":1,"b":{"a":1},"c":{"a":1}})"},
            {"include without a place", "CONFIG,OUT_b\nnon-standard-keys=include,\n", R"({"a":1})", "unmatched"},
            {"nothing to include", "CONFIG,OUT_b\nnon-standard-keys=include,x\n", R"({"source.a":1})", "unmatched"},
            {"another value", "CONFIG,OUT_b\nnon-standard-keys=drop,x\n", R"({"a":1})", "unmatched"},
            {"other options are not read",
             "CONFIG,IN_a\nnon-standard-keys=exclude;search-replace-substrings=true,s/1/2/\n", R"({"a":"1"})", "{}"},
        },
        convert);
}

TEST_F(EventTransformerTest, AppliesRulesInOrderToWhatIsLeft) {
    expectConversions(
        *transformerOf("IN_a\n"),
        {
            {"on the result of the first", "IN_a,IN_b,OUT_b,OUT_c\nx,,y,\n,y,,z\n", R"({"a":"x"})", R"({"c":"z"})"},
            {"what the first took is missing", "IN_a,OUT_b,OUT_c\nx,y,\nx,,z\n", R"({"a":"x"})", R"({"b":"y"})"},
            {"a later match is enough", "IN_a,OUT_b\nq,1\nx,2\nq,3\n", R"({"a":"x"})", R"({"b":"2"})"},
            {"the table of the documentation",
             "CONFIG,IN_component,IN_action,OUT_event.workflow,OUT_event.type\n"
             "search-replace-substrings=true,s/^legacy-//i,,,\n"
             "missing-key-action=skip,\"(panel|dialog)-(.+)\",(open|close),$2,$1-$3\n"
             "case-sensitive-values=false,startup,,startup,\"session, $+{version}\"\n"
             "non-standard-keys=exclude,,,,\n",
             R"({"component":"legacy-panel-export","action":"open","version":"12.4"})",
             R"({"event.workflow":"export","event.type":"panel-open"})"},
            {"rewrite, map, filter",
             "CONFIG,IN_a,OUT_event.type\n"
             "search-replace-substrings=true,s/legacy-//,\n"
             ",(.*),type-$1\n"
             "non-standard-keys=exclude,,\n",
             R"({"a":"legacy-open","rest":1})", R"({"event.type":"type-open"})"},
        },
        convert);
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

TEST_F(EventTransformerTest, ReportsTheMappingFile) {
    const auto codeOf = [&](const char* csv) { return exceptionToVelmoraError([&] { (void)transformerOf(csv); }); };
    EXPECT_EQ(exceptionToVelmoraError([] { EventTransformer unknown("unknown-guid"); }), 10);
    EXPECT_EQ(codeOf("\n\r\n"), 11);
    EXPECT_EQ(codeOf("IN_a,OUT_b\n1,2,3\n"), 12);
    EXPECT_EQ(codeOf("IN_a,OUT_b\n\"ab,2\n"), 12);
    EXPECT_EQ(codeOf("IN_a,OUT_b\n"), 0);
    EXPECT_EQ(exceptionToVelmoraError([] { (void)EventTransformer::parseMapping("", "text"); }), 11);
}

TEST_F(EventTransformerTest, KeepsItsMappingUntilItIsReplaced) {
    const auto transformer = transformerOf("IN_a,OUT_b\nx,1\n");
    writeFile(EventTransformer::mappingPath(kGuid), "IN_a,OUT_b\nx,2\n");
    EXPECT_EQ(convert(*transformer, R"({"a":"x"})"), R"({"b":"1"})");
    transformer->setMapping(EventTransformer::parseMapping("IN_a,OUT_b\nx,3\n", "text"));
    EXPECT_EQ(convert(*transformer, R"({"a":"x"})"), R"({"b":"3"})");
}

TEST_F(EventTransformerTest, LogsSkippedRewrites) {
    const auto transformer = transformerOf(
        "CONFIG,IN_a,IN_b\nsearch-replace-substrings=true,s/x/y/,s/x\nsearch-replace-substrings=true,,x\\\n");
    const test::CapturedLog log;
    convert(*transformer, R"({"b":"x"})");
    EXPECT_TRUE(log.has(LogLevel::warn, "event.transformer", "skipping in-place substitution for absent key=a"));
    EXPECT_TRUE(
        log.has(LogLevel::warn, "event.transformer", "skipping invalid substitution command=s/x for absent key=b"));
    EXPECT_EQ(log.count("skipping invalid substitution command=x\\ for absent key=b"), 1u);
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
    const Path in = file("in.csv");
    const Path nowhere = file("nowhere") / "x.csv";
    EXPECT_EQ(codeOf(nowhere, file("out.csv")), 4);
    EXPECT_TRUE(log.has(LogLevel::error, "event.transformer", "file not found; inCsvPath: " + nowhere.string()));
    writeFile(in, "a\nx\n");
    EXPECT_EQ(codeOf(in, nowhere), 4);
    EXPECT_TRUE(log.has(LogLevel::info, "event.transformer", "Parse input csv: " + in.string()));
    EXPECT_TRUE(log.has(LogLevel::error, "event.transformer", "file not opened; outCsvPath: " + nowhere.string()));
    writeFile(in, "a\nx,y\n");
    EXPECT_EQ(codeOf(in, file("out.csv")), 12);
    EXPECT_FALSE(file("out.csv").exists());
}

}  // namespace
}  // namespace velmora
