#include "core/json/jsontext.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <random>

#include "core/json/jsonparser.h"
#include "core/json/jsonwriter.h"
#include "core/json/mergejson.h"
#include "core/types/errors.h"
#include "core/types/text.h"
#include "tests/support/capturedlog.h"
#include "tests/support/seed.h"

namespace velmora {
namespace {

using test::CapturedLog;

std::string nested(const std::string& opening, const std::string& closing, int levels) {
    std::string text;
    for (int i = 0; i < levels; ++i) text += opening;
    for (int i = 0; i < levels; ++i) text += closing;
    return text;
}

TEST(ValidJson, AsksForAnObjectAndSaysWhyNot) {
    const struct {
        std::string text;
        bool object, value;
        std::string why;
    } rows[] = {
        {"{}", true, true, ""},
        {"\xEF\xBB\xBF {\"a\":[1,null]} ", true, true, ""},
        {"[]", false, true, "invalid json=[] parse err='No error.' at 0"},
        {"", false, false, "invalid json= parse err='The document is empty.' at 0"},
        {"{} x", false, false,
         "invalid json={} x parse err='The document root must not be followed by other values.' at 3"},
        {"\xEF\xBB\xBF{x}", false, false,
         "invalid json=\xEF\xBB\xBF{x} parse err='Missing a name for object member.' at 4"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const CapturedLog log;
        EXPECT_EQ(validJSON(row.text), row.object);
        EXPECT_EQ(log.has(LogLevel::warn, "json", row.why), !row.object);
        EXPECT_EQ(validJSONValue(row.text), row.value);
        JsonDocument document;
        EXPECT_EQ(parseObject(document, row.text), row.object);
        EXPECT_EQ(log.lines().size(), row.value ? (row.object ? 0u : 2u) : 3u);
    }
}

// At every place of the blocks that the vector code of reader and writer takes at a time.
TEST(ControlCharacters, AreEscapedWhereverTheyStandAndRefusedUnescaped) {
    for (char control = 1; control < 0x20; ++control) {
        const std::string escaped =
            std::string("\\u00") + (control < 0x10 ? "0" : "1") + "0123456789abcdef"[control % 16];
        for (size_t before = 0; before < 40; ++before) {
            const std::string around(before, '-');
            const auto textWith = [&](const std::string& piece) {
                return "{\"" + around + piece + around + "\":\"" + around + piece + around + "\"}";
            };
            JsonDocument document;
            ASSERT_FALSE(parseValue(document, textWith(escaped)).IsError());
            const std::string held = around + control + around;
            ASSERT_EQ(document.MemberBegin()->value.GetString(), held);
            for (const std::string& written : {serialize(document), serializePretty(document)}) {
                JsonDocument again;
                ASSERT_FALSE(parseValue(again, written).IsError()) << written;
                ASSERT_EQ(again.MemberBegin()->name.GetString(), held);
                ASSERT_EQ(again.MemberBegin()->value.GetString(), held);
                ASSERT_TRUE(
                    std::none_of(written.begin(), written.end(), [](char c) { return c > 0 && c < ' ' && c != '\n'; }));
            }
            ASSERT_FALSE(validJSON(textWith(std::string(1, control)))) << int{control} << " behind " << before;
        }
    }
}

TEST(ValidJson, RefusesTextThatIsNestedTooDeep) {
    EXPECT_TRUE(validJSONValue(nested("[", "]", kMaxNesting)));
    EXPECT_TRUE(validJSON(nested("{\"a\":", "}", kMaxNesting - 1).insert(5 * (kMaxNesting - 1), "1")));
    for (const std::string& text : {nested("[", "]", kMaxNesting + 1), nested("[", "", 1 << 20)}) {
        const CapturedLog log;
        JsonDocument document;
        EXPECT_FALSE(validJSONValue(text));
        EXPECT_EQ(parseValue(document, text).Code(), rapidjson::kParseErrorTermination);
        EXPECT_TRUE(document.IsNull());
        EXPECT_TRUE(log.contains("' at " + std::to_string(kMaxNesting)));
    }
}

// Writes down every call.
class Recorder : public JsonParser {
public:
    explicit Recorder(std::string& record, bool isArray = false) : record_(record), isArray_(isArray) {}
    void onNull(const std::string& name) override { record_ += name + ":null "; }
    void onBool(const std::string& name, bool value) override { record_ += name + (value ? ":true " : ":false "); }
    void onInt(const std::string& name, int64_t value) override { number(name, 'i', std::to_string(value)); }
    void onUint(const std::string& name, uint64_t value) override { number(name, 'u', std::to_string(value)); }
    void onDouble(const std::string& name, double value) override { number(name, 'd', std::to_string(value)); }
    void onString(const std::string& name, const std::string& value) override {
        if (value == "throw") throw std::runtime_error("thrown");
        record_ += name + ":'" + value + "' ";
    }
    std::shared_ptr<JsonParser> onObject(const std::string& name) override { return open(name, false); }
    std::shared_ptr<JsonParser> onArray(const std::string& name) override { return open(name, true); }
    void onEnd() override { record_ += isArray_ ? "] " : "} "; }
    bool isObject() const override { return !isArray_; }

private:
    void number(const std::string& name, char kind, const std::string& text) {
        record_ += name + ":" + kind + text + " ";
    }
    std::shared_ptr<JsonParser> open(const std::string& name, bool isArray) {
        if (name == "nobody") return nullptr;
        record_ += name + (isArray ? ":[ " : ":{ ");
        return std::make_shared<Recorder>(record_, isArray);
    }

    std::string& record_;
    bool isArray_;
};

TEST(JsonParser, HandsEachValueToTheParserOfItsLevel) {
    std::string record;
    const std::string text = R"( {"a":-5,"b":5,"c":1.5,"d":null,"e":{"f":["g",true,{"h":-9000000000}],"i":9000000000},
                                 "j":18446744073709551615,"":"\u00e9"} )";
    EXPECT_FALSE(JsonParser::parse(text, std::make_shared<Recorder>(record)));
    EXPECT_EQ(record,
              "a:i-5 b:u5 c:d1.500000 d:null e:{ f:[ :'g' :true :{ h:i-9000000000 } ] i:u9000000000 } "
              "j:u18446744073709551615 :'\xC3\xA9' } ");
}

TEST(JsonParser, ReportsFailuresWithOffsetAndReason) {
    const struct {
        const char* text;
        int code;
        const char* line;
    } rows[] = {
        {" ", 1, "1 Reason: The document is empty."},
        {" ]", 3, "1 Reason: Invalid value."},
        {"}", 3, "0 Reason: Invalid value."},
        {":", 3, "0 Reason: Invalid value."},
        {"{\"a\":1} x", 2, "8 Reason: The document root must not be followed by other values."},
        {"{\"a\" 1}", 5, "5 Reason: Missing a colon after a name of object member."},
        {"[1,2]", 18, "0 Reason: JSON Parse Error: No Current Handler for item: "},
        {"{\"a\":\"throw\"}", 18, "12 Reason: thrown"},
        {"{\"nobody\":{\"x\":1}}", 18, "16 Reason: JSON Parse Error: No Current Handler for item: x"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const CapturedLog log;
        std::string record;
        EXPECT_EQ(JsonParser::parse(row.text, std::make_shared<Recorder>(record)),
                  std::error_code(row.code, jsonCategory()));
        EXPECT_TRUE(log.has(LogLevel::debug, "json", std::string("JsonParser Failed to parse at: ") + row.line));
    }
}

// Written once, a number stays as it is: nothing drifts from pass to pass.
TEST(Numbers, AreReadToTheNearestDoubleOrRefused) {
    const struct {
        const char *text, *written;
    } rows[] = {
        {"1.50", "1.5"},
        {"0.1", "0.1"},
        {"123456789.123456789", "123456789.12345679"},
        {"9007199254740993.0", "9007199254740992.0"},
        {"2.2250738585072011e-308", "2.225073858507201e-308"},
        {"1.7976931348623157e308", "1.7976931348623157e308"},
        {"-0", "0"},
        {"-0.0", "-0.0"},
        {"0e-30", "0.0"},
        {"1e-400", "0.0"},
        {"0.00000000000000000001e-350", "0.0"},
        {"18446744073709551616", "18446744073709553000.0"},
        {"-9223372036854775808", "-9223372036854775808"},
        {"9e308", nullptr},
        {"-9e308", nullptr},
        {"100000e304", nullptr},
        {"1e309", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        JsonDocument document;
        const rapidjson::ParseResult result = parseValue(document, std::string("[") + row.text + "]");
        const std::error_code parsed =
            JsonParser::parse(std::string("{\"a\":") + row.text + "}", std::make_shared<JsonDefaultParser>());
        if (row.written == nullptr) {
            EXPECT_EQ(result.Code(), rapidjson::kParseErrorNumberTooBig);
            EXPECT_EQ(parsed.value(), 13);
            continue;
        }
        ASSERT_FALSE(result.IsError() || parsed);
        const std::string written = serialize(document);
        EXPECT_EQ(written, std::string("[") + row.written + "]");
        ASSERT_FALSE(parseValue(document, written).IsError());
        EXPECT_EQ(serialize(document), written);
    }
    EXPECT_THROW((void)serialize(JsonValue(HUGE_VAL)), std::invalid_argument);
}

TEST(Encoding, IsRefusedUnlessItIsUtf8AlsoBehindEscapes) {
    const struct {
        const char* text;
        int code;
    } rows[] = {
        {"[\"\xC3\xA9\\ud83d\\ude00 as good as any\"]", 0},
        {"[\"\xED\xA0\x80\"]", 12},
        {"[\"0123456789abcdef\xC0\xAF\"]", 12},
        {"[\"0123456789abcdef\xE2\x82\"]", 12},
        {"[\"\\udc00\"]", 12},
        {"{\"\\uDFFF\":1}", 12},
        {"[\"\\ud800\"]", 9},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        JsonDocument document;
        EXPECT_EQ(parseValue(document, row.text).Code(), row.code);
    }
    EXPECT_EQ(jsonToStringMap(R"({"a":"x"})").size(), 1u);
    std::unordered_map<std::string, std::string> map;
    EXPECT_FALSE(
        JsonParser::parse("{\"a\":\"\xFF\",\"\xFF\":\"b\",\"c\":\"d\"}", std::make_shared<StringMapParser>(map)));
    EXPECT_EQ(map, (std::unordered_map<std::string, std::string>{{"c", "d"}}));
}

TEST(ParseValue, LeavesNothingOfTheTextBefore) {
    JsonDocument document;
    ASSERT_FALSE(parseValue(document, R"({"a":1})").IsError());
    EXPECT_TRUE(parseValue(document, R"({"a":1,)").IsError());
    EXPECT_TRUE(document.IsNull());
    ASSERT_FALSE(parseValue(document, "[2]").IsError());
    EXPECT_EQ(serialize(document), "[2]");
}

TEST(MergeJson, TakesTimeInProportionToTheMembers) {
    std::string data = "{";
    for (int i = 0; i < 100000; ++i) data += "\"some.name." + std::to_string(i) + "\":" + std::to_string(i) + ",";
    data.back() = '}';
    const std::string before = data;
    const auto begin = std::chrono::steady_clock::now();
    mergeJSON(data, before);
    EXPECT_EQ(data, before);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));  // quadratic, it takes minutes
}

TEST(JsonParser, ReadsStringMapsAndArraysAndSkipsTheRest) {
    EXPECT_EQ(jsonToStringMap(R"({"a":"x","b":1,"c":{"d":"y"}})"),
              (std::unordered_map<std::string, std::string>{{"a", "x"}}));
    EXPECT_THROW((void)jsonToStringMap("[]"), std::system_error);
    EXPECT_EQ(jsonToStringMap("\xEF\xBB\xBF{\"a\":\"x\"}").size(), 1u);
    EXPECT_EQ(JsonParser::parse(nested("{\"a\":", "}", kMaxNesting + 1), std::make_shared<JsonDefaultParser>()).value(),
              16);
    EXPECT_EQ(stringMapToJson({}), "{}");
    EXPECT_EQ(stringMapToJson({{"a\"", "x"}}), "{\"a\"\":\"x\"}");
    EXPECT_EQ(jsonToStringMap(stringMapToJson({{"a", "x"}, {"b", "y"}})).size(), 2u);
}

TEST(JsonWriter, AppendsToWhatTheStringHoldsAndDropsWhatIsNotKept) {
    std::string text = "{\"old\":1.0}";
    JsonWriter writer(&text);
    writer.addString("text", "\"\xC3\xA9");
    writer.startObject("empty");
    writer.startObject("inner");
    writer.addInt("lost", 1);
    writer.endObject(false);
    writer.endObject(true);
    writer.startArray("list");
    writer.addInt(-1);
    writer.addUint(UINT64_MAX);
    writer.startObject("");
    writer.addBool("flag", true);
    writer.endObject(true);
    writer.endArray(true);
    EXPECT_THROW(writer.addBool(true), std::logic_error);
    EXPECT_THROW(writer.endObject(true), std::logic_error);
    writer.finish();
    EXPECT_EQ(text,
              "{\"old\":1.0,\"text\":\"\\\"\xC3\xA9\",\"empty\":{},"
              "\"list\":[-1,18446744073709551615,{\"flag\":true}]}");

    std::string fresh = "no json";
    JsonWriter pretty(&fresh, true);
    pretty.addUint("a", 1);
    pretty.finish();
    EXPECT_EQ(fresh, "{\n    \"a\": 1\n}");
    EXPECT_EQ(prettyPrint("{\"a\":1}"), fresh);
    EXPECT_EQ(prettyPrint("{\"a\":1"), "{\"a\":1");
}

using Random = std::mt19937;

size_t below(Random& random, size_t limit) { return random() % limit; }

// A value as the rule sees it: an object with its members in order, or a text.
struct Model {
    bool isObject = false;
    std::string text;
    std::vector<std::pair<std::string, Model>> members;
};

Model randomModel(Random& random, int depth, bool object) {
    static const char* const kTexts[] = {"1",    "-2",   "18446744073709551615", "0.1", "\"s\"", "[1,2]", "[{}]",
                                         "true", "null", "\"\\u0001\\\"\"",      "[]",  "1e-7"};
    Model model;
    model.isObject = object || (depth > 0 && below(random, 3) == 0);
    if (!model.isObject) model.text = kTexts[below(random, std::size(kTexts))];
    for (size_t count = model.isObject ? below(random, 6) : 0; count > 0; --count) {
        const std::string name(1, static_cast<char>('a' + below(random, 4)));  // few names, so that they repeat
        model.members.emplace_back(name, randomModel(random, depth - 1, false));
    }
    return model;
}

std::string render(const Model& model, const std::string& blank) {
    if (!model.isObject) return model.text;
    std::string text = "{";
    for (const auto& [name, value] : model.members) {
        text += (text.size() > 1 ? "," : "") + blank + "\"" + name + "\":" + blank + render(value, blank);
    }
    return text + blank + "}";
}

void merge(Model& data, const Model& extra) {
    for (const auto& [name, value] : extra.members) {
        size_t at = 0;
        while (at < data.members.size() && data.members[at].first != name) ++at;
        if (at == data.members.size()) {
            data.members.emplace_back(name, value);
        } else if (data.members[at].second.isObject && value.isObject) {
            merge(data.members[at].second, value);
        } else {
            data.members[at].second = value;
        }
    }
}

TEST(MergeJson, AgreesWithTheRuleOnRandomDocuments) {
    Random random(test::seed());
    for (int round = 0; round < 3000; ++round) {
        Model data = randomModel(random, 4, true);
        const Model extra = randomModel(random, 4, true);
        std::string text = render(data, "\n ");
        JsonDocument values;
        ASSERT_FALSE(parseValue(values, text).IsError());
        mergeJSON(text, render(extra, " "));
        merge(data, extra);
        ASSERT_EQ(text, render(data, ""));
        {
            JsonDocument extraValues;
            ASSERT_FALSE(parseValue(extraValues, render(extra, "")).IsError());
            mergeObjects(values, extraValues, values.GetAllocator());
        }
        ASSERT_EQ(serialize(values), text);  // nothing of `extra` is needed any more
    }
}

TEST(MergeJson, LogsInvalidTextAndEndsValid) {
    const struct {
        const char *data, *extra, *result;
        std::vector<std::string> warnings;
    } rows[] = {
        {"not json", "{\"a\":1}", "{\"a\":1}", {"invalid json data=not json"}},
        {"{ \"a\":1}", "not json", "{ \"a\":1}", {"invalid json extra=not json"}},
        {"[1]", "[2]", "{}", {"invalid json data=[1]", "invalid json extra=[2]"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.data);
        const test::CapturedLog log;
        std::string data = row.data;
        mergeJSON(data, row.extra);
        EXPECT_EQ(data, row.result);
        for (const auto& warning : row.warnings) EXPECT_TRUE(log.has(LogLevel::warn, "json", warning));
        EXPECT_EQ(log.count("parse err="), row.warnings.size());  // validity and values come from one parse
    }
}

// Cuts, doubles or flips bytes somewhere.
std::string damaged(std::string text, Random& random) {
    for (size_t changes = 1 + below(random, 3); changes > 0; --changes) {
        const size_t at = below(random, text.size() + 1);
        switch (below(random, 4)) {
            case 0:
                text.resize(at);
                break;
            case 1:
                text.insert(at, text.substr(at, below(random, 5)));
                break;
            case 2:
                text.insert(at, 1, "{}[]\",:\\u0e"[below(random, 11)]);
                break;
            default:
                if (at < text.size()) text[at] = static_cast<char>(random());
        }
    }
    return text;
}

TEST(MergeJson, SurvivesDamagedTextAndAllReadersAgreeOnIt) {
    Random random(test::seed());
    for (int round = 0; round < 5000; ++round) {
        const std::string text = damaged(render(randomModel(random, 4, true), " "), random);
        const bool valid = validJSON(text);
        const bool parses = !JsonParser::parse(text, std::make_shared<JsonDefaultParser>());
        ASSERT_TRUE(parses == valid || (parses && !isUtf8(text))) << text;
        std::string data = text;
        mergeJSON(data, text);
        ASSERT_TRUE(validJSON(data)) << text;
        ASSERT_EQ(valid, validJSONValue(text) && prettyPrint(text).front() == '{') << text;
    }
}

}  // namespace
}  // namespace velmora
