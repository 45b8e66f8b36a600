// Letters and blanks of ASCII, whatever the locale: other bytes are neither.
#pragma once

#include <algorithm>
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

}  // namespace velmora
