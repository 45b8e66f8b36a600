#include "core/filesystem/lockedpath.h"

#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"

namespace velmora {
namespace {

constexpr int kExclusive = 1;

}  // namespace

LockedPath::LockedPath(Path&& path) : Path(std::move(path)) {
    if (exists()) Filesystem::trylock(*this, kExclusive, handle_, busy_);
}

LockedPath::LockedPath(LockedPath&& other) noexcept
    : Path(std::move(other)),
      handle_(std::exchange(other.handle_, platform::kInvalidLockHandle)),
      busy_(std::exchange(other.busy_, false)) {}

LockedPath& LockedPath::operator=(LockedPath&& other) noexcept {
    LockedPath taken(std::move(other));
    swap(taken);
    return *this;
}

LockedPath::~LockedPath() {
    if (!isLocked()) return;
    exceptionSafeWrapper([this] { Filesystem::unlock(*this, handle_); });
}

void LockedPath::swap(LockedPath& other) noexcept {
    Path::swap(other);
    std::swap(handle_, other.handle_);
    std::swap(busy_, other.busy_);
}

}  // namespace velmora
