#include "ingest/event/conversion/transformrule.h"

#include "core/json/jsontext.h"
#include "ingest/event/conversion/keyfilter.h"
#include "ingest/event/conversion/patternrule.h"
#include "ingest/event/conversion/rewriterule.h"

namespace velmora {

std::unique_ptr<TransformRule> makeTransformRule(const service::ingest::Rule& rule,
                                                 std::shared_ptr<const KeySet> outKeys) {
    if (findOption(rule, "non-standard-keys")) return std::make_unique<KeyFilter>(rule, std::move(outKeys));
    const std::string* const rewrite = findOption(rule, "search-replace-substrings");
    if (rewrite && *rewrite == "true") return std::make_unique<RewriteRule>(rule);
    return std::make_unique<PatternRule>(rule);
}

const std::string* findOption(const service::ingest::Rule& rule, const std::string& name) {
    const auto it = rule.options.find(name);
    return it == rule.options.end() ? nullptr : &it->second;
}

std::string_view ruleText(const JsonValue& value, CaptureSet& captures) {
    return value.IsString() ? viewOf(value) : captures.keep(serialize(value));
}

void addText(JsonValue& document, std::string_view key, std::string_view text, TransformRule::Allocator& allocator) {
    JsonValue name(key.data(), static_cast<rapidjson::SizeType>(key.size()), allocator);
    JsonValue value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
    document.AddMember(name, value, allocator);
}

void eraseKey(JsonValue& document, const std::string& key) {
    const auto member = document.FindMember(key);
    if (member != document.MemberEnd()) document.EraseMember(member);
}

}  // namespace velmora
