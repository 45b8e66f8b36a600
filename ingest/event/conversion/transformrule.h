// One rule of a mapping table, made ready: expressions, formats and commands are read once and applied to many events.
#pragma once

#include "core/json/jsontext.h"

#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "ingest/event/conversion/captureset.h"
#include "service/ingest/mapping.h"

namespace velmora {

// What the applications of one caller share: working memory, and why the last rule did not match. One per thread.
struct RuleRun {
    enum class Failure { none, missing, mismatch };

    CaptureSet captures;
    Failure failure = Failure::none;
    std::string_view failedKey;  // until the next application
};

// Immutable and shared by all threads.
class TransformRule {
public:
    using Allocator = JsonPool;

    virtual ~TransformRule() = default;

    // Applies the rule to the document, which must be an object; true if it matched. A rule whose expression is wrong
    // throws when it comes to that expression, and so does a match that explodes (boost::regex_error, std::exception).
    [[nodiscard]] virtual bool apply(JsonValue& document, Allocator& allocator, RuleRun& run) const = 0;
};

// The keys of a table's output columns, shared by its rules.
using KeySet = std::set<std::string, std::less<>>;

// The kind of rule follows from the options. Never throws for a bad rule.
[[nodiscard]] std::unique_ptr<TransformRule> makeTransformRule(const service::ingest::Rule& rule,
                                                               std::shared_ptr<const KeySet> outKeys);

// The value of an option, or null.
[[nodiscard]] const std::string* findOption(const service::ingest::Rule& rule, const std::string& name);

// The text of a member as rules see it: the characters of a string, the compact JSON text of anything else. It lives as
// long as the document and the set stay untouched.
[[nodiscard]] std::string_view ruleText(const JsonValue& value, CaptureSet& captures);

// Appends a string member; one of that name that is there already is not looked for.
void addText(JsonValue& document, std::string_view key, std::string_view text, TransformRule::Allocator& allocator);

// Removes the first member of that name, if any; the others keep their order.
void eraseKey(JsonValue& document, const std::string& key);

}  // namespace velmora
