#include "tests/support/appendfile.h"

#include <windows.h>

#include <boost/filesystem/path.hpp>
#include <system_error>

namespace velmora::test {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

}  // namespace

AppendFile::AppendFile(const std::string& path)
    : handle_(reinterpret_cast<intptr_t>(CreateFileW(boost::filesystem::path(path).c_str(), FILE_APPEND_DATA,
                                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                     OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr))) {
    if (reinterpret_cast<HANDLE>(handle_) == INVALID_HANDLE_VALUE) fail(path);
}

AppendFile::~AppendFile() { CloseHandle(reinterpret_cast<HANDLE>(handle_)); }

void AppendFile::append(std::string_view text) {
    DWORD written = 0;
    const auto size = static_cast<DWORD>(text.size());
    if (!WriteFile(reinterpret_cast<HANDLE>(handle_), text.data(), size, &written, nullptr) || written != size)
        fail("append");
}

}  // namespace velmora::test
