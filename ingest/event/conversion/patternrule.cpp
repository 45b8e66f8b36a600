#include "ingest/event/conversion/patternrule.h"

#include <algorithm>
#include <unordered_map>

namespace velmora {
namespace {

// Whether "(?<name>" opens a group of just that name. Behind "(?<", an equals sign or an exclamation mark begins an
// assertion, and ">" ends the name.
bool isPlainName(std::string_view name) {
    return !name.starts_with('=') && !name.starts_with('!') && name.find('>') == std::string_view::npos;
}

std::optional<CapturePattern> tryCompile(const std::string& text, bool ignoreCase) {
    try {
        return CapturePattern(text, ignoreCase);
    } catch (const std::exception&) {
        return std::nullopt;  // reported when the rule is applied
    }
}

}  // namespace

// The formats of a rule that has matched, filled in before the document is touched.
class PatternRule::Application {
public:
    Application(const PatternRule& rule, const JsonValue& document, RuleRun& run)
        : rule_(rule), document_(document), run_(run), isPlain_(rule.hasPlainNames_) {}

    // The expressions of the event's own keys. False if one fails, which only a key with a name that is none can. Names
    // with a meaning of their own leave everything to the joint expression.
    [[nodiscard]] bool matchKeys() {
        const auto& members = document_.GetObject();
        if (!std::all_of(members.begin(), members.end(), [](const auto& m) { return isPlainName(viewOf(m.name)); })) {
            isPlain_ = false;
            hasKeys_ = true;
            if (!std::all_of(members.begin(), members.end(), [&](const auto& m) { return matchKey(m.name); })) {
                return false;
            }
        }
        if (isPlain_) return true;
        addKeys();
        run_.captures.prepare();
        return true;
    }

    // Empty if the format refers to a group that is not defined.
    [[nodiscard]] std::optional<std::string> fill(const FormatTemplate& format) {
        const bool isPlain = isPlain_ && format.isPlain();
        if (!isPlain || format.highestNumber() > run_.captures.size()) addKeys();
        for (const FormatTemplate::Reference& reference : format.references()) {
            if (!isDefined(reference)) return std::nullopt;
        }
        if (!isPlain) return run_.captures.format(format.text());
        filled_.clear();
        format.expand(*this);
        return filled_;
    }

    void text(const std::string& text) { filled_ += text; }
    void numbered(size_t number) {
        if (const auto* const capture = run_.captures.numbered(number)) filled_ += capture->text;
    }
    void named(const std::string& name) {
        if (const auto* const value = memberOf(name)) {
            filled_ += ruleText(*value, run_.captures);
        } else if (const auto* const capture = run_.captures.named(name)) {
            filled_ += capture->text;
        }
    }

private:
    [[nodiscard]] bool matchKey(const JsonValue& name) {
        const std::string key(viewOf(name));
        const std::string_view value = ruleText(document_.FindMember(name)->value, run_.captures);
        if (run_.captures.match(CapturePattern("(?<" + key + ">.*)", rule_.ignoreCase_), value, true)) return true;
        run_.failure = RuleRun::Failure::mismatch;
        run_.failedKey = run_.captures.keep(key);
        return false;
    }

    void addKeys() {
        if (hasKeys_) return;
        hasKeys_ = true;
        std::unordered_map<std::string_view, std::string_view> seen;  // of equal keys the first gives the value
        for (const auto& [name, value] : document_.GetObject()) {
            const auto [entry, isNew] = seen.try_emplace(viewOf(name));
            if (isNew) entry->second = ruleText(value, run_.captures);
            run_.captures.add(entry->first, entry->second);
        }
    }

    // Null once the keys are among the captures, which then answer for them.
    [[nodiscard]] const JsonValue* memberOf(const std::string& name) const {
        if (hasKeys_) return nullptr;
        const auto member = document_.FindMember(name);
        return member == document_.MemberEnd() ? nullptr : &member->value;
    }

    [[nodiscard]] bool isDefined(const FormatTemplate::Reference& reference) const {
        if (reference.number == 0 && memberOf(reference.name)) return true;
        const auto* const capture =
            reference.number == 0 ? run_.captures.named(reference.name) : run_.captures.numbered(reference.number);
        return capture && capture->defined;
    }

    const PatternRule& rule_;
    const JsonValue& document_;
    RuleRun& run_;
    bool isPlain_;
    bool hasKeys_ = false;
    std::string filled_;
};

PatternRule::PatternRule(const service::ingest::Rule& rule) {
    const std::string* const caseSensitive = findOption(rule, "case-sensitive-values");
    const std::string* const missingAction = findOption(rule, "missing-key-action");
    const std::string* const missingValue = findOption(rule, "missing-key-value");
    ignoreCase_ = caseSensitive && *caseSensitive == "false";
    skipsMissing_ = missingAction && *missingAction == "skip";
    if (missingValue) missingValue_ = *missingValue;
    for (const auto& [key, text] : rule.in) {
        const Input& input = inputs_.emplace_back(Input{key, text, tryCompile(text, ignoreCase_)});
        if (!input.pattern) continue;
        const auto& names = input.pattern->names;
        hasPlainNames_ = hasPlainNames_ && std::all_of(names.begin(), names.end(), isPlainName);
    }
    for (const auto& [key, format] : rule.out) outputs_.push_back({key, FormatTemplate(format)});
}

bool PatternRule::apply(JsonValue& document, Allocator& allocator, RuleRun& run) const {
    run.captures.clear();
    for (const Input& input : inputs_) {
        if (!matchInput(document, input, run)) return false;
    }
    Application application(*this, document, run);
    if (!application.matchKeys()) return false;
    std::vector<std::pair<const Output*, std::string>> results;
    results.reserve(outputs_.size());
    for (const Output& output : outputs_) {
        if (auto text = application.fill(output.format)) results.emplace_back(&output, std::move(*text));
    }
    for (const Input& input : inputs_) eraseKey(document, input.key);
    for (const auto& [output, text] : results) addText(document, output->key, text, allocator);
    return true;
}

bool PatternRule::matchInput(const JsonValue& document, const Input& input, RuleRun& run) const {
    const auto member = document.FindMember(input.key);
    if (member != document.MemberEnd()) return match(input, ruleText(member->value, run.captures), true, run);
    if (missingValue_) return match(input, *missingValue_, true, run);
    if (!skipsMissing_) return match(input, {}, false, run);
    run.failure = RuleRun::Failure::missing;
    run.failedKey = input.key;
    return false;
}

bool PatternRule::match(const Input& input, std::string_view value, bool hasValue, RuleRun& run) const {
    const bool matched = input.pattern ? run.captures.match(*input.pattern, value, hasValue)
                                       : run.captures.match(CapturePattern(input.text, ignoreCase_), value, hasValue);
    if (matched) return true;
    run.failure = hasValue ? RuleRun::Failure::mismatch : RuleRun::Failure::missing;
    run.failedKey = input.key;
    return false;
}

}  // namespace velmora
