#include "tools/velmora/recordview.h"

#include <rapidjson/encodings.h>
#include <rapidjson/stringbuffer.h>

#include "core/json/jsontext.h"

namespace velmora::tool {
namespace {

constexpr size_t kCipherBlock = 16;

// The compact text of a JSON object; nothing for any other text.
std::optional<std::string> eventOf(const std::string& text) {
    JsonDocument document;
    if (parseValue(document, text).IsError() || !document.IsObject()) return std::nullopt;
    return printable(serialize(document));
}

constexpr const char* kReplacement = "\xEF\xBF\xBD";

// The first byte decides but for U+0080 to U+009F, some of which terminals obey as well.
bool isControl(const std::string& text, size_t at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    return byte < 0x20 || byte == 0x7F || (byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0);
}

}  // namespace

RecordView::RecordView(const std::optional<std::string>& passphrase) {
    if (passphrase) crypt_.emplace(*passphrase);
}

InspectedRecord RecordView::look(const QueueReader::Record& place, const std::string& bytes) const {
    if (auto event = eventOf(bytes)) return {place, RecordForm::plain, std::move(*event)};
    if (bytes.empty() || bytes.size() % kCipherBlock != 0) return {place, RecordForm::other, {}};
    if (!crypt_) return {place, RecordForm::enciphered, {}};
    if (auto event = eventOf(crypt_->decrypt(bytes))) return {place, RecordForm::deciphered, std::move(*event)};
    return {place, RecordForm::undecipherable, {}};
}

std::string printable(const std::string& text) {
    std::string out;
    rapidjson::StringStream in(text.c_str());
    while (in.Tell() < text.size()) {
        const size_t start = in.Tell();
        JsonBuffer character;
        const bool isText = rapidjson::UTF8<>::Validate(in, character) && in.Tell() <= text.size();
        if (isText && !isControl(text, start)) {
            out.append(text, start, in.Tell() - start);
        } else {
            out += kReplacement;
            if (!isText) in.src_ = text.c_str() + start + 1;
        }
    }
    return out;
}

}  // namespace velmora::tool
