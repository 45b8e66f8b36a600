// How this folder feeds text to RapidJSON's reader: what the reader itself does not look for is looked for here.
#pragma once

#include <rapidjson/reader.h>

#include <array>
#include <cstring>
#include <memory>
#include <string_view>

#include "core/json/jsontext.h"
#include "core/types/function.h"

namespace velmora {

inline constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// What a look over a text, before it is read, tells about it.
struct TextSurvey {
    bool holdsLateControls = false;  // 1A to 1F unescaped: the reader's vector code takes them for text
    bool holdsSurrogateEscapes =
        false;  // \uDxxx: the reader takes the second of a pair alone, and makes bad UTF-8 of it
    bool isUtf8 = true;
    size_t utf8End = 0;  // where that ends, if it is not
};
[[nodiscard]] TextSurvey survey(std::string_view text) noexcept;

// Reads a number of JSON's grammar: a whole one that 64 bits hold as such, any other to the nearest double.
struct JsonNumber {
    enum class Kind { negative, positive, fraction, tooBig } kind = Kind::tooBig;
    int64_t negative = 0;  // also -0
    uint64_t positive = 0;
    double fraction = 0;

    [[nodiscard]] static JsonNumber read(std::string_view text) noexcept;
};

// A copy of a text with zeros behind it: the reader's vector instructions look at whole blocks of 16 bytes.
class PaddedText {
public:
    explicit PaddedText(std::string_view text) {
        const size_t size = text.size() + kPadding;
        char* const copy = size <= small_.size() ? small_.data() : (large_ = std::make_unique<char[]>(size)).get();
        std::memcpy(copy, text.data(), text.size());
        std::memset(copy + text.size(), 0, kPadding);
        text_ = copy;
    }
    PaddedText(const PaddedText&) = delete;
    PaddedText& operator=(const PaddedText&) = delete;

    [[nodiscard]] const char* data() const { return text_; }

private:
    static constexpr size_t kPadding = 32;

    alignas(16) std::array<char, 4096> small_;
    std::unique_ptr<char[]> large_;
    const char* text_;
};

// Stands between the reader and a handler: numbers arrive as text and leave as values, a container below `limit` others
// ends the parse, and so does a string that is not UTF-8. fault() tells those ends from the handler's own.
template <typename Handler>
class CheckedHandler {
public:
    using Ch = char;

    CheckedHandler(Handler& handler, int limit, bool checksStrings)
        : handler_(handler), left_(limit), checksStrings_(checksStrings) {}

    [[nodiscard]] rapidjson::ParseErrorCode fault() const { return fault_; }

    bool Null() { return handler_.Null(); }
    bool Bool(bool value) { return handler_.Bool(value); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
        const JsonNumber number = JsonNumber::read({text, length});
        switch (number.kind) {
            case JsonNumber::Kind::negative:
                return handler_.Int64(number.negative);
            case JsonNumber::Kind::positive:
                return handler_.Uint64(number.positive);
            case JsonNumber::Kind::fraction:
                return handler_.Double(number.fraction);
            case JsonNumber::Kind::tooBig:
                break;
        }
        return fails(rapidjson::kParseErrorNumberTooBig);
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy) {
        return isGood(text, length) && handler_.String(text, length, copy);
    }
    bool Key(const char* text, rapidjson::SizeType length, bool copy) {
        return isGood(text, length) && handler_.Key(text, length, copy);
    }
    bool StartObject() { return left_-- > 0 && handler_.StartObject(); }
    bool StartArray() { return left_-- > 0 && handler_.StartArray(); }
    bool EndObject(rapidjson::SizeType count) { return ++left_, handler_.EndObject(count); }
    bool EndArray(rapidjson::SizeType count) { return ++left_, handler_.EndArray(count); }

    // The reader asks for all of its events, also for those that its flags leave out.
    bool Int(int value) { return handler_.Int64(value); }
    bool Uint(unsigned value) { return handler_.Uint64(value); }
    bool Int64(int64_t value) { return handler_.Int64(value); }
    bool Uint64(uint64_t value) { return handler_.Uint64(value); }
    bool Double(double value) { return handler_.Double(value); }

private:
    [[nodiscard]] bool isGood(const char* text, size_t length) {
        return !checksStrings_ || survey({text, length}).isUtf8 || fails(rapidjson::kParseErrorStringInvalidEncoding);
    }
    bool fails(rapidjson::ParseErrorCode code) {
        fault_ = code;
        return false;
    }

    Handler& handler_;
    int left_;
    const bool checksStrings_;
    rapidjson::ParseErrorCode fault_ = rapidjson::kParseErrorNone;
};

// Of a type of its own, for which the reader has no vector code.
struct PlainStream : rapidjson::StringStream {
    using rapidjson::StringStream::StringStream;
};

struct ReadOptions {
    int maxNesting = kMaxNesting;
    bool refusesBadUtf8 = true;  // false: the handler looks itself
};

// Without recursion, and with numbers as text.
template <typename Stream, typename Handler>
rapidjson::ParseResult readStream(Stream& stream, Handler& handler) {
    constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, JsonHeap> reader;
    const rapidjson::ParseResult result = reader.template Parse<kFlags>(stream, handler);
    // The iterative reader calls a document empty also if it begins with what begins no value.
    const bool isMisnamed = result.Code() == rapidjson::kParseErrorDocumentEmpty && stream.Peek() != '\0';
    return isMisnamed ? rapidjson::ParseResult(rapidjson::kParseErrorValueInvalid, result.Offset()) : result;
}

// Runs the reader over a text, behind its byte order mark. Offsets count from the start of the text. What the handler
// throws passes through; `reached` then says where.
template <typename Handler>
rapidjson::ParseResult readText(std::string_view text, Handler& handler, const ReadOptions& options, size_t& reached) {
    const TextSurvey found = survey(text);
    if (options.refusesBadUtf8 && !found.isUtf8) return {rapidjson::kParseErrorStringInvalidEncoding, found.utf8End};
    const PaddedText padded(text);
    const size_t skipped = text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0;
    CheckedHandler<Handler> checked(handler, options.maxNesting, options.refusesBadUtf8 && found.holdsSurrogateEscapes);
    const auto read = [&](auto stream) {
        const ScopeExit note([&] { reached = stream.Tell() + skipped; });
        return readStream(stream, checked);
    };
    const char* const begin = padded.data() + skipped;
    const rapidjson::ParseResult result =
        found.holdsLateControls ? read(PlainStream(begin)) : read(rapidjson::StringStream(begin));
    if (!result.IsError()) return result;
    const bool isOurs = checked.fault() != rapidjson::kParseErrorNone;
    return {isOurs ? checked.fault() : result.Code(), result.Offset() + skipped};
}

template <typename Handler>
rapidjson::ParseResult readText(std::string_view text, Handler& handler, const ReadOptions& options = {}) {
    size_t reached = 0;
    return readText(text, handler, options, reached);
}

}  // namespace velmora
