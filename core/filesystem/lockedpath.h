// A path together with an exclusive hold on it. The hold ends with the object, or with the process however that ends,
// so a folder whose hold can be had is abandoned and its contents may be adopted. Others may read what is held.
#pragma once

#include <cstdint>

#include "core/filesystem/path.h"
#include "core/platform/folderlock.h"

namespace velmora {

class LockedPath : public Path {
public:
    // Holds nothing.
    LockedPath() = default;

    // Tries once, never waits, creates nothing. A path that does not exist is neither locked nor busy.
    explicit LockedPath(Path&& path);
    LockedPath(LockedPath&& other) noexcept;  // leaves `other` holding nothing
    LockedPath& operator=(LockedPath&& other) noexcept;
    LockedPath(const LockedPath&) = delete;
    LockedPath& operator=(const LockedPath&) = delete;
    ~LockedPath() override;

    [[nodiscard]] bool isLocked() const noexcept { return handle_ != platform::kInvalidLockHandle; }

    // The last attempt failed because somebody, this process included, holds the path.
    [[nodiscard]] bool isBusy() const noexcept { return busy_; }
    void setBusy(bool busy) noexcept { busy_ = busy; }

    void swap(LockedPath& other) noexcept;

private:
    intptr_t handle_ = platform::kInvalidLockHandle;
    bool busy_ = false;
};

}  // namespace velmora
