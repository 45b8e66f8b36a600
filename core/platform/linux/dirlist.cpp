#include "core/platform/dirlist.h"

#include <dirent.h>

#include <cerrno>
#include <memory>

namespace velmora::platform {

ListOutcome listFolder(const boost::filesystem::path& path,
                       const std::function<bool(const boost::filesystem::path& name)>& onChild, int& code) {
    const auto close = [](DIR* folder) { ::closedir(folder); };
    const std::unique_ptr<DIR, decltype(close)> folder(::opendir(path.c_str()), close);
    if (!folder) {
        code = errno;
        return ListOutcome::openFailed;
    }
    for (;;) {
        errno = 0;
        const dirent* const child = ::readdir(folder.get());
        if (child == nullptr && errno == 0) return ListOutcome::complete;
        if (child == nullptr) {
            code = errno;
            return ListOutcome::readFailed;
        }
        if (!onChild(boost::filesystem::path(child->d_name))) return ListOutcome::complete;
    }
}

}  // namespace velmora::platform
