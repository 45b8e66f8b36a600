// The operations on the file tree, in one place. Messages go to channel "fs".
#pragma once

#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

#include "core/filesystem/path.h"

namespace velmora {

class Filesystem {
public:
    // True if no failure occurred; nothing is logged. removeAll takes a tree.
    static bool remove(const Path& path);
    static bool removeAll(const Path& path);

    // With parents, for the user alone where the system has modes; a failure is swallowed.
    static void createDirectories(const Path& path);

    // Puts data and logs below a folder of the caller's choice instead of the user's. Only at set-up. A folder that
    // does not exist is logged and takes effect all the same.
    static void setRootPath(const Path& path);

    // <root or user data folder>/com.orvane.velmora and <root or temporary folder>/Orvane/com.orvane.velmora.
    [[nodiscard]] static Path getDataFolder(bool create);
    [[nodiscard]] static Path getLogFolder(bool create);
    [[nodiscard]] static Path getTempFolder();

    // Whether the folder and the one around it are the user's own (platform::isUsersOwn), as the log folder has to be:
    // others may have been the first to use its name in a temporary folder that is shared.
    [[nodiscard]] static bool isUsersOwn(const Path& folder);

    // Calls back with the name of each child, files and folders alike, in the system's order; names that begin with a
    // full stop are skipped, and with a warning those that are no text. The callback ends the listing by returning
    // false. False if the folder can't be read.
    static bool listDirectory(const Path& path, const std::function<bool(const std::string&)>& callback);

    // An exclusive hold on a file or folder; use LockedPath. `intention` has no effect. On failure `busy` tells
    // "somebody holds it" from everything else.
    static bool trylock(const Path& path, int intention, intptr_t& handle, bool& busy);
    static bool unlock(const Path& path, intptr_t& handle);

    // Open a stream on the path; whether it is open and good.
    [[nodiscard]] static bool open(std::fstream& stream, const Path& path, std::ios::openmode mode);
    [[nodiscard]] static bool open(std::ifstream& stream, const Path& path, std::ios::openmode mode);
    [[nodiscard]] static bool open(std::ofstream& stream, const Path& path, std::ios::openmode mode);
};

}  // namespace velmora
