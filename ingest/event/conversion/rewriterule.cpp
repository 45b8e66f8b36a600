#include "ingest/event/conversion/rewriterule.h"

#include "core/types/logger.h"
#include "core/utils/strings.h"

namespace velmora {
namespace {

constexpr char kChannel[] = "event.transformer";

std::optional<Substitution> tryPrepare(const std::string& command) {
    if (command.ends_with('\\')) return std::nullopt;  // splitting may warn, which belongs to the application
    try {
        return Substitution::parse(command);
    } catch (const std::exception&) {
        return std::nullopt;  // reported when the rule is applied
    }
}

}  // namespace

std::optional<Substitution> Substitution::parse(const std::string& command) {
    const std::vector<std::string> parts = tokenize(command, '/', '\\');
    if (parts.size() != 3 && parts.size() != 4) return std::nullopt;
    const std::string flags = parts.size() == 4 ? parts[3] : std::string();
    const bool ignoreCase = flags.find('i') != std::string::npos;
    Substitution substitution;
    substitution.expression_.assign(parts[1],
                                    ignoreCase ? boost::regex::perl | boost::regex::icase : boost::regex::perl);
    substitution.replacement_ = parts[2];
    substitution.replacesAll_ = flags.find('g') != std::string::npos;
    return substitution;
}

std::string Substitution::apply(const std::string& value) const {
    const auto flags = replacesAll_ ? boost::format_perl : boost::format_perl | boost::format_first_only;
    return boost::regex_replace(value, expression_, replacement_, flags);
}

RewriteRule::RewriteRule(const service::ingest::Rule& rule) {
    if (const std::string* const missingValue = findOption(rule, "missing-key-value")) missingValue_ = *missingValue;
    for (const auto& [key, command] : rule.in) commands_.push_back({key, command, tryPrepare(command)});
}

bool RewriteRule::apply(JsonValue& document, Allocator& allocator, RuleRun& run) const {
    run.captures.clear();
    for (const Command& command : commands_) transformInPlaceHelper(command, document, allocator, run);
    return true;
}

void RewriteRule::transformInPlaceHelper(const Command& command, JsonValue& document, Allocator& allocator,
                                         RuleRun& run) const {
    const auto member = document.FindMember(command.key);
    const bool isPresent = member != document.MemberEnd();
    if (!isPresent && !missingValue_) {
        VELMORA_LOG(warn, kChannel) << "skipping in-place substitution for absent key=" << command.key;
        return;
    }
    const std::string value = isPresent ? std::string(ruleText(member->value, run.captures)) : *missingValue_;
    const auto parsed = command.prepared ? std::nullopt : Substitution::parse(command.text);
    if (!command.prepared && !parsed) {
        VELMORA_LOG(warn, kChannel) << "skipping invalid substitution command=" << command.text
                                    << " for absent key=" << command.key;
        return;
    }
    const std::string result = (command.prepared ? *command.prepared : *parsed).apply(value);
    eraseKey(document, command.key);
    addText(document, command.key, result, allocator);
}

}  // namespace velmora
