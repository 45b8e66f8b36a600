#include "core/platform/windows/system.h"

#include <windows.h>

#include <climits>
#include <stdexcept>

#include "core/platform/pathtext.h"

namespace velmora::platform {
namespace {

[[noreturn]] void failConversion() { throw std::range_error("bad conversion"); }

int checkedLength(size_t length) {
    if (length > INT_MAX) failConversion();
    return static_cast<int>(length);
}

}  // namespace

std::wstring wideFromUtf8(std::string_view text) {
    if (text.empty()) return {};
    const int size = checkedLength(text.size());
    const int length = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, nullptr, 0);
    if (length <= 0) failConversion();
    std::wstring wide(static_cast<size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), size, wide.data(), length);
    return wide;
}

std::string utf8FromWide(std::wstring_view text) {
    if (text.empty()) return {};
    const int size = checkedLength(text.size());
    const int length =
        ::WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), size, nullptr, 0, nullptr, nullptr);
    if (length <= 0) failConversion();
    std::string utf8(static_cast<size_t>(length), '\0');
    ::WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), size, utf8.data(), length, nullptr, nullptr);
    return utf8;
}

boost::filesystem::path pathFromUtf8(const std::string& text) { return wideFromUtf8(text); }
boost::filesystem::path pathFromWide(const std::wstring& text) { return text; }
std::string pathToUtf8(const boost::filesystem::path& path) { return utf8FromWide(path.native()); }

}  // namespace velmora::platform
