#include "core/platform/folders.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

namespace velmora::platform {
namespace {

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

boost::filesystem::path userDataFolder(int& code) {
    boost::filesystem::path data(environmentText("XDG_DATA_HOME"));
    if (data.is_absolute()) return data;
    std::string home = environmentText("HOME");
    if (home.empty()) home = homeOfPasswordEntry(code);
    if (home.empty()) return {};
    return boost::filesystem::path(home) / ".local" / "share";
}

}  // namespace velmora::platform
