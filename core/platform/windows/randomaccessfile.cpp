#include "core/platform/randomaccessfile.h"

#include <windows.h>

#include <algorithm>

namespace velmora::platform {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr size_t kLargestTransfer = size_t{1} << 30;

class WindowsFile final : public RandomAccessFile {
public:
    explicit WindowsFile(HANDLE handle) : handle_(handle) {}
    ~WindowsFile() override { ::CloseHandle(handle_); }
    WindowsFile(const WindowsFile&) = delete;
    WindowsFile& operator=(const WindowsFile&) = delete;

    bool read(uint64_t offset, void* buffer, size_t size) noexcept override {
        auto* const bytes = static_cast<char*>(buffer);
        return transfer(offset, size, [&](size_t done, DWORD part, DWORD* moved, OVERLAPPED* position) {
            return ::ReadFile(handle_, bytes + done, part, moved, position);
        });
    }

    bool write(uint64_t offset, const void* data, size_t size) noexcept override {
        const auto* const bytes = static_cast<const char*>(data);
        return transfer(offset, size, [&](size_t done, DWORD part, DWORD* moved, OVERLAPPED* position) {
            return ::WriteFile(handle_, bytes + done, part, moved, position);
        });
    }

    // The end of a file is not moved without room for what is before it.
    bool resize(uint64_t bytes) noexcept override {
        FILE_END_OF_FILE_INFO end{};
        end.EndOfFile.QuadPart = static_cast<LONGLONG>(bytes);
        return ::SetFileInformationByHandle(handle_, FileEndOfFileInfo, &end, sizeof end) != FALSE;
    }

    bool size(uint64_t& bytes) noexcept override {
        LARGE_INTEGER value{};
        if (::GetFileSizeEx(handle_, &value) == FALSE) return false;
        bytes = static_cast<uint64_t>(value.QuadPart);
        return true;
    }

private:
    template <typename Step>
    static bool transfer(uint64_t offset, size_t size, Step step) noexcept {
        size_t done = 0;
        while (done < size) {
            OVERLAPPED position{};
            position.Offset = static_cast<DWORD>(offset + done);
            position.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
            DWORD moved = 0;
            const auto part = static_cast<DWORD>(std::min(size - done, kLargestTransfer));
            if (step(done, part, &moved, &position) == FALSE || moved == 0) return false;
            done += moved;
        }
        return true;
    }

    const HANDLE handle_;
};

std::unique_ptr<RandomAccessFile> open(const boost::filesystem::path& path, DWORD access, DWORD disposition) {
    const HANDLE handle =
        ::CreateFileW(path.c_str(), access, kShareAll, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return nullptr;
    return std::make_unique<WindowsFile>(handle);
}

}  // namespace

std::unique_ptr<RandomAccessFile> openSystemFile(const boost::filesystem::path& path, bool create) {
    return open(path, GENERIC_READ | GENERIC_WRITE, create ? CREATE_ALWAYS : OPEN_EXISTING);
}

std::unique_ptr<RandomAccessFile> openReadOnlyFile(const boost::filesystem::path& path) {
    return open(path, GENERIC_READ, OPEN_EXISTING);
}

}  // namespace velmora::platform
