// What the library asks of single characters and of the encoding of a text. Letters, blanks and case are those of
// ASCII, whatever the locale: other bytes are neither letters nor blanks. Every text that enters or leaves the library
// is UTF-8.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace velmora {

inline constexpr std::string_view kBlanks = " \t\n\v\f\r";

[[nodiscard]] constexpr bool isBlank(char c) noexcept { return kBlanks.find(c) != std::string_view::npos; }

[[nodiscard]] constexpr char toLower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

[[nodiscard]] constexpr bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return toLower(x) == toLower(y); });
}

// The part of the text that begins and ends with something else than one of `unwanted`; empty if there is none.
[[nodiscard]] constexpr std::string_view trim(std::string_view text, std::string_view unwanted = kBlanks) noexcept {
    const size_t first = text.find_first_not_of(unwanted);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(unwanted) - first + 1);
}

// Whether the text is well-formed UTF-8: no stray bytes, no longer form than needed, no surrogates, nothing past
// U+10FFFF. NUL is a character like any other.
[[nodiscard]] bool isUtf8(std::string_view text) noexcept;

// Appends the code point's bytes. False, and nothing appended, for a surrogate or a number past U+10FFFF.
[[nodiscard]] bool appendUtf8(std::string& out, uint32_t point);

// The text of a version 4 identifier that is made of these bytes: 36 characters, groups of 8, 4, 4, 4 and 12 lower-case
// hexadecimal digits. The bits that tell version and variant are set here.
[[nodiscard]] std::string formatGuid(std::array<uint8_t, 16> bytes);

}  // namespace velmora
