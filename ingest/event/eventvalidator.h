// Checks an event's attributes against the validation rules of the configuration, and fills in the defaults of required
// attributes that are missing.
#pragma once

#include "core/json/jsontext.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/types/mutex.h"
#include "service/config/ingestconfigprovider.h"

namespace velmora {

// The levels with a meaning of their own; any other validates always.
inline constexpr uint32_t kValidateNone = 0;
inline constexpr uint32_t kValidateAsConfigured = 0xFFFFFFFF;

// What the rules see of an event.
class AttributeView {
public:
    virtual ~AttributeView() = default;

    // The first attribute of that name, null if there is none. Valid until the next add().
    [[nodiscard]] virtual const JsonValue* find(std::string_view name) const = 0;

    // Appends a text attribute; both texts are copied.
    virtual void add(std::string_view name, std::string_view value) = 0;
};

// Threads: any. No lock is held while matching: the rules are shared, immutable values. An update of the configuration
// takes effect with the next event.
class EventValidator {
public:
    explicit EventValidator(const IngestConfigProvider& config);
    ~EventValidator();

    // Throws `invalid_json` if the text is no JSON object, at every level, and `invalid_event_format` at the first rule
    // that fails. The text is reformatted and may have defaults added, also if it throws the latter.
    void validate(std::string& event, uint32_t level) const;

    // The same, after testing the override: empty counts as "{}", no JSON object throws `invalid_json`.
    void validate(std::string& event, uint32_t level, std::string& configOverride) const;

    // The same on a parsed object, for callers that have one.
    void validate(AttributeView& event, uint32_t level) const;

    // The test of the override alone.
    static void checkOverride(std::string& configOverride);

private:
    class Rules;

    // The rules that an event of this level has to pass; null if it need not pass any.
    [[nodiscard]] std::shared_ptr<const Rules> rulesFor(uint32_t level) const VELMORA_EXCLUDES(mutex_);

    const IngestConfigProvider& config_;
    mutable Mutex mutex_;
    mutable std::shared_ptr<const Rules> rules_ VELMORA_GUARDED_BY(mutex_);
};

}  // namespace velmora
