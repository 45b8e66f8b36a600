#include "core/json/mergejson.h"

#include <gtest/gtest.h>

#include <random>

#include "core/json/jsonparser.h"
#include "core/json/jsontext.h"
#include "core/json/validjson.h"
#include "tests/support/capturedlog.h"

namespace velmora {
namespace {

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
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    for (int round = 0; round < 3000; ++round) {
        Model data = randomModel(random, 4, true);
        const Model extra = randomModel(random, 4, true);
        std::string text = render(data, "\n ");
        rapidjson::Document values;
        ASSERT_FALSE(parseValue(values, text).IsError());
        mergeJSON(text, render(extra, " "));
        merge(data, extra);
        ASSERT_EQ(text, render(data, ""));
        {
            rapidjson::Document extraValues;
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
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    for (int round = 0; round < 5000; ++round) {
        const std::string text = damaged(render(randomModel(random, 4, true), " "), random);
        const bool valid = validJSON(text);
        ASSERT_EQ(!JsonParser::parse(text, std::make_shared<JsonDefaultParser>()), valid) << text;
        std::string data = text;
        mergeJSON(data, text);
        ASSERT_TRUE(validJSON(data)) << text;
        ASSERT_EQ(valid, validJSONValue(text) && prettyPrint(text).front() == '{') << text;
    }
}

}  // namespace
}  // namespace velmora
