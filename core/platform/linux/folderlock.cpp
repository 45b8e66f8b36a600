#include "core/platform/folderlock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace velmora::platform {
namespace {

std::error_code lastError() noexcept { return {errno, std::system_category()}; }

std::error_code lockDescriptor(int descriptor) noexcept {
    while (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR) return lastError();
    }
    return {};
}

// Between opening and locking, another process may have removed the path or put something else there. A hold on what
// nobody can reach any more would protect nothing.
bool stillAt(const boost::filesystem::path& path, int descriptor) noexcept {
    struct stat held {};
    struct stat present {};
    return ::fstat(descriptor, &held) == 0 && ::stat(path.c_str(), &present) == 0 && held.st_dev == present.st_dev &&
           held.st_ino == present.st_ino;
}

}  // namespace

std::error_code acquireLock(const boost::filesystem::path& path, intptr_t& handle) noexcept {
    handle = kInvalidLockHandle;
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) return lastError();
    std::error_code failure = lockDescriptor(descriptor);
    if (!failure && !stillAt(path, descriptor)) failure = {EWOULDBLOCK, std::system_category()};
    if (failure) {
        ::close(descriptor);
        return failure;
    }
    handle = descriptor;
    return {};
}

std::error_code releaseLock(intptr_t handle) noexcept {
    const int descriptor = static_cast<int>(handle);
    // A child that was forked meanwhile shares the hold; closing alone would leave it in force.
    if (::flock(descriptor, LOCK_UN) != 0 && errno == EBADF) return lastError();
    if (::close(descriptor) != 0 && errno != EINTR) return lastError();
    return {};
}

bool isHeldByOther(const std::error_code& code) noexcept { return code.value() == EWOULDBLOCK; }

}  // namespace velmora::platform
