// Between UTF-8 and the system's wide text. What can't be converted becomes the replacement character.
#pragma once

#include <string>
#include <string_view>

namespace velmora::httpstack {

[[nodiscard]] std::wstring wideText(std::string_view text);
[[nodiscard]] std::string utf8Text(std::wstring_view text);

}  // namespace velmora::httpstack
