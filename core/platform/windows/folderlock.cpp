#include "core/platform/folderlock.h"

#include <windows.h>

#include "core/platform/windows/system.h"

namespace velmora::platform {
namespace {

DWORD flagsFor(const boost::filesystem::path& path) noexcept {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return 0;
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? FILE_FLAG_BACKUP_SEMANTICS : FILE_ATTRIBUTE_NORMAL;
}

}  // namespace

std::error_code acquireLock(const boost::filesystem::path& path, intptr_t& handle) noexcept {
    // Everything but reading and removing is refused to others, and with it a second hold.
    const HANDLE opened = ::CreateFileW(path.c_str(), GENERIC_ALL, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                        OPEN_EXISTING, flagsFor(path), nullptr);
    const std::error_code failure = opened == INVALID_HANDLE_VALUE ? lastError() : std::error_code();
    handle = failure ? kInvalidLockHandle : reinterpret_cast<intptr_t>(opened);
    return failure;
}

std::error_code releaseLock(intptr_t handle) noexcept {
    if (::CloseHandle(reinterpret_cast<HANDLE>(handle)) == FALSE) return lastError();
    return {};
}

bool isHeldByOther(const std::error_code& code) noexcept {
    return code.value() == ERROR_SHARING_VIOLATION || code.value() == ERROR_LOCK_VIOLATION;
}

HoldState probeHold(const boost::filesystem::path& path) {
    constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    // The right to write, and no other, is what a holder does not share. Having it changes nothing.
    const HANDLE opened =
        ::CreateFileW(path.c_str(), FILE_WRITE_DATA, kShareAll, nullptr, OPEN_EXISTING, flagsFor(path), nullptr);
    if (opened == INVALID_HANDLE_VALUE) return isHeldByOther(lastError()) ? HoldState::held : HoldState::unknown;
    ::CloseHandle(opened);
    return HoldState::free;
}

}  // namespace velmora::platform
