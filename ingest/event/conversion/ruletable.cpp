#include "ingest/event/conversion/ruletable.h"

#include <stdexcept>

namespace velmora {

RuleTable::RuleTable(service::ingest::Mapping mapping) : mapping_(std::move(mapping)) {
    rules_.reserve(mapping_.rules.size());
    const auto outKeys = std::make_shared<const KeySet>(mapping_.outKeys.begin(), mapping_.outKeys.end());
    for (const service::ingest::Rule& rule : mapping_.rules) rules_.push_back(makeTransformRule(rule, outKeys));
}

bool RuleTable::apply(size_t rule, JsonDocument& document, RuleRun& run) const {
    run.failure = RuleRun::Failure::none;
    run.failedKey = {};
    const bool matched = rules_[rule]->apply(document, document.GetAllocator(), run);
    if (matched && document.GetAllocator().Size() > kMaxMemory) throw std::length_error("event grows without end");
    return matched;
}

bool RuleTable::applyAll(JsonDocument& document) const {
    RuleRun run;
    bool matched = false;
    for (size_t rule = 0; rule < rules_.size(); ++rule) matched = apply(rule, document, run) || matched;
    return matched;
}

}  // namespace velmora
