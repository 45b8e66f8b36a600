// Merging of JSON object texts.
#pragma once

#include <rapidjson/document.h>

#include <string>
#include <unordered_map>

namespace velmora {

// Lays the members of `extra` over those of `data`: two objects of one name are merged by this same rule, any other
// value replaces the first member of that name in its place, a new name is appended. Arrays are replaced as a whole.
// The result is compact. An invalid `data` is logged and counts as "{}"; an invalid `extra` is logged and leaves `data`
// as it is, without reformatting. Never fails: `data` ends up valid.
void mergeJSON(std::string& data, const std::string& extra);

// The rule itself, on parsed values; both have to be objects. Copies go to the allocator; only strings that `extra`
// merely refers to (StringRef) stay where they are.
void mergeObjects(rapidjson::Value& data, const rapidjson::Value& extra, rapidjson::Document::AllocatorType& allocator);

// The string members of an object; other members are dropped. Throws `invalid_json`, or a "json_error" code.
[[nodiscard]] std::unordered_map<std::string, std::string> jsonToStringMap(const std::string& json);

// Keys and values are copied as they are, without any escaping: their content is the caller's responsibility.
[[nodiscard]] std::string stringMapToJson(const std::unordered_map<std::string, std::string>& map);

}  // namespace velmora
