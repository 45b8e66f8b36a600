// Between UTF-8 and the system's UTF-16. What can't be converted raises std::range_error "bad conversion".
#pragma once

#include <string>
#include <string_view>

namespace velmora::platform {

[[nodiscard]] std::wstring wideFromUtf8(std::string_view text);
[[nodiscard]] std::string utf8FromWide(std::wstring_view text);

}  // namespace velmora::platform
