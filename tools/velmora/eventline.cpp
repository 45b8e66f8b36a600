#include "tools/velmora/eventline.h"

#include "core/json/jsontext.h"

#include "core/utils/strings.h"

namespace velmora::tool {
namespace {

constexpr const char* kGuidKey = "event.guid";

// The object's text with one more member at its front; numbers and the rest of the host's text stay as they are.
std::string withGuid(const std::string& object, bool isEmpty, const std::string& guid) {
    const size_t brace = object.find('{');
    return "{\"" + std::string(kGuidKey) + "\":\"" + guid + (isEmpty ? "\"" : "\",") + object.substr(brace + 1);
}

std::string validUtf8(const std::string& text) {
    std::string valid;
    rapidjson::StringStream in(text.c_str());
    while (in.Tell() < text.size()) {
        JsonBuffer character;
        const bool isValid = rapidjson::UTF8<>::Validate(in, character);
        valid += isValid ? std::string(character.GetString(), character.GetSize()) : "?";
    }
    return valid;
}

}  // namespace

EventLine identifiedEvent(const std::string& line) {
    JsonDocument document;
    if (parseValue(document, line).IsError() || !document.IsObject()) return {line, ""};
    const auto own = document.FindMember(kGuidKey);
    if (own != document.MemberEnd()) return {line, own->value.IsString() ? own->value.GetString() : ""};
    std::string guid = makeGuid();
    return {withGuid(line, document.ObjectEmpty(), guid), guid};
}

EventLine eventOfText(const std::string& line, const std::string& workflow) {
    const std::string guid = makeGuid();
    const std::pair<const char*, std::string> members[] = {{kGuidKey, guid},
                                                           {"event.workflow", validUtf8(workflow)},
                                                           {"event.subcategory", "Text"},
                                                           {"event.type", "line"},
                                                           {"event.value", validUtf8(line)}};
    JsonBuffer buffer;
    JsonTextWriter writer(buffer);
    writer.StartObject();
    for (const auto& [key, value] : members) {
        writer.Key(key);
        writer.String(value);
    }
    writer.EndObject();
    return {{buffer.GetString(), buffer.GetSize()}, guid};
}

}  // namespace velmora::tool
