// Checks an event's attributes against the validation rules of the configuration, and fills in the defaults of required
// attributes that are missing.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <string>

#include "service/config/ingestconfigprovider.h"

namespace velmora {

// The levels with a meaning of their own; any other validates always.
inline constexpr uint32_t kValidateNone = 0;
inline constexpr uint32_t kValidateAsConfigured = 0xFFFFFFFF;

// Threads: any. No lock is held while matching: the rules are shared, immutable values.
class EventValidator {
public:
    explicit EventValidator(const IngestConfigProvider& config) : config_(config) {}

    // Throws `invalid_json` if the text is no JSON object, at every level, and `invalid_event_format` at the first rule
    // that fails. The text is reformatted and may have defaults added, also if it throws the latter.
    void validate(std::string& event, uint32_t level) const;

    // The same, after testing the override: empty counts as "{}", no JSON object throws `invalid_json`.
    void validate(std::string& event, uint32_t level, std::string& configOverride) const;

    // The same on a parsed object, for callers that have one. True if the rules were visited at all.
    bool validate(rapidjson::Document& event, uint32_t level) const;

private:
    const IngestConfigProvider& config_;
};

}  // namespace velmora
