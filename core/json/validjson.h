// The one question about JSON that the entry points ask before anything else.
#pragma once

#include <rapidjson/error/error.h>

#include <string>

namespace velmora {

// Whether the text parses and its root is an object. A UTF-8 byte order mark at the start is skipped. A no is logged at
// warn on channel "json" with the parser's message and the offset.
[[nodiscard]] bool validJSON(const std::string& text);

// The same with any root.
[[nodiscard]] bool validJSONValue(const std::string& text);

// The line of a no.
void logInvalidJson(const std::string& text, const rapidjson::ParseResult& result);

}  // namespace velmora
