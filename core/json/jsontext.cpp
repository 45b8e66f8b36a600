#include "core/json/jsontext.h"

#include <rapidjson/stringbuffer.h>

#include "core/json/parsetext.h"
#include "core/json/textwriter.h"
#include "core/json/validjson.h"

namespace velmora {
namespace {

constexpr size_t kUsualTextSize = 4096;

std::string textOf(const rapidjson::StringBuffer& buffer) { return {buffer.GetString(), buffer.GetSize()}; }

}  // namespace

rapidjson::ParseResult parseValue(rapidjson::Document& document, const std::string& text, int maxNesting) {
    rapidjson::ParseResult result;
    const auto generator = [&](rapidjson::Document& target) {
        NestingLimit<rapidjson::Document> limited(target, maxNesting);
        result = readText(text, limited);
        return !result.IsError();
    };
    document.SetNull();
    document.Populate(generator);
    return result;
}

bool parseObject(rapidjson::Document& document, const std::string& text, int maxNesting) {
    const rapidjson::ParseResult result = parseValue(document, text, maxNesting);
    if (!result.IsError() && document.IsObject()) return true;
    logInvalidJson(text, result);
    return false;
}

std::string toText(const rapidjson::Value& value) {
    return value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : serialize(value);
}

std::string serialize(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer(nullptr, kUsualTextSize);
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    if (holdsLateControls(buffer.GetString(), buffer.GetSize())) {
        buffer.Clear();
        TextWriter escaping(buffer);
        value.Accept(escaping);
    }
    return textOf(buffer);
}

std::string serializePretty(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer(nullptr, kUsualTextSize);
    PrettyTextWriter writer(buffer);
    writer.SetIndent(' ', 4);
    value.Accept(writer);
    return textOf(buffer);
}

std::string prettyPrint(const std::string& json) {
    rapidjson::Document document;
    return parseValue(document, json).IsError() ? json : serializePretty(document);
}

}  // namespace velmora
