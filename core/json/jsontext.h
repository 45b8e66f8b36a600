// Between JSON texts and RapidJSON values.
//
// Foreign text can't exhaust the stack: parsing does not recurse, and text nested deeper than kMaxNesting is refused
// like any other bad JSON ("Terminate parsing due to Handler error."), which bounds whatever walks the values later.
#pragma once

#include <rapidjson/document.h>

#include <string>

namespace velmora {

constexpr int kMaxNesting = 1000;

// Parses a text into the document, which is null after a failure. A UTF-8 byte order mark is skipped. Nothing is
// logged. The document keeps nothing of the text; its memory is taken from its allocator. A text that is to become part
// of another is given a lower limit of nesting.
[[nodiscard]] rapidjson::ParseResult parseValue(rapidjson::Document& document, const std::string& text,
                                                int maxNesting = kMaxNesting);

// validJSON's question with its log line, leaving the parsed document: for texts that are needed as values afterwards.
[[nodiscard]] bool parseObject(rapidjson::Document& document, const std::string& text, int maxNesting = kMaxNesting);

// The characters of a string, the compact text of any other value.
[[nodiscard]] std::string toText(const rapidjson::Value& value);

// The compact text, and the one indented by 4 blanks.
[[nodiscard]] std::string serialize(const rapidjson::Value& value);
[[nodiscard]] std::string serializePretty(const rapidjson::Value& value);

// A JSON text indented by 4 blanks; any other text as it is.
[[nodiscard]] std::string prettyPrint(const std::string& json);

}  // namespace velmora
