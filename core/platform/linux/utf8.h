// The encoding of every text that leaves the library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::platform {

[[nodiscard]] bool isUtf8(std::string_view text) noexcept;

// False, and nothing appended, for what is no code point.
[[nodiscard]] bool appendUtf8(std::string& out, uint32_t point);

}  // namespace velmora::platform
