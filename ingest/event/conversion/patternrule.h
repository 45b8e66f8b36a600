// The usual rule: input keys must match expressions, and output keys are written from what these captured.
//
// Every key of the event can be named by a format, as if each had an expression of its own that captures its whole
// value under its name, and captures by number count on over those. These captures are made only when a format asks.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ingest/event/conversion/formattemplate.h"
#include "ingest/event/conversion/transformrule.h"

namespace velmora {

class PatternRule : public TransformRule {
public:
    explicit PatternRule(const service::ingest::Rule& rule);

    [[nodiscard]] bool apply(JsonValue& document, Allocator& allocator, RuleRun& run) const override;

private:
    struct Input {
        std::string key;
        std::string text;
        std::optional<CapturePattern> pattern;  // empty for an expression that does not compile
    };
    struct Output {
        std::string key;
        FormatTemplate format;
    };
    class Application;

    [[nodiscard]] bool matchInput(const JsonValue& document, const Input& input, RuleRun& run) const;
    [[nodiscard]] bool match(const Input& input, std::string_view value, bool hasValue, RuleRun& run) const;

    std::vector<Input> inputs_;
    std::vector<Output> outputs_;
    bool ignoreCase_ = false;
    bool skipsMissing_ = false;
    bool hasPlainNames_ = true;  // no name of an expression would change the meaning of a group that declares it
    std::optional<std::string> missingValue_;
};

}  // namespace velmora
