// Random tables and events: the prepared rules give what the definition of the transformation gives.
#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "core/json/jsontext.h"
#include "core/types/text.h"
#include "ingest/event/conversion/ruletable.h"
#include "tests/ingest/event/conversion/naivetransformer.h"
#include "tests/support/seed.h"

namespace velmora {
namespace {

using service::ingest::Mapping;

class Generator {
public:
    explicit Generator(unsigned seed) : random_(seed) {}

    Mapping mapping() {
        Mapping mapping;
        for (int i = below(4) + 1; i > 0; --i) mapping.rules.push_back(rule());
        mapping.outKeys = {"b", "out"};
        return mapping;
    }

    std::string event() {
        static const std::vector<std::string> kValues = {
            R"("x")", R"("xy")", R"("")",  R"("Xa.b")", R"("a\\b/c")", "12",    "true",         R"("o(o)[1]$^|")",
            "null",   "-1.5",    R"(" ")", R"("a\nb")", R"("äö")",     "[1,2]", R"({"k":"v"})", R"("x-#{}*+?,")"};
        std::string members;
        for (int i = below(6); i > 0; --i) {
            members += (members.empty() ? "" : ",") + ("\"" + key() + "\":") + pick(kValues);
        }
        return "{" + members + "}";
    }

private:
    int below(int limit) { return std::uniform_int_distribution<>(0, limit - 1)(random_); }
    const std::string& pick(const std::vector<std::string>& texts) {
        return texts[static_cast<size_t>(below(static_cast<int>(texts.size())))];
    }

    std::string key() {
        static const std::vector<std::string> kKeys = {"a", "b", "c", "event.w", "n"};
        static const std::vector<std::string> kOddKeys = {"k>x", "k>.", "=a", "!a", "", "a b", "(", "k>(?<=x>)"};
        return below(40) == 0 ? pick(kOddKeys) : pick(kKeys);
    }

    service::ingest::Rule rule() {
        static const std::vector<std::string> kPatterns = {
            ".*",         "(.*)",           "(.)(.*)",    "x|(y)|(.+)",    "(?<n>.*)",      "(?<m>x?)(.*)", "[a-z]*",
            "(?i:x)(.*)", "(?<p>.)?(?:.*)", "(x)?(y)?.*", R"((.*)\\(.*))", R"((\W*)(.*?))", "(?<n>.)|(.*)"};
        static const std::vector<std::string> kOddPatterns = {"(", "(?<=x)(?<n>.*)", "(?<=>)x|.*", "(?<!y)(?<q>.*)",
                                                              R"(\?<r>|.*)"};
        static const std::vector<std::string> kFormats = {
            "$1",  "$2-$1",    "$3$4", "text",   "$+{n}", "$+{a}/$+{m}", "$$1",   "$$$1", "$+{event.w}", "${1}x${7}",
            "$&",  "\\U$1\\E", "$+",   "$10",    "$0",    "a$",          "$+{k}", "$`$'", "\\n$+{b}",    "$+{missing}",
            "$01", "$MATCH",   "\\1",  "$+{p}z", "$+{}",  "$x",          "${1",   "$5",   "$+{=x)(?<n}", "$6$2"};
        static const std::vector<std::string> kCommands = {"s/x/y/", "s/(.)(.)/$2$1/g", "s/O/0/i",
                                                           "s/x",    "s/(/x/",          R"(s/\\W/\\\\/g)"};
        service::ingest::Rule rule;
        static const std::vector<std::string> kOptions[] = {{"case-sensitive-values", "false"},
                                                            {"missing-key-action", "skip"},
                                                            {"missing-key-value", "xy"},
                                                            {"missing-key-value", ""}};
        for (const auto& option : kOptions) {
            if (below(4) == 0) rule.options[option[0]] = option[1];
        }
        const bool rewrites = below(8) == 0;
        if (rewrites) rule.options["search-replace-substrings"] = "true";
        if (below(12) == 0) rule.options["non-standard-keys"] = below(2) == 0 ? "include" : "exclude";
        for (int i = below(4); i > 0; --i) {
            rule.in.emplace_back(key(), rewrites ? pick(kCommands) : pick(below(30) == 0 ? kOddPatterns : kPatterns));
        }
        for (int i = below(4); i > 0; --i) rule.out.emplace_back(below(3) == 0 ? key() : "out", pick(kFormats));
        rule.inCount = static_cast<unsigned>(rule.in.size());
        return rule;
    }

    std::mt19937 random_;
};

std::string describe(const Mapping& mapping) {
    std::string text;
    for (const auto& rule : mapping.rules) {
        for (const auto& [key, value] : rule.options) text += key + "=" + value + ";";
        for (const auto& [key, value] : rule.in) text += "\n  in " + key + " : " + value;
        for (const auto& [key, value] : rule.out) text += "\n  out " + key + " : " + value;
        text += "\n";
    }
    return text;
}

std::string transformPrepared(const RuleTable& table, const std::string& event) {
    JsonDocument document;
    if (!parseObject(document, event)) return "invalid";
    try {
        return table.applyAll(document) ? serialize(document) : "unmatched";
    } catch (const std::exception&) {
        return "failed";
    }
}

TEST(EventTransformerDifferential, PreparedRulesGiveWhatTheDefinitionGives) {
    const unsigned seed = test::seed();
    Generator generator(seed);
    for (int i = 0; i < 400 && !testing::Test::HasFailure(); ++i) {
        const Mapping mapping = generator.mapping();
        const RuleTable table(mapping);
        for (int j = 0; j < 4; ++j) {
            const std::string event = generator.event();
            const std::string result = transformPrepared(table, event);
            if (!isUtf8(result))
                continue;  // an expression took a character apart, which the definition can't read again
            EXPECT_EQ(result, test::transformNaively(mapping, event)) << event << "\n" << describe(mapping);
        }
    }
}

}  // namespace
}  // namespace velmora
