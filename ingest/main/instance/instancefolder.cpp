#include "ingest/main/instance/instancefolder.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"

namespace velmora {
namespace {

// How often a folder may be removed by others between its creation and the hold, before they are not to blame.
constexpr int kMaxVanished = 16;

LockedPath tryHold(const Path& folder) {
    LockedPath held((Path(folder)));
    // What is gone by now was just deleted by its adopter; what is no folder is nobody's queue.
    if (!held.isLocked() && !folder.exists()) held.setBusy(true);
    return held;
}

LockedPath busyPlaceholder() {
    LockedPath none;
    none.setBusy(true);
    return none;
}

// Digits and nothing else: copies and backups of a folder are no folders of instances.
int64_t folderNumber(const std::string& name, bool create) {
    int32_t number = 0;
    const char* const end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data(), end, number);
    if (error == std::errc() && rest == end && number >= 0) return number;
    if (create) return 0;
    if (error == std::errc::result_out_of_range) throw std::out_of_range("stoi argument out of range");
    throw std::invalid_argument("invalid stoi argument");
}

LockedPath holdNewFolder(const Path& base, int64_t highest) {
    LockedPath held = busyPlaceholder();
    for (int vanished = 0; held.isBusy() && vanished < kMaxVanished;) {
        const Path folder = base / std::to_string(++highest);
        Filesystem::createDirectories(folder);
        if (!folder.exists()) ++vanished;
        held = tryHold(folder);
    }
    return held;
}

}  // namespace

std::unique_ptr<LockedPath> acquireInstanceFolder(const std::string& configGuid, bool create) {
    const Path base = Filesystem::getDataFolder(false) / configGuid / "v1";
    int64_t highest = -1;
    LockedPath held = busyPlaceholder();
    Filesystem::listDirectory(base, [&](const std::string& name) {
        highest = std::max(highest, folderNumber(name, create));
        const Path folder = base / name;
        held = folder.exists() && !folder.isDirectory() ? busyPlaceholder() : tryHold(folder);
        return held.isBusy();
    });
    if (create && held.isBusy()) held = holdNewFolder(base, highest);
    if (held.isLocked()) return std::make_unique<LockedPath>(std::move(held));
    if (create) throw std::system_error(VelmoraError::cache_lock_error);
    return nullptr;
}

}  // namespace velmora
