#include "core/platform/randomaccessfile.h"

#include <utility>

namespace velmora::platform {
namespace {

// Never destroyed: files are opened until the last object of the process is gone.
RandomAccessFileOpener& installedOpener() {
    static auto* const opener = new RandomAccessFileOpener;
    return *opener;
}

}  // namespace

void setRandomAccessFileOpener(RandomAccessFileOpener opener) { installedOpener() = std::move(opener); }

std::unique_ptr<RandomAccessFile> openRandomAccessFile(const boost::filesystem::path& path, bool create) {
    return installedOpener() ? installedOpener()(path, create) : openSystemFile(path, create);
}

}  // namespace velmora::platform
