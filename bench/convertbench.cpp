// The conversion of a legacy event through a table of 200 rules, beside its floor: the matching of the same expressions
// with the same values, with nothing around it. Budget: twice the floor.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <boost/regex.hpp>
#include <string>
#include <vector>

#include "core/json/jsontext.h"
#include "ingest/event/conversion/ruletable.h"

namespace velmora {
namespace {

constexpr int kRules = 200;

// A rule asks for two keys of the event; only the last rule matches, so all of them see the values.
std::string tableText() {
    std::string csv = "CONFIG,IN_component,IN_action,OUT_event.workflow,OUT_event.type\n";
    for (int i = 0; i < kRules; ++i) {
        const std::string component =
            i == kRules - 1 ? "(panel)[-.](.+)" : "(panel|dialog)" + std::to_string(i) + "[-.](.+)";
        csv += ",\"" + component + "\",(open|close)-?([a-z]*),$1-" + std::to_string(i) + ",$3 $+{user.plan}\n";
    }
    return csv;
}

service::ingest::Mapping mapping() {
    service::ingest::Mapping mapping;
    service::ingest::loadFromText(tableText(), "table", mapping);
    return mapping;
}

const std::string kEvent =
    R"({"component":"panel-export.settings","action":"open-file","user.plan":"trial","language":"en-US",)"
    R"("version":"12.4.1","os":"linux","count":3,"elapsed":127,"window":"main","document":"untitled"})";

void BM_Convert(benchmark::State& state) {
    const RuleTable table(mapping());
    for (auto _ : state) {
        JsonDocument event;
        if (!parseObject(event, kEvent) || !table.applyAll(event)) state.SkipWithError("not converted");
        benchmark::DoNotOptimize(serialize(event));
    }
}
BENCHMARK(BM_Convert);

void BM_ConvertFloor(benchmark::State& state) {
    std::vector<std::vector<boost::regex>> rules;
    for (const auto& rule : mapping().rules) {
        auto& expressions = rules.emplace_back();
        for (const auto& [key, expression] : rule.in) expressions.emplace_back(expression);
    }
    for (auto _ : state) {
        const std::string component = "panel-export.settings";
        const std::string action = "open-file";
        int matched = 0;
        boost::smatch match;
        for (const auto& rule : rules) {
            matched += boost::regex_match(component, match, rule[0]) && boost::regex_match(action, match, rule[1]);
        }
        benchmark::DoNotOptimize(matched);
    }
}
BENCHMARK(BM_ConvertFloor);

}  // namespace
}  // namespace velmora
