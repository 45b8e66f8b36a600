#include "ingest/event/eventvalidator.h"

#include <algorithm>
#include <array>
#include <deque>

#include "core/json/jsontext.h"
#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

using service::config::ingest::Config;
using service::config::ingest::ValidationRule;

// The texts that a pattern accepted lately. Most events repeat the same few classifications; to recognise one costs a
// tenth of matching it again.
class AcceptedTexts {
public:
    [[nodiscard]] bool contains(std::string_view text) const {
        const MutexLock lock(mutex_);
        const auto end = texts_.begin() + static_cast<std::ptrdiff_t>(std::min(added_, kKept));
        return std::find(texts_.begin(), end, text) != end;
    }

    void add(std::string_view text) {
        if (text.size() > kLongest) return;
        const MutexLock lock(mutex_);
        texts_[added_++ % kKept] = text;
    }

private:
    static constexpr size_t kKept = 8;
    static constexpr size_t kLongest = 64;

    mutable Mutex mutex_;
    std::array<std::string, kKept> texts_ VELMORA_GUARDED_BY(mutex_);
    size_t added_ VELMORA_GUARDED_BY(mutex_) = 0;
};

// A text that the matcher gives up on, since it would take for ever, does not match.
bool matchesWhole(std::string_view text, const boost::regex& pattern) {
    try {
        return boost::regex_match(text.begin(), text.end(), pattern);
    } catch (const std::runtime_error&) {
        return false;
    }
}

class DocumentView final : public AttributeView {
public:
    explicit DocumentView(JsonDocument& document) : document_(document) {}

    [[nodiscard]] const JsonValue* find(std::string_view name) const override {
        const auto length = static_cast<rapidjson::SizeType>(name.size());
        const auto member = document_.FindMember(JsonValue(rapidjson::StringRef(name.data(), length)));
        return member == document_.MemberEnd() ? nullptr : &member->value;
    }

    void add(std::string_view name, std::string_view value) override {
        document_.AddMember(copy(name), copy(value), document_.GetAllocator());
    }

private:
    JsonValue copy(std::string_view text) {
        return {text.data(), static_cast<rapidjson::SizeType>(text.size()), document_.GetAllocator()};
    }

    JsonDocument& document_;
};

[[noreturn]] void throwInvalidFormat() { throw std::system_error(VelmoraError::invalid_event_format); }

}  // namespace

// The rules of one record of the configuration, with what their patterns have accepted.
class EventValidator::Rules {
public:
    explicit Rules(std::shared_ptr<const Config> config) : config_(std::move(config)) {
        for (const auto& [name, rule] : config_->validationRules) rules_.emplace_back(name, rule);
    }

    [[nodiscard]] bool areOf(const std::shared_ptr<const Config>& config) const { return config_ == config; }

    // Stops at the first rule that fails.
    [[nodiscard]] bool pass(AttributeView& event) const {
        return std::all_of(rules_.begin(), rules_.end(), [&](const Rule& rule) {
            if (rule.passes(event)) return true;
            VELMORA_LOGF_AT(warn, "event.validator", "velmora::EventValidator::validate", "Invalid attribute: %s",
                            rule.name.c_str());
            return false;
        });
    }

private:
    struct Rule {
        Rule(const std::string& attribute, const ValidationRule& from)
            : name(attribute), rule(from), acceptsAll(from.pattern.str() == ".*") {}

        [[nodiscard]] bool passes(AttributeView& event) const {
            const JsonValue* const value = event.find(name);
            if (value != nullptr) return accepts(*value);
            if (!rule.required) return true;
            if (rule.defaultValue.empty()) return false;
            event.add(name, rule.defaultValue);
            return true;
        }

        [[nodiscard]] bool accepts(const JsonValue& value) const {
            if (acceptsAll) return true;
            if (!value.IsString()) return accepts(std::string_view(toText(value)));
            return accepts(std::string_view(value.GetString(), value.GetStringLength()));
        }

        [[nodiscard]] bool accepts(std::string_view text) const {
            if (accepted.contains(text)) return true;
            if (!matchesWhole(text, rule.pattern)) return false;
            accepted.add(text);
            return true;
        }

        const std::string& name;
        const ValidationRule& rule;
        const bool acceptsAll;  // in this syntax the dot takes line ends too
        mutable AcceptedTexts accepted;
    };

    const std::shared_ptr<const Config> config_;
    std::deque<Rule> rules_;
};

EventValidator::EventValidator(const IngestConfigProvider& config) : config_(config) {}
EventValidator::~EventValidator() = default;

std::shared_ptr<const EventValidator::Rules> EventValidator::rulesFor(uint32_t level) const {
    if (level == kValidateNone) return nullptr;
    const std::shared_ptr<const Config> config = config_.snapshot();
    if (level == kValidateAsConfigured && !config->validationFlag) return nullptr;
    const MutexLock lock(mutex_);
    if (!rules_ || !rules_->areOf(config)) rules_ = std::make_shared<Rules>(config);
    return rules_;
}

void EventValidator::validate(std::string& event, uint32_t level) const {
    JsonDocument document;
    if (!parseObject(document, event)) throw std::system_error(VelmoraError::invalid_json);
    const auto rules = rulesFor(level);
    if (!rules) return;
    DocumentView view(document);
    const bool valid = rules->pass(view);
    event = serialize(document);
    if (!valid) throwInvalidFormat();
}

void EventValidator::validate(std::string& event, uint32_t level, std::string& configOverride) const {
    checkOverride(configOverride);
    validate(event, level);
}

void EventValidator::validate(AttributeView& event, uint32_t level) const {
    const auto rules = rulesFor(level);
    if (rules && !rules->pass(event)) throwInvalidFormat();
}

void EventValidator::checkOverride(std::string& configOverride) {
    if (configOverride.empty()) configOverride = "{}";
    if (!validJSON(configOverride)) throw std::system_error(VelmoraError::invalid_json);
}

}  // namespace velmora
