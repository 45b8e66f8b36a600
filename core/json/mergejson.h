// Merging of JSON objects, and flat maps of strings as JSON.
#pragma once

#include <string>
#include <unordered_map>

#include "core/json/jsontext.h"
#include "core/json/nameindex.h"

namespace velmora {

// Lays the members of `extra` over those of `data`: two objects of one name are merged by this same rule, any other
// value replaces the first member of that name in its place, a new name is appended. Arrays are replaced as a whole.
// The result is compact. An invalid `data` is logged and counts as "{}"; an invalid `extra` is logged and leaves `data`
// as it is, without reformatting. `data` ends up valid. Time is linear in the texts. Throws std::bad_alloc only, and
// then leaves `data` as it was.
void mergeJSON(std::string& data, const std::string& extra);

// The rule itself, on parsed values; both have to be objects. Copies go to the pool; only strings that `extra` merely
// refers to (StringRef) stay where they are.
void mergeObjects(JsonValue& data, const JsonValue& extra, JsonPool& pool);

// The members of an object by name: of equal names the first. The object outlives the index, and gets no members but
// through append().
class MemberIndex {
public:
    explicit MemberIndex(JsonValue& object);

    // Null if there is none. Good until the next append().
    [[nodiscard]] JsonValue* find(std::string_view name) const;

    void append(JsonValue name, JsonValue value, JsonPool& pool);

private:
    [[nodiscard]] auto names() const {
        return [this](size_t at) { return viewOf((object_.MemberBegin() + static_cast<std::ptrdiff_t>(at))->name); };
    }

    JsonValue& object_;
    NameIndex index_;
};

// The string members of an object; other members are dropped, and so are texts that are not UTF-8. Throws
// `invalid_json`, or a "json_error" code.
[[nodiscard]] std::unordered_map<std::string, std::string> jsonToStringMap(const std::string& json);

// Keys and values are copied as they are, without any escaping: their content is the caller's responsibility.
[[nodiscard]] std::string stringMapToJson(const std::unordered_map<std::string, std::string>& map);

}  // namespace velmora
