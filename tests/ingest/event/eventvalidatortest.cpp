#include "ingest/event/eventvalidator.h"

#include <gtest/gtest.h>

#include "core/types/errors.h"
#include "tests/support/codeof.h"

namespace velmora {
namespace {

using service::config::ingest::Config;
using service::config::ingest::ValidationRule;

class EventValidatorTest : public testing::Test {
protected:
    // The number that the host would get.
    int validate(std::string& event, uint32_t level = 1) const {
        return test::codeOf([&] { validator_.validate(event, level); }).value();
    }
    int validate(std::string&& event, uint32_t level = 1) const { return validate(event, level); }

    void use(const Config& config) { provider_.updateConfig(config); }

    IngestConfigProvider provider_{"guid", [](const std::string&) { return Config(); }, nullptr};
    EventValidator validator_{provider_};
};

constexpr int kInvalidJson = 2;
constexpr int kInvalidFormat = 3;

TEST_F(EventValidatorTest, JudgesByTheBuiltInRules) {
    const struct {
        const char* event;
        int result;
    } rows[] = {
        {"{}", 0},
        {R"({"event.workflow":"","event.category":"WEB","event.subcategory":"Two Words","event.type":"a"})", 0},
        {R"({"event.category":"desktop"})", kInvalidFormat},
        {R"({"event.subcategory":"Two words"})", kInvalidFormat},
        {R"({"event.subcategory":""})", kInvalidFormat},
        {R"({"event.subcategory":"AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA b"})", kInvalidFormat},
        {R"({"event.type":"with-hyphen"})", kInvalidFormat},
        {R"({"event.subtype":"with-hyphen"})", 0},
        {R"({"event.type":5})", kInvalidFormat},
        {R"({"event.type":"ok","event.type":"NOT"})", 0},
        {R"({"event.workflow":{"a":[1,null]}})", 0},
        {"{\"event.workflow\":\"two\\nlines\\u0000\"}", 0},
        {"{\"event.type\":\"ok\\u0000\"}", kInvalidFormat},
        {"[]", kInvalidJson},
        {"{", kInvalidJson},
    };
    for (int pass = 0; pass < 2; ++pass) {  // the second time with what the first has left behind
        for (const auto& row : rows) {
            SCOPED_TRACE(row.event);
            EXPECT_EQ(validate(row.event), row.result);
        }
    }
}

TEST_F(EventValidatorTest, AddsTheDefaultsOfRequiredAttributes) {
    std::string event = R"( { "event.type" : "open", "n":1.50 } )";
    EXPECT_EQ(validate(event), 0);
    EXPECT_EQ(event, R"({"event.type":"open","n":1.5,"event.category":"UNKNOWN","event.subcategory":"Unknown",)"
                     R"("event.subtype":"unknown","event.workflow":"Unknown"})");
}

TEST_F(EventValidatorTest, KeepsTheDefaultsAddedBeforeAFailure) {
    std::string event = R"({ "event.type":"NOT" })";
    EXPECT_EQ(validate(event), kInvalidFormat);
    EXPECT_EQ(event.substr(0, 22), R"({"event.type":"NOT","e)");
}

TEST_F(EventValidatorTest, LevelDecidesWhetherRulesAreVisited) {
    Config off;
    off.validationFlag = false;
    const struct {
        const char* what;
        bool flag;
        uint32_t level;
        bool visited;
    } rows[] = {
        {"none", true, kValidateNone, false},
        {"always", false, 1, true},
        {"as configured, on", true, kValidateAsConfigured, true},
        {"as configured, off", false, kValidateAsConfigured, false},
        {"next to the last", false, kValidateAsConfigured - 1, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        use(row.flag ? Config() : off);
        const std::string bad = R"({ "event.type":"NOT" })";
        std::string event = bad;
        EXPECT_EQ(validate(event, row.level), row.visited ? kInvalidFormat : 0);
        EXPECT_EQ(event == bad, !row.visited);
        EXPECT_EQ(validate("[]", row.level), kInvalidJson);
    }
}

TEST_F(EventValidatorTest, UpdateTakesEffectWithTheNextEvent) {
    const auto configWith = [](const char* pattern, bool required, const char* defaultValue) {
        Config config;
        config.validationRules = {{"a", ValidationRule{required, boost::regex(pattern), defaultValue}}};
        return config;
    };
    use(configWith("x+", false, ""));
    EXPECT_EQ(validate(R"({"a":"xx"})"), 0);
    EXPECT_EQ(validate(R"({"a":"xxy"})"), kInvalidFormat);
    EXPECT_EQ(validate("{}"), 0);
    use(configWith("y+", true, ""));
    EXPECT_EQ(validate(R"({"a":"xx"})"), kInvalidFormat);
    EXPECT_EQ(validate("{}"), kInvalidFormat);
    use(configWith("y+", true, "not matched"));
    EXPECT_EQ(validate("{}"), 0);
    Config none;
    none.validationRules.clear();
    use(none);
    std::string event = R"({ "a" : 1 })";
    EXPECT_EQ(validate(event), 0);
    EXPECT_EQ(event, R"({"a":1})");
}

TEST_F(EventValidatorTest, RemembersOnlyWhatThePatternAccepts) {
    Config config;
    config.validationRules = {{"a", ValidationRule{false, boost::regex("^[a-c]*$"), ""}}};
    use(config);
    for (int i = 0; i < 3000; ++i) {
        std::string text;
        for (int n = i % 40; n > 0; n /= 3) text += static_cast<char>('a' + (i + n) % 5);
        if (i % 97 == 0) text.append(80, 'a');
        SCOPED_TRACE(text);
        const bool matches = boost::regex_match(text, boost::regex("^[a-c]*$"));
        EXPECT_EQ(validate("{\"a\":\"" + text + "\"}"), matches ? 0 : kInvalidFormat);
    }
}

TEST_F(EventValidatorTest, TestsTheOverrideFirst) {
    std::string event = "{}";
    std::string configOverride;
    validator_.validate(event, kValidateNone, configOverride);
    EXPECT_EQ(configOverride, "{}");
    configOverride = "[]";
    EXPECT_THROW(validator_.validate(event, kValidateNone, configOverride), std::system_error);
}

}  // namespace
}  // namespace velmora
