// How this folder feeds text to RapidJSON's reader.
#pragma once

#include <rapidjson/reader.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "core/json/textwriter.h"

namespace velmora {

// A copy of a text with zeros behind it: the reader's vector instructions look at whole blocks of 16 bytes.
class PaddedText {
public:
    explicit PaddedText(std::string_view text) : size_(text.size()) {
        const size_t size = text.size() + kPadding;
        char* const copy = size <= small_.size() ? small_.data() : (large_ = std::make_unique<char[]>(size)).get();
        std::memcpy(copy, text.data(), text.size());
        std::memset(copy + text.size(), 0, kPadding);
        text_ = copy;
    }
    PaddedText(const PaddedText&) = delete;
    PaddedText& operator=(const PaddedText&) = delete;

    [[nodiscard]] const char* data() const { return text_; }
    [[nodiscard]] size_t size() const { return size_; }

private:
    static constexpr size_t kPadding = 32;

    alignas(16) std::array<char, 4096> small_;
    std::unique_ptr<char[]> large_;
    const char* text_;
    const size_t size_;
};

// Passes everything on to another handler, but ends the parse at a container below `limit` others.
template <typename Handler>
class NestingLimit {
public:
    using Ch = char;

    NestingLimit(Handler& handler, int limit) : handler_(handler), left_(limit) {}

    bool Null() { return handler_.Null(); }
    bool Bool(bool value) { return handler_.Bool(value); }
    bool Int(int value) { return handler_.Int(value); }
    bool Uint(unsigned value) { return handler_.Uint(value); }
    bool Int64(int64_t value) { return handler_.Int64(value); }
    bool Uint64(uint64_t value) { return handler_.Uint64(value); }
    bool Double(double value) { return handler_.Double(value); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool copy) {
        return handler_.RawNumber(text, length, copy);
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy) { return handler_.String(text, length, copy); }
    bool Key(const char* text, rapidjson::SizeType length, bool copy) { return handler_.Key(text, length, copy); }
    bool StartObject() { return left_-- > 0 && handler_.StartObject(); }
    bool StartArray() { return left_-- > 0 && handler_.StartArray(); }
    bool EndObject(rapidjson::SizeType count) { return ++left_, handler_.EndObject(count); }
    bool EndArray(rapidjson::SizeType count) { return ++left_, handler_.EndArray(count); }

private:
    Handler& handler_;
    int left_;
};

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Without recursion. Not with full precision: RapidJSON 1.1 then normalises zeros such as 0e-30 by undefined behaviour.
constexpr unsigned kParseFlags = rapidjson::kParseIterativeFlag;

// A text from some place on. Of a type of its own, for which the reader has no vector code: that lets some control
// characters pass at some places.
class TextStream : public rapidjson::StringStream {
public:
    explicit TextStream(const PaddedText& text, size_t begin = 0)
        : rapidjson::StringStream(text.data() + begin),
          needsCare_(holdsLateControls(text.data() + begin, text.size() - begin)) {}

    template <typename Handler>
    rapidjson::ParseResult read(Handler& handler) {
        rapidjson::Reader reader;
        return needsCare_ ? reader.Parse<kParseFlags>(*this, handler)
                          : reader.Parse<kParseFlags>(static_cast<rapidjson::StringStream&>(*this), handler);
    }

private:
    const bool needsCare_;
};

// The iterative reader calls a document empty also if it begins with what begins no value.
template <typename Handler>
rapidjson::ParseResult readStream(TextStream& stream, Handler& handler) {
    const rapidjson::ParseResult result = stream.read(handler);
    const bool isMisnamed = result.Code() == rapidjson::kParseErrorDocumentEmpty && stream.Peek() != '\0';
    return isMisnamed ? rapidjson::ParseResult(rapidjson::kParseErrorValueInvalid, result.Offset()) : result;
}

// Runs the reader over a text, behind its byte order mark. Offsets in the result count from the start of the text.
template <typename Handler>
rapidjson::ParseResult readText(const std::string& text, Handler& handler) {
    const PaddedText padded(text);
    const size_t skipped = text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0 ? kByteOrderMark.size() : 0;
    TextStream stream(padded, skipped);
    const rapidjson::ParseResult result = readStream(stream, handler);
    return result.IsError() ? rapidjson::ParseResult(result.Code(), result.Offset() + skipped) : result;
}

}  // namespace velmora
