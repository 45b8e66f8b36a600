#include "tests/support/appendfile.h"

#include <windows.h>

#include <boost/filesystem/path.hpp>
#include <system_error>

namespace velmora::test {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

// Held while the end of the file is looked for and written to: not every system that runs this does both in one step.
class EndOfFile {
public:
    explicit EndOfFile(HANDLE file) : file_(file) {
        if (!LockFileEx(file_, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &position_)) fail("lock");
    }
    ~EndOfFile() { UnlockFileEx(file_, 0, 1, 0, &position_); }
    EndOfFile(const EndOfFile&) = delete;
    EndOfFile& operator=(const EndOfFile&) = delete;

private:
    HANDLE file_;
    OVERLAPPED position_ = farBeyondTheText();

    static OVERLAPPED farBeyondTheText() {
        OVERLAPPED position{};
        position.OffsetHigh = 0x7FFFFFFF;
        return position;
    }
};

}  // namespace

AppendFile::AppendFile(const std::string& path)
    : handle_(
          reinterpret_cast<intptr_t>(CreateFileW(boost::filesystem::path(path).c_str(), FILE_APPEND_DATA | GENERIC_READ,
                                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                 OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr))) {
    if (reinterpret_cast<HANDLE>(handle_) == INVALID_HANDLE_VALUE) fail(path);
}

AppendFile::~AppendFile() { CloseHandle(reinterpret_cast<HANDLE>(handle_)); }

void AppendFile::append(std::string_view text) {
    const auto file = reinterpret_cast<HANDLE>(handle_);
    const EndOfFile held(file);
    DWORD written = 0;
    const auto size = static_cast<DWORD>(text.size());
    if (!WriteFile(file, text.data(), size, &written, nullptr) || written != size) fail("append");
}

}  // namespace velmora::test
