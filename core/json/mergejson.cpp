#include "core/json/mergejson.h"

#include <array>
#include <cstddef>

#include "core/json/jsonparser.h"
#include "core/json/jsontext.h"
#include "core/json/validjson.h"
#include "core/types/errors.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

using Allocator = rapidjson::Document::AllocatorType;

// Moves the members of `extra` over; both objects live in the allocator.
void moveMembers(rapidjson::Value& data, rapidjson::Value& extra, Allocator& allocator) {
    for (auto& [name, value] : extra.GetObject()) {
        const auto present = data.FindMember(name);
        if (present == data.MemberEnd()) {
            data.AddMember(name, value, allocator);
        } else if (present->value.IsObject() && value.IsObject()) {
            moveMembers(present->value, value, allocator);
        } else {
            present->value = value;
        }
    }
}

void appendQuoted(std::string& out, const std::string& text) { out.append(1, '"').append(text).append(1, '"'); }

}  // namespace

void mergeObjects(rapidjson::Value& data, const rapidjson::Value& extra, Allocator& allocator) {
    rapidjson::Value copy(extra, allocator);
    moveMembers(data, copy, allocator);
}

void mergeJSON(std::string& data, const std::string& extra) {
    alignas(std::max_align_t) std::array<char, 16384> memory;  // holds a usual event, so that the heap is not asked
    Allocator allocator(memory.data(), memory.size());
    rapidjson::Document target(&allocator);
    if (!parseObject(target, data)) {
        VELMORA_LOG(warn, "json") << "invalid json data=" << data;
        data = "{}";
        target.SetObject();
    }
    rapidjson::Document addition(&allocator);
    if (!parseObject(addition, extra)) {
        VELMORA_LOG(warn, "json") << "invalid json extra=" << extra;
        return;
    }
    moveMembers(target, addition, allocator);
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
        appendQuoted(json, key);
        json += ':';
        appendQuoted(json, value);
    }
    return json.empty() ? "{}" : json + "}";
}

}  // namespace velmora
