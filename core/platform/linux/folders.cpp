#include "core/platform/folders.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

namespace velmora::platform {
namespace {

namespace fs = boost::filesystem;

constexpr mode_t kOwnerOnly = 0700;

std::string environmentText(const char* name) {
    const char* const text = std::getenv(name);
    return text == nullptr ? std::string() : std::string(text);
}

std::string homeOfPasswordEntry(int& code) {
    constexpr size_t kLargestEntry = 1 << 20;
    passwd entry{};
    passwd* found = nullptr;
    for (std::vector<char> buffer(4096); buffer.size() <= kLargestEntry; buffer.resize(buffer.size() * 2)) {
        code = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
        if (code == ERANGE) continue;
        if (found != nullptr && found->pw_dir != nullptr) return found->pw_dir;
        if (code == 0) code = ENOENT;
        break;
    }
    return {};
}

}  // namespace

fs::path userDataFolder(int& code) {
    fs::path data(environmentText("XDG_DATA_HOME"));
    if (data.is_absolute()) return data;
    std::string home = environmentText("HOME");
    if (home.empty()) home = homeOfPasswordEntry(code);
    if (home.empty()) return {};
    return fs::path(home) / ".local" / "share";
}

void createFolders(const fs::path& path) {
    if (path.empty() || ::mkdir(path.c_str(), kOwnerOnly) == 0) return;
    if (errno == ENOENT && path.has_parent_path()) {
        createFolders(path.parent_path());
        if (::mkdir(path.c_str(), kOwnerOnly) == 0) return;
    }
    const int code = errno;
    if (!fs::is_directory(path)) {
        throw fs::filesystem_error("mkdir", path, {code, boost::system::system_category()});
    }
}

bool isUsersOwn(const fs::path& folder) {
    struct stat status {};
    return ::lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & S_IWOTH) == 0;
}

}  // namespace velmora::platform
