#include "core/filesystem/filesystem.h"

#include <boost/filesystem/operations.hpp>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "core/platform/dirlist.h"
#include "core/platform/folderlock.h"
#include "core/platform/folders.h"
#include "core/platform/pathtext.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

namespace fs = boost::filesystem;

const char* const kProductFolder = "com.orvane.velmora";
const char* const kMakerFolder = "Orvane";

// Written only at set-up. Never destroyed: instances that end with the process still ask for their folders.
Path& rootPath() {
    static auto* const root = new Path;
    return *root;
}

Path userDataFolder() {
    int code = 0;
    Path folder(platform::userDataFolder(code));
    if (folder.empty()) {
        VELMORA_LOG_AT(error, "fs", "velmora::Filesystem::getDataFolder")
            << "SHGetKnownFolderPath failed with " << code;
    }
    return folder;
}

template <typename Action>
bool succeeds(Action action) noexcept {
    try {
        action();
        return true;
    } catch (...) {
        return false;
    }
}

// Other programs may use names that can't be converted.
bool toText(const fs::path& name, std::string& text) {
    try {
        text = platform::pathToUtf8(name);
        return true;
    } catch (const std::range_error&) {
        return false;
    }
}

// The stream takes the path in the system's own form, which on some systems no narrow text can express.
template <typename Stream>
bool openStream(Stream& stream, const Path& path, std::ios::openmode mode) {
    stream.open(std::filesystem::path(path.native().native()), mode);
    return stream.is_open() && stream.good();
}

}  // namespace

bool Filesystem::remove(const Path& path) {
    return succeeds([&] { fs::remove(path.native()); });
}

bool Filesystem::removeAll(const Path& path) {
    return succeeds([&] { fs::remove_all(path.native()); });
}

void Filesystem::createDirectories(const Path& path) {
    succeeds([&] { platform::createFolders(path.native()); });
}

void Filesystem::setRootPath(const Path& path) {
    if (!path.exists()) VELMORA_LOG(warn, "fs") << "The rootPath " << path.string() << " does not exist";
    rootPath() = path;
}

Path Filesystem::getDataFolder(bool create) {
    Path folder = rootPath().empty() ? userDataFolder() : rootPath();
    folder /= kProductFolder;
    if (create) createDirectories(folder);
    return folder;
}

Path Filesystem::getLogFolder(bool create) {
    Path folder = rootPath().empty() ? getTempFolder() : rootPath();
    folder /= kMakerFolder;
    folder /= kProductFolder;
    if (create) createDirectories(folder);
    return folder;
}

bool Filesystem::isUsersOwn(const Path& folder) {
    return platform::isUsersOwn(folder.native()) && platform::isUsersOwn(folder.parent().native());
}

Path Filesystem::getTempFolder() { return Path(fs::temp_directory_path()); }

bool Filesystem::listDirectory(const Path& path, const std::function<bool(const std::string&)>& callback) {
    const char* const function = "velmora::Filesystem::listDirectory";
    const auto onChild = [&](const fs::path& child) {
        if (child.native().front() == '.') return true;
        std::string name;
        if (!toText(child, name)) {
            VELMORA_LOGF_AT(warn, "fs", function, "skipped a child whose name is no text");
            return true;
        }
        VELMORA_LOGF_AT(debug, "fs", function, "found child: name=%s", name.c_str());
        return callback(name);
    };
    int code = 0;
    switch (platform::listFolder(path.native(), onChild, code)) {
        case platform::ListOutcome::complete:
            return true;
        case platform::ListOutcome::openFailed:
            VELMORA_LOGF(error, "fs", "FindFirstFile failed: errno=%d path=%s", code, path.string().c_str());
            return false;
        case platform::ListOutcome::readFailed:
            VELMORA_LOGF(error, "fs", "FindNextFile failed: errno=%d path=%s", code, path.string().c_str());
            return false;
    }
    return false;
}

bool Filesystem::trylock(const Path& path, int, intptr_t& handle, bool& busy) {
    const std::string text = path.string();  // may throw: before there is a hold to lose
    const std::error_code failure = platform::acquireLock(path.native(), handle);
    busy = failure && platform::isHeldByOther(failure);
    if (failure) {
        VELMORA_LOGF(warn, "fs", "cannot lock: errno=%d path=%s", failure.value(), text.c_str());
        return false;
    }
    VELMORA_LOGF(info, "fs", "locked path=%s", text.c_str());
    return true;
}

bool Filesystem::unlock(const Path& path, intptr_t& handle) {
    if (const std::error_code failure = platform::releaseLock(handle)) {
        VELMORA_LOGF(warn, "fs", "cannot unlock: errno=%d path=%s", failure.value(), path.string().c_str());
        return false;
    }
    handle = platform::kInvalidLockHandle;
    VELMORA_LOGF(info, "fs", "unlocked path=%s", path.string().c_str());
    return true;
}

bool Filesystem::open(std::fstream& stream, const Path& path, std::ios::openmode mode) {
    return openStream(stream, path, mode);
}

bool Filesystem::open(std::ifstream& stream, const Path& path, std::ios::openmode mode) {
    return openStream(stream, path, mode | std::ios::in);
}

bool Filesystem::open(std::ofstream& stream, const Path& path, std::ios::openmode mode) {
    return openStream(stream, path, mode | std::ios::out);
}

}  // namespace velmora
