#include "core/platform/pathtext.h"

#include <stdexcept>

#include "core/types/text.h"

namespace velmora::platform {
namespace {

void require(bool isConverted) {
    if (!isConverted) throw std::range_error("bad conversion");
}

}  // namespace

// The bytes of a path are kept as they are; they only have to be text.
boost::filesystem::path pathFromUtf8(const std::string& text) {
    require(isUtf8(text));
    return text;
}

boost::filesystem::path pathFromWide(const std::wstring& text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (const wchar_t point : text) require(appendUtf8(bytes, static_cast<uint32_t>(point)));
    return bytes;
}

std::string pathToUtf8(const boost::filesystem::path& path) {
    require(isUtf8(path.native()));
    return path.native();
}

}  // namespace velmora::platform
