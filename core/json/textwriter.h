// RapidJSON's writers, made to escape all control characters: the vector code of version 1.1 takes 1A to 1F for text
// and passes them on as they are, and then no reader takes the result. Where many values are written, it costs less to
// write them without these, to look at the whole with holdsLateControls, and to begin anew in the rare case.
#pragma once

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

namespace velmora {

// Whether a text holds a character from 1A to 1F.
[[nodiscard]] inline bool holdsLateControls(const char* text, size_t length) noexcept {
    unsigned char found = 0;  // no early end: the compiler takes sixteen at a time
    for (size_t i = 0; i < length; ++i) {
        const auto aboveFirst = static_cast<unsigned char>(text[i] - 0x1A);
        found = static_cast<unsigned char>(found | (aboveFirst < 6 ? 1 : 0));
    }
    return found != 0;
}

// The text as a JSON string.
[[nodiscard]] std::string quotedWithEscapes(const char* text, size_t length);

template <typename Base>
class EscapingWriter : public Base {
public:
    using Base::Base;

    bool String(const char* text, rapidjson::SizeType length, bool copy = false) {
        if (!holdsLateControls(text, length)) return Base::String(text, length, copy);
        const std::string quoted = quotedWithEscapes(text, length);
        return Base::RawValue(quoted.data(), quoted.size(), rapidjson::kStringType);
    }
    bool String(const std::string& text) { return String(text.data(), static_cast<rapidjson::SizeType>(text.size())); }
    bool Key(const char* text, rapidjson::SizeType length, bool copy = false) { return String(text, length, copy); }
    bool Key(const std::string& text) { return String(text); }
};

using TextWriter = EscapingWriter<rapidjson::Writer<rapidjson::StringBuffer>>;
using PrettyTextWriter = EscapingWriter<rapidjson::PrettyWriter<rapidjson::StringBuffer>>;

}  // namespace velmora
