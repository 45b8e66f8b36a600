#include "ingest/event/eventpreset.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <thread>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"
#include "core/sysinfo/sysinfo.h"
#include "core/types/errors.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"
#include "ingest/event/eventvalidator.h"
#include "ingest/event/eventwriter.h"
#include "ingest/event/systemattributes.h"
#include "tests/support/codeof.h"
#include "tests/support/seed.h"

namespace velmora {
namespace {

using service::config::ingest::Config;
using service::oswin::Profile;

Config exampleConfig() {
    Config config;
    config.project = "pro\"ject";
    config.sourceCategory = SourceCategory::desktop;
    return config;
}

// Identifiers and times differ from call to call.
std::string masked(const std::string& text) {
    static const std::regex guid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}");
    static const std::regex time("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d{4}");
    return std::regex_replace(std::regex_replace(text, guid, "GUID"), time, "TIME");
}

// The two stages step by step, each a writer or a merge of texts.
class PlainPreset {
public:
    PlainPreset(const IngestConfigProvider& config, const std::string& commonAttributes)
        : validator_(config), envelopeBase_(config.read(makeEnvelopeFragment)) {
        const auto category = config.read([](const Config& record) { return record.sourceCategory; });
        for (const auto& fragment : {makeEventFragment(category), makeDeviceFragment(), makeSourceFragment()}) {
            mergeJSON(dataBase_, fragment);
        }
        mergeJSON(dataBase_, commonAttributes);
    }

    std::string getEventPayload(const std::string& data, uint32_t level, std::string configOverride) const {
        if (!validJSON(data)) throw std::system_error(VelmoraError::invalid_json);
        std::string event = dataBase_;
        std::string envelope = envelopeBase_;
        const std::string time = currentTimeLocalMillis();
        const std::string offline = isEventOnline() ? "false" : "true";
        std::string language;
        const bool hasLanguage = sysinfo::getLocale(language);
        EventWriter::Pairs env{{"dts_end", currentTimeLocalMillis()}};
        if (hasLanguage) env.emplace_back("language", language);
        env.emplace_back("offline", offline);
        EventWriter(&event).set("event.dts_end", time).set("event.guid", makeGuid()).set("entity.env", env).finish();
        std::string fragment;
        if (!hasLanguage) language.clear();
        EventWriter(&fragment).set("event.language", language).set("event.offline", offline).finish();
        mergeJSON(event, fragment);
        mergeJSON(event, data);
        validator_.validate(event, level, configOverride);
        EventWriter(&envelope).set("time", time).finish();
        mergeJSON(envelope, configOverride);
        mergeJSON(envelope, "{\"data\":" + event + "}");
        return envelope;
    }

    static std::string applyBatchAttributes(std::string event, const std::vector<std::string>& fragments) {
        for (const auto& fragment : fragments) mergeJSON(event, "{\"data\":" + fragment + "}");
        return event;
    }

private:
    const EventValidator validator_;
    const std::string envelopeBase_;
    std::string dataBase_ = "{}";
};

// Random JSON texts over a vocabulary in which names meet.
class RandomJson {
public:
    explicit RandomJson(unsigned seed) : random_(seed) {}

    size_t below(size_t limit) { return random_() % limit; }
    bool oneIn(size_t n) { return below(n) == 0; }

    std::string name() {
        static const auto names = tokenize(
            "event.guid,event.dts_end,event.language,event.offline,event.category,event.type,event.workflow,"
            "event.subcategory,event.subtype,entity.device,entity.source,entity.env,source.device,event.session_guid,"
            "device,language,offline,a,b,,time,data,project,nested",
            ',', '\\');
        return names[below(names.size())];
    }

    std::string plainText() {
        static const std::vector<std::string> texts = {"", "open", "WEB", "Unknown", "Two Words", "with-hyphen", "5"};
        return texts[below(texts.size())];
    }

    std::string value(int depth = 0) {
        static const auto values = tokenize(
            R"(null|true|false|0|-1|1.50|1e3|18446744073709551615|-0.0|2.5e-7|"\u00e4\n\"\/\\"|"\u0000"|"ä"|[]|{}|)"
            "12345678901234567890123",
            '|', '~');
        if (depth < 3 && oneIn(4)) return object(depth + 1);
        if (depth < 3 && oneIn(8)) return "[" + value(depth + 1) + space() + "," + value(depth + 1) + "]";
        return oneIn(2) ? '"' + plainText() + '"' : values[below(values.size())];
    }

    std::string object(int depth = 0) {
        std::string text = "{";
        for (size_t i = below(depth == 0 ? 12 : 4); i > 0; --i) {
            if (text.size() > 1) text += ',';
            const std::string key = oneIn(10) ? "k\\u0022" + plainText() : name();
            text += space() + '"' + key + '"' + space() + ':' + space() + value(depth);
        }
        return text + space() + "}";
    }

    std::string space() { return oneIn(6) ? " \n" : ""; }

private:
    std::mt19937 random_;
};

template <typename Call>
std::string textOrCode(Call call) {
    try {
        return masked(call());
    } catch (const std::system_error& e) {
        return toString(e.code());
    }
}

class EventPresetTest : public testing::Test {
protected:
    std::string payload(const std::string& data, uint32_t level = 0, const std::string& configOverride = "{}") {
        return preset_.getEventPayload(data, level, configOverride);
    }

    // A member of the event inside an envelope, as text; "none" if it has none.
    static std::string member(const std::string& envelope, const char* name) {
        JsonDocument document;
        EXPECT_TRUE(parseObject(document, envelope));
        const auto& data = document["data"];
        return data.HasMember(name) ? toText(data[name]) : "none";
    }

    IngestConfigProvider provider_{"guid", [](const std::string&) { return exampleConfig(); }, nullptr};
    EventPreset preset_{provider_};
};

TEST_F(EventPresetTest, GivesTheTextOfThePlainSteps) {
    RandomJson random(test::seed());
    const uint32_t levels[] = {kValidateNone, 1, kValidateAsConfigured};
    for (int round = 0; round < 20; ++round) {
        EventPreset preset(provider_);
        for (size_t i = random.below(5); i > 0; --i) preset.setCommonAttribute(random.name(), random.plainText());
        const PlainPreset plain(provider_, stringMapToJson(preset.getCommonAttributes()));
        for (int i = 0; i < 50; ++i) {
            setEventOnline(random.oneIn(2));
            const std::string data = random.oneIn(50) ? random.value() + "," : random.object();
            const std::string configOverride = random.oneIn(4)   ? random.object()
                                               : random.oneIn(2) ? "{}"
                                               : random.oneIn(4) ? "[]"
                                                                 : "";
            const uint32_t level = levels[random.below(3)];
            SCOPED_TRACE(data + " override " + configOverride);
            ASSERT_EQ(textOrCode([&] { return preset.getEventPayload(data, level, configOverride); }),
                      textOrCode([&] { return plain.getEventPayload(data, level, configOverride); }));
        }
    }
}

// The names are what services look for. What the system does not tell is left out, so some may be missing.
TEST(SystemAttributes, StandUnderTheirNamesInTheirOrder) {
    const auto expectNames = [](const JsonValue& object, std::vector<std::string> known) {
        auto next = known.begin();
        for (const auto& [name, value] : object.GetObject()) {
            next = std::find(next, known.end(), name.GetString());
            ASSERT_NE(next++, known.end()) << name.GetString();
        }
        EXPECT_GE(object.MemberCount(), 2U);
    };
    const auto parsed = [](const std::string& text) {
        JsonDocument document;
        EXPECT_FALSE(parseValue(document, text).IsError());
        return document;
    };
    expectNames(parsed(makeDeviceFragment())["entity.device"],
                {"cpu_processor", "cpu_num_cores", "cpu_speed", "device_guid", "device_resolution", "hdd_size",
                 "nic_guid", "ram_size", "pen_touch"});
    expectNames(parsed(makeSourceFragment())["entity.source"], {"device", "platform", "os_version"});
    expectNames(parsed(makeEventFragment(SourceCategory::desktop)),
                {"entity.datasdk", "event.device_guid", "source.device", "source.platform", "source.os_version",
                 "event.category"});
}

TEST_F(EventPresetTest, BatchAttributesGiveTheTextOfThePlainSteps) {
    RandomJson random(test::seed());
    for (int round = 0; round < 150; ++round) {
        EventPreset preset(provider_);
        std::string userAgent = "{}";
        if (random.oneIn(2)) {
            preset.updateUserAgent();
            userAgent = makeUserAgentFragment();
        }
        if (std::string known; sysinfo::getUserAgent(known)) {
            EventWriter(&userAgent).set("entity.env", EventWriter::Pairs{{"user_agent", known}}).finish();
        }
        std::vector<std::string> fragments{userAgent};
        if (random.oneIn(2)) {
            Profile profile{"type1", {"de", "en"}, {{"i", "code", "level", ""}}, "user", "", "yes"};
            if (random.oneIn(2)) profile.serviceAccounts.clear();
            preset.setProfile(profile);
            fragments.push_back(makeIdentityFragment(profile));
        }
        if (random.oneIn(2)) {
            preset.setLorneProfile({{"a", "1"}, {"b", "\""}});
            fragments.push_back(makeLorneFragment({{"a", "1"}, {"b", "\""}}));
        }
        const bool includeIdentity = random.oneIn(2);
        if (!includeIdentity) fragments.resize(1);
        const std::string event = random.oneIn(20)  ? random.value()
                                  : random.oneIn(2) ? random.object()
                                                    : preset.getEventPayload(random.object(), 0, random.object());
        SCOPED_TRACE(event);
        ASSERT_EQ(preset.applyBatchAttributes(event, includeIdentity),
                  PlainPreset::applyBatchAttributes(event, fragments));
        std::string tried = event;
        ASSERT_EQ(preset.tryApplyBatchAttributes(tried, includeIdentity), validJSON(event));
    }
}

TEST_F(EventPresetTest, EnvelopeHoldsWhatTheConfigurationSays) {
    const std::string text = masked(payload(R"({"a":1})"));
    EXPECT_EQ(text.substr(0, text.find(",\"data\"")),
              R"({"project":"pro\"ject","environment":"stage","ingesttype":"velmora","time":"TIME")");
    EXPECT_NE(text.find(R"("entity.datasdk":{"version":"1.36.0+20230314"})"), std::string::npos);
    const std::string overridden =
        masked(payload("{}", 0, R"({"time":"x","extra":[1],"data":{"a":1,"event.guid":2}})"));
    EXPECT_NE(overridden.find(R"("time":"x","extra":[1],"data":{"a":1,"event.guid":"GUID",)"), std::string::npos);
}

TEST_F(EventPresetTest, EmptyProjectIsLeftOut) {
    Config config;
    config.project.clear();
    provider_.updateConfig(config);
    EventPreset preset(provider_);
    EXPECT_EQ(preset.getEventPayload("{}", 0, "").rfind(R"({"environment":)", 0), 0u);
}

TEST_F(EventPresetTest, RefusesCommonAttributesThatBreakTheJson) {
    preset_.setCommonAttribute("a", "1");
    EXPECT_THROW(preset_.setCommonAttribute("b", "\""), std::system_error);
    EXPECT_THROW(preset_.setCommonAttribute("b\\", "1"), std::system_error);
    EXPECT_THROW(preset_.setCommonAttributes({{"b", "fine"}, {"c", "\n"}}), std::system_error);
    EXPECT_EQ(preset_.getCommonAttributes(), (EventPreset::StringMap{{"a", "1"}}));
    preset_.setCommonAttributes({{"a", "2"}, {"b", "3"}});
    EXPECT_EQ(member(payload("{}"), "a"), "1");
    EXPECT_EQ(member(payload("{}"), "b"), "3");
    preset_.setCommonAttribute("a", "2");
    preset_.removeCommonAttribute("b");
    EXPECT_EQ(member(payload("{}"), "a"), "2");
    EXPECT_EQ(member(payload("{}"), "b"), "none");
}

TEST_F(EventPresetTest, SessionGuidIsReplacedAndNeverEmptied) {
    for (const char* guid : {"first", "second", ""}) preset_.setSessionGuid(guid);
    EXPECT_EQ(member(payload("{}"), "event.session_guid"), "second");
}

TEST_F(EventPresetTest, IdentityIsThatOfTheBatch) {
    const std::string stored = payload(R"({"event.user_guid":"mine"})");
    preset_.setProfile(Profile{"type1", {"de", "en"}, {{"i", "code", "level", ""}}, "user", "", "yes"});
    preset_.setLorneProfile({{"k", "v"}});
    const std::string sent = preset_.applyBatchAttributes(stored, true);
    EXPECT_EQ(member(sent, "event.user_guid"), "user");
    EXPECT_EQ(member(sent, "user.service_level"), "level");
    EXPECT_EQ(member(sent, "user.service_status"), "none");
    EXPECT_EQ(member(sent, "entity.lorne"), R"({"k":"v"})");
    EXPECT_EQ(member(sent, "entity.oswin"),
              R"({"accounttype":"type1","lang":"de","service_code":"code","service_level":"level",)"
              R"("service_status":"","mrkt_perm":"","mrkt_perm_email":"yes"})");
    EXPECT_EQ(member(preset_.applyBatchAttributes(stored, false), "event.user_guid"), "mine");
    preset_.clearProfile();
    EXPECT_EQ(member(preset_.applyBatchAttributes(stored, true), "entity.oswin"), "none");
}

TEST_F(EventPresetTest, TakesOnlyWhatTheBatchCanReadAgain) {
    const auto nested = [](size_t levels) {
        return "{\"a\":" + std::string(levels - 1, '[') + "1" + std::string(levels - 1, ']') + "}";
    };
    std::string deepest = payload(nested(kMaxNesting - 1), 1);
    EXPECT_TRUE(preset_.tryApplyBatchAttributes(deepest, true));
    EXPECT_THROW(payload(nested(kMaxNesting)), std::system_error);
}

TEST_F(EventPresetTest, SettersMayRunBesideSubmissions) {
    std::atomic<bool> done{false};
    std::thread setter([&] {
        for (int i = 0; !done; ++i) {
            preset_.setCommonAttribute("a", std::to_string(i % 10));
            preset_.setProfile(Profile{"t", {}, {}, std::to_string(i), "", ""});
            preset_.setSessionGuid(std::to_string(i));
            provider_.updateConfig(exampleConfig());
        }
    });
    for (int i = 0; i < 300; ++i) {
        const std::string sent = preset_.applyBatchAttributes(payload(R"({"event.type":"open"})", 1), true);
        EXPECT_EQ(member(sent, "event.type"), "open");
    }
    done = true;
    setter.join();
}

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
