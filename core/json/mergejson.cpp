#include "core/json/mergejson.h"

#include <array>
#include <cstddef>

#include "core/json/jsonparser.h"
#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

// Moves the members of `extra` over; both objects live in the pool.
void moveMembers(JsonValue& data, JsonValue& extra, JsonPool& pool) {
    MemberIndex present(data);
    for (auto& [name, value] : extra.GetObject()) {
        JsonValue* const found = present.find(viewOf(name));
        if (found == nullptr) {
            present.append(std::move(name), std::move(value), pool);
        } else if (found->IsObject() && value.IsObject()) {
            moveMembers(*found, value, pool);
        } else {
            *found = value;
        }
    }
}

}  // namespace

MemberIndex::MemberIndex(JsonValue& object) : object_(object) {
    for (size_t at = 0; at < object.MemberCount(); ++at) index_.findOrAdd(names()(at), at, names());
}

JsonValue* MemberIndex::find(std::string_view name) const {
    const size_t at = index_.find(name, names());
    return at == NameIndex::kNone ? nullptr : &(object_.MemberBegin() + static_cast<std::ptrdiff_t>(at))->value;
}

void MemberIndex::append(JsonValue name, JsonValue value, JsonPool& pool) {
    object_.AddMember(name, value, pool);
    const size_t at = object_.MemberCount() - 1;
    index_.findOrAdd(names()(at), at, names());
}

void mergeObjects(JsonValue& data, const JsonValue& extra, JsonPool& pool) {
    JsonValue copy(extra, pool);
    moveMembers(data, copy, pool);
}

void mergeJSON(std::string& data, const std::string& extra) {
    alignas(std::max_align_t) std::array<char, 16384> memory;  // holds a usual event, so that the heap is not asked
    JsonPool pool(memory.data(), memory.size());
    JsonDocument target(&pool);
    const bool isValid = parseObject(target, data);
    if (!isValid) {
        VELMORA_LOG(warn, "json") << "invalid json data=" << data;
        target.SetObject();
    }
    JsonDocument addition(&pool);
    if (!parseObject(addition, extra)) {
        VELMORA_LOG(warn, "json") << "invalid json extra=" << extra;
        if (!isValid) data = "{}";
        return;
    }
    moveMembers(target, addition, pool);
    data = serialize(target);
}

std::unordered_map<std::string, std::string> jsonToStringMap(const std::string& json) {
    if (!validJSON(json)) throw std::system_error(VelmoraError::invalid_json);
    std::unordered_map<std::string, std::string> map;
    if (const auto error = JsonParser::parse(json, std::make_shared<StringMapParser>(map))) {
        throw std::system_error(error);
    }
    return map;
}

std::string stringMapToJson(const std::unordered_map<std::string, std::string>& map) {
    std::string json;
    for (const auto& [key, value] : map) {
        json += json.empty() ? '{' : ',';
        json.append(1, '"').append(key).append("\":\"").append(value).append(1, '"');
    }
    return json.empty() ? "{}" : json + "}";
}

}  // namespace velmora
