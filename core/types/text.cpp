#include "core/types/text.h"

#include <algorithm>
#include <iterator>

namespace velmora {
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

// How many bytes the sequence at the start of the text has; 0 if there is none.
size_t sequenceLength(std::string_view text) noexcept {
    const auto lead = static_cast<uint8_t>(text.front());
    const auto* const sequence =
        std::find_if(std::begin(kSequences), std::end(kSequences),
                     [lead](const Sequence& candidate) { return (lead & candidate.mask) == candidate.lead; });
    if (sequence == std::end(kSequences) || text.size() <= sequence->more) return 0;
    uint32_t point = lead & static_cast<uint8_t>(~sequence->mask);
    for (const char c : text.substr(1, sequence->more)) {
        const auto byte = static_cast<uint8_t>(c);
        if ((byte & 0xC0) != 0x80) return 0;
        point = (point << 6) | (byte & 0x3F);
    }
    return point < sequence->least || point > sequence->most || isSurrogate(point) ? 0 : sequence->more + 1;
}

}  // namespace

bool isUtf8(std::string_view text) noexcept {
    while (!text.empty()) {
        const size_t length = sequenceLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

bool appendUtf8(std::string& out, uint32_t point) {
    for (const Sequence& sequence : kSequences) {
        if (point > sequence.most || isSurrogate(point)) continue;
        size_t shift = 6 * sequence.more;
        out += static_cast<char>(sequence.lead | (point >> shift));
        for (; shift > 0; shift -= 6) out += static_cast<char>(0x80 | ((point >> (shift - 6)) & 0x3F));
        return true;
    }
    return false;
}

std::string formatGuid(std::array<uint8_t, 16> bytes) {
    constexpr std::string_view kHexDigits = "0123456789abcdef";
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
    std::string text;
    text.reserve(36);
    for (const uint8_t byte : bytes) {
        if (text.size() == 8 || text.size() == 13 || text.size() == 18 || text.size() == 23) text += '-';
        text += kHexDigits[byte >> 4];
        text += kHexDigits[byte & 0x0F];
    }
    return text;
}

}  // namespace velmora
