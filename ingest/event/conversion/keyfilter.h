// Drops keys that are not part of the standard data model, or copies them together into one member.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ingest/event/conversion/transformrule.h"

namespace velmora {

// A key is standard if it is one of the table's output keys or begins with a prefix of the model.
class KeyFilter : public TransformRule {
public:
    KeyFilter(const service::ingest::Rule& rule, std::shared_ptr<const KeySet> outKeys);

    // Matches if a key was erased or, with keys to include, if the rule names a place for them. Throws
    // std::length_error before members are nested deeper than a document may be.
    [[nodiscard]] bool apply(JsonValue& document, Allocator& allocator, RuleRun& run) const override;

private:
    [[nodiscard]] bool isStandard(std::string_view key) const;
    [[nodiscard]] bool exclude(JsonValue& document) const;
    [[nodiscard]] bool include(JsonValue& document, Allocator& allocator) const;

    std::shared_ptr<const KeySet> outKeys_;
    std::vector<std::string> targets_;
    bool excludes_;
    bool includes_;
};

}  // namespace velmora
