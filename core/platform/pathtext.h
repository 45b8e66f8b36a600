// Between text and the system's own form of a path. Text is UTF-8. Whatever can't be converted raises std::range_error
// "bad conversion".
#pragma once

#include <boost/filesystem/path.hpp>
#include <string>

namespace velmora::platform {

[[nodiscard]] boost::filesystem::path pathFromUtf8(const std::string& text);
[[nodiscard]] boost::filesystem::path pathFromWide(const std::wstring& text);
[[nodiscard]] std::string pathToUtf8(const boost::filesystem::path& path);

}  // namespace velmora::platform
