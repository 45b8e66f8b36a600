// JSON texts, RapidJSON's values, and the ways between them.
//
// Foreign text can't exhaust the stack: parsing does not recurse, and text nested deeper than kMaxNesting is refused
// like any other bad JSON ("Terminate parsing due to Handler error."), which bounds whatever walks the values later.
// A text that is not UTF-8, or whose escapes stand for what is not, is refused as well ("Invalid encoding in string.").
// Numbers are read to the nearest double, so that writing and reading them again changes nothing; one that no double
// holds is refused ("Number too big to be stored in double.").
//
// Threads: the functions are independent of each other; a value belongs to one thread at a time.
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <string_view>

namespace velmora {

// The heap as RapidJSON asks for it. Throws std::bad_alloc, since the library does not look for the null that its own
// allocator returns.
struct JsonHeap {
    static const bool kNeedFree = true;  // the name is RapidJSON's

    [[nodiscard]] static void* Malloc(size_t size);
    [[nodiscard]] static void* Realloc(void* original, size_t originalSize, size_t newSize);
    static void Free(void* memory) noexcept;
};

// Values live in the pool of their document, or in one that several share, and are freed with it as a whole.
using JsonPool = rapidjson::MemoryPoolAllocator<JsonHeap>;
using JsonValue = rapidjson::GenericValue<rapidjson::UTF8<>, JsonPool>;
using JsonDocument = rapidjson::GenericDocument<rapidjson::UTF8<>, JsonPool, JsonHeap>;
using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, JsonHeap>;

// Writes compact text into a buffer. Strings go out in runs up to the next character that needs an escape, which are
// the quote, the backslash and all control characters.
class JsonTextWriter : public rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonHeap> {
public:
    using Writer::Writer;

    bool String(const char* text, rapidjson::SizeType length, bool copy = false);
    bool String(std::string_view text) { return String(text.data(), static_cast<rapidjson::SizeType>(text.size())); }
    bool Key(const char* text, rapidjson::SizeType length, bool copy = false) { return String(text, length, copy); }
    bool Key(std::string_view text) { return String(text); }
};

constexpr int kMaxNesting = 1000;

// Whether the text parses and its root is an object; a UTF-8 byte order mark at the start is skipped. A no is logged at
// warn on channel "json" with the parser's message and the offset. The second takes any root.
[[nodiscard]] bool validJSON(const std::string& text);
[[nodiscard]] bool validJSONValue(const std::string& text);

// Parses a text into the document, which is null after a failure, whatever it held before. A byte order mark is
// skipped. Nothing is logged. The document keeps nothing of the text. What the library has put an object around is
// given a higher limit of nesting. Throws std::bad_alloc only.
[[nodiscard]] rapidjson::ParseResult parseValue(JsonDocument& document, std::string_view text,
                                                int maxNesting = kMaxNesting);

// validJSON's question with its log line, leaving the parsed document: for texts that are needed as values afterwards.
[[nodiscard]] bool parseObject(JsonDocument& document, std::string_view text, int maxNesting = kMaxNesting);

// What is wrong with a text, in the words and numbers of the log line: "Missing a colon after a name of object member.
// at 5".
[[nodiscard]] std::string describe(const rapidjson::ParseResult& result);

// The characters of a string value, which live as long as it does.
[[nodiscard]] inline std::string_view viewOf(const JsonValue& string) {
    return {string.GetString(), string.GetStringLength()};
}

// The characters of a string, the compact text of any other value.
[[nodiscard]] std::string toText(const JsonValue& value);

// The compact text, and the one indented by 4 blanks. Throw std::invalid_argument for a number that JSON has no text
// for; only a program error makes one.
[[nodiscard]] std::string serialize(const JsonValue& value);
[[nodiscard]] std::string serializePretty(const JsonValue& value);

// A JSON text indented by 4 blanks; any other text as it is.
[[nodiscard]] std::string prettyPrint(const std::string& json);

// Appends the text as a JSON string, quotes included.
void appendQuoted(JsonBuffer& out, std::string_view text);

// The number of characters up to the first quote, backslash or control character, or to the end.
[[nodiscard]] size_t plainLength(const char* begin, const char* end) noexcept;

}  // namespace velmora
