// A mapping table made ready for use. Immutable; one table serves all threads.
#pragma once

#include <memory>
#include <vector>

#include "ingest/event/conversion/transformrule.h"

namespace velmora {

class RuleTable {
public:
    // Never throws for bad rules: they fail when they are applied.
    explicit RuleTable(service::ingest::Mapping mapping);

    [[nodiscard]] const service::ingest::Mapping& mapping() const noexcept { return mapping_; }
    [[nodiscard]] size_t size() const noexcept { return rules_.size(); }

    // Applies one rule to an object; true if it matched. Throws what the rule throws, and std::length_error once a
    // document has taken more than kMaxMemory.
    [[nodiscard]] bool apply(size_t rule, JsonDocument& document, RuleRun& run) const;

    // All rules in their order, each on what the earlier ones left; true if one of them matched.
    [[nodiscard]] bool applyAll(JsonDocument& document) const;

    // Keeps tables whose rules multiply what they find from eating the host's memory.
    static constexpr size_t kMaxMemory = size_t{64} << 20;

private:
    service::ingest::Mapping mapping_;
    std::vector<std::unique_ptr<TransformRule>> rules_;
};

}  // namespace velmora
