#include "core/platform/pathtext.h"

#include <cstdint>
#include <stdexcept>
#include <string_view>

namespace velmora::platform {
namespace {

// A code point within these bounds takes that many bytes after the first; anything shorter or longer is no UTF-8.
struct Sequence {
    uint8_t mask;
    uint8_t lead;
    size_t more;
    uint32_t least;
    uint32_t most;
};

constexpr Sequence kSequences[] = {{0x80, 0x00, 0, 0x0, 0x7F},
                                   {0xE0, 0xC0, 1, 0x80, 0x7FF},
                                   {0xF0, 0xE0, 2, 0x800, 0xFFFF},
                                   {0xF8, 0xF0, 3, 0x10000, 0x10FFFF}};

bool isSurrogate(uint32_t point) { return point >= 0xD800 && point <= 0xDFFF; }

[[noreturn]] void failConversion() { throw std::range_error("bad conversion"); }

const Sequence& sequenceOf(uint8_t lead) {
    for (const Sequence& sequence : kSequences) {
        if ((lead & sequence.mask) == sequence.lead) return sequence;
    }
    failConversion();
}

// The bytes of a path are kept as they are; they only have to be text.
void requireUtf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<uint8_t>(text[i++]);
        const Sequence& sequence = sequenceOf(lead);
        if (text.size() - i < sequence.more) failConversion();
        uint32_t point = lead & static_cast<uint8_t>(~sequence.mask);
        for (const size_t end = i + sequence.more; i < end; ++i) {
            const auto byte = static_cast<uint8_t>(text[i]);
            if ((byte & 0xC0) != 0x80) failConversion();
            point = (point << 6) | (byte & 0x3F);
        }
        if (point < sequence.least || point > sequence.most || isSurrogate(point)) failConversion();
    }
}

void appendUtf8(std::string& out, uint32_t point) {
    for (const Sequence& sequence : kSequences) {
        if (point > sequence.most || isSurrogate(point)) continue;
        size_t shift = 6 * sequence.more;
        out += static_cast<char>(sequence.lead | (point >> shift));
        for (; shift > 0; shift -= 6) out += static_cast<char>(0x80 | ((point >> (shift - 6)) & 0x3F));
        return;
    }
    failConversion();
}

}  // namespace

boost::filesystem::path pathFromUtf8(const std::string& text) {
    requireUtf8(text);
    return text;
}

boost::filesystem::path pathFromWide(const std::wstring& text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (const wchar_t point : text) appendUtf8(bytes, static_cast<uint32_t>(point));
    return bytes;
}

std::string pathToUtf8(const boost::filesystem::path& path) {
    requireUtf8(path.native());
    return path.native();
}

}  // namespace velmora::platform
