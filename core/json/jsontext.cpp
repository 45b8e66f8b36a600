#include "core/json/jsontext.h"

#include <emmintrin.h>
#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <new>
#include <stdexcept>

#include "core/json/jsonreader.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

constexpr size_t kUsualTextSize = 4096;
constexpr size_t kBlock = 16;

__m128i load(const char* at) noexcept { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at)); }

// A bit for each byte that is at most `last`, as unsigned numbers.
int upTo(__m128i block, char last) noexcept {
    return _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(block, _mm_set1_epi8(last)), block));
}

bool isSpecial(char c) noexcept { return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\'; }

bool continues(std::string_view text, size_t at, unsigned char from, unsigned char to) noexcept {
    if (at >= text.size()) return false;
    const auto byte = static_cast<unsigned char>(text[at]);
    return byte >= from && byte <= to;
}

// The bytes of the character at `at`, 0 if there is none: neither overlong forms nor surrogates are.
size_t utf8Length(std::string_view text, size_t at) noexcept {
    const auto first = static_cast<unsigned char>(text[at]);
    if (first < 0x80) return 1;
    if (first < 0xC2 || first > 0xF4) return 0;
    const unsigned char from = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned char to = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (!continues(text, at + 1, from, to)) return 0;
    const size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    for (size_t i = 2; i < length; ++i) {
        if (!continues(text, at + i, 0x80, 0xBF)) return 0;
    }
    return length;
}

// The power of ten of a number's first digit that is not 0.
int64_t magnitude(std::string_view text) noexcept {
    const size_t end = std::min(text.find_first_of("eE"), text.size());
    int64_t exponent = 0;
    if (end < text.size()) {
        const size_t digits = end + (text[end + 1] == '+' ? 2 : 1);
        const auto result = std::from_chars(text.data() + digits, text.data() + text.size(), exponent);
        if (result.ec != std::errc()) return text[digits] == '-' ? INT32_MIN : INT32_MAX;
    }
    const size_t point = std::min(text.find('.'), end);
    const size_t first = std::min(text.find_first_of("123456789"), end);
    return exponent + static_cast<int64_t>(point) - static_cast<int64_t>(first);
}

// Keeps nothing but the kind of the root, which is known by the first event.
class RootKind : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, RootKind> {
public:
    bool Default() { return seen_ = true; }
    bool StartObject() {
        isObject_ = isObject_ || !seen_;
        return Default();
    }

    [[nodiscard]] bool isObject() const { return isObject_; }

private:
    bool seen_ = false;
    bool isObject_ = false;
};

void logInvalidJson(std::string_view text, const rapidjson::ParseResult& result) {
    VELMORA_LOG_AT(warn, "json", "velmora::validJSON")
        << "invalid json=" << text << " parse err='" << rapidjson::GetParseError_En(result.Code()) << "' at "
        << result.Offset();
}

bool isValid(const std::string& text, bool asksForObject) {
    RootKind root;
    const rapidjson::ParseResult result = readText(text, root);
    if (!result.IsError() && (root.isObject() || !asksForObject)) return true;
    logInvalidJson(text, result);
    return false;
}

// The letter behind the backslash; 'u' for those that have none of their own.
char escapeLetter(char c) noexcept {
    constexpr std::string_view kSpecial = "\"\\\b\f\n\r\t";
    constexpr std::string_view kLetters = "\"\\bfnrt";
    const size_t index = kSpecial.find(c);
    return index == std::string_view::npos ? 'u' : kLetters[index];
}

template <typename Writer>
std::string written(const JsonValue& value, Writer& writer, const JsonBuffer& buffer) {
    if (!value.Accept(writer)) throw std::invalid_argument("a number that JSON has no text for");
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace

void* JsonHeap::Malloc(size_t size) { return size == 0 ? nullptr : ::operator new(size); }

void* JsonHeap::Realloc(void* original, size_t originalSize, size_t newSize) {
    void* const memory = Malloc(newSize);
    if (original != nullptr && memory != nullptr) std::memcpy(memory, original, std::min(originalSize, newSize));
    Free(original);
    return memory;
}

void JsonHeap::Free(void* memory) noexcept { ::operator delete(memory); }

TextSurvey survey(std::string_view text) noexcept {
    TextSurvey found;
    const char* const begin = text.data();
    size_t at = 0;
    bool isAscii = true;
    for (; at + kBlock <= text.size(); at += kBlock) {
        const __m128i block = load(begin + at);
        const int late = upTo(block, 0x1F) & ~upTo(block, 0x19);
        found.holdsLateControls = found.holdsLateControls || late != 0;
        isAscii = isAscii && _mm_movemask_epi8(block) == 0;
    }
    for (; at < text.size(); ++at) {
        found.holdsLateControls = found.holdsLateControls || (text[at] >= 0x1A && text[at] <= 0x1F);
        isAscii = isAscii && static_cast<signed char>(text[at]) >= 0;
    }
    for (size_t escape = text.find("\\u"); escape != std::string_view::npos; escape = text.find("\\u", escape + 2)) {
        const char digit = escape + 2 < text.size() ? text[escape + 2] : '0';
        if (digit != 'd' && digit != 'D') continue;
        found.holdsSurrogateEscapes = true;
        break;
    }
    while (!isAscii && found.utf8End < text.size() && found.isUtf8) {
        const size_t length = utf8Length(text, found.utf8End);
        found.isUtf8 = length > 0;
        found.utf8End += length;
    }
    return found;
}

JsonNumber JsonNumber::read(std::string_view text) noexcept {
    JsonNumber number;
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    if (text.find_first_of(".eE") == std::string_view::npos) {
        const bool isNegative = text.front() == '-';
        number.kind = isNegative ? Kind::negative : Kind::positive;
        const auto result =
            isNegative ? std::from_chars(begin, end, number.negative) : std::from_chars(begin, end, number.positive);
        if (result.ec == std::errc()) return number;
    }
    const auto result = std::from_chars(begin, end, number.fraction);
    number.kind = Kind::fraction;
    if (result.ec == std::errc()) return number;
    if (magnitude(text) > 0) number.kind = Kind::tooBig;
    number.fraction = text.front() == '-' ? -0.0 : 0.0;  // too small for any other
    return number;
}

bool JsonTextWriter::String(const char* text, rapidjson::SizeType length, bool) {
    Prefix(rapidjson::kStringType);
    appendQuoted(*os_, {text, length});
    return true;
}

bool validJSON(const std::string& text) { return isValid(text, true); }
bool validJSONValue(const std::string& text) { return isValid(text, false); }

rapidjson::ParseResult parseValue(JsonDocument& document, std::string_view text, int maxNesting) {
    rapidjson::ParseResult result;
    const auto generator = [&](JsonDocument& target) {
        result = readText(text, target, {.maxNesting = maxNesting});
        return !result.IsError();
    };
    document.SetNull();
    document.Populate(generator);
    return result;
}

bool parseObject(JsonDocument& document, std::string_view text, int maxNesting) {
    const rapidjson::ParseResult result = parseValue(document, text, maxNesting);
    if (!result.IsError() && document.IsObject()) return true;
    logInvalidJson(text, result);
    return false;
}

std::string describe(const rapidjson::ParseResult& result) {
    if (!result.IsError()) return "not an object";
    return rapidjson::GetParseError_En(result.Code()) + std::string(" at ") + std::to_string(result.Offset());
}

std::string toText(const JsonValue& value) { return value.IsString() ? std::string(viewOf(value)) : serialize(value); }

std::string serialize(const JsonValue& value) {
    JsonBuffer buffer(nullptr, kUsualTextSize);
    JsonTextWriter writer(buffer);
    return written(value, writer, buffer);
}

std::string serializePretty(const JsonValue& value) {
    JsonBuffer buffer(nullptr, kUsualTextSize);
    rapidjson::PrettyWriter<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonHeap> writer(buffer);
    writer.SetIndent(' ', 4);
    return written(value, writer, buffer);
}

std::string prettyPrint(const std::string& json) {
    JsonDocument document;
    return parseValue(document, json).IsError() ? json : serializePretty(document);
}

void appendQuoted(JsonBuffer& out, std::string_view text) {
    constexpr char kHex[] = "0123456789ABCDEF";
    out.Put('"');
    const char* const end = text.data() + text.size();
    for (const char* at = text.data();;) {
        const size_t run = plainLength(at, end);
        if (run != 0) std::memcpy(out.Push(run), at, run);
        at += run;
        if (at == end) break;
        const char letter = escapeLetter(*at);
        out.Put('\\');
        out.Put(letter);
        if (letter == 'u') {
            for (const char digit : {'0', '0', kHex[*at / 16], kHex[*at % 16]}) out.Put(digit);
        }
        ++at;
    }
    out.Put('"');
}

size_t plainLength(const char* begin, const char* end) noexcept {
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const char* at = begin;
    for (; static_cast<size_t>(end - at) >= kBlock; at += kBlock) {
        const __m128i block = load(at);
        const __m128i marks = _mm_or_si128(_mm_cmpeq_epi8(block, quote), _mm_cmpeq_epi8(block, backslash));
        const int found = _mm_movemask_epi8(marks) | upTo(block, 0x1F);
        if (found != 0)
            return static_cast<size_t>(at - begin) +
                   static_cast<size_t>(std::countr_zero(static_cast<unsigned>(found)));
    }
    while (at != end && !isSpecial(*at)) ++at;
    return static_cast<size_t>(at - begin);
}

}  // namespace velmora
