#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "core/platform/folderlock.h"

namespace velmora::platform {
namespace {

// A file as the list of locks names it. Some file systems tell another device to stat than to that list, which goes by
// the one of the mount.
struct Identity {
    dev_t statDevice;
    dev_t mountDevice;
    ino_t inode;
};

// "254:0", in that base.
bool parseDevice(const std::string& text, int base, dev_t& device) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) return false;
    device = ::makedev(static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, base)),
                       static_cast<unsigned>(std::strtoul(text.c_str() + colon + 1, nullptr, base)));
    return true;
}

// Lines such as "27 1 254:0 / / rw ...": number of the mount, its parent's, device.
dev_t deviceOfMount(const std::string& mount, dev_t otherwise) {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream words(line);
        std::string number;
        std::string parent;
        std::string text;
        dev_t device = 0;
        if (words >> number >> parent >> text && number == mount && parseDevice(text, 10, device)) return device;
    }
    return otherwise;
}

std::string mountOf(int descriptor) {
    std::ifstream facts("/proc/self/fdinfo/" + std::to_string(descriptor));
    std::string value;
    for (std::string key; facts >> key >> value;) {
        if (key == "mnt_id:") return value;
    }
    return {};
}

// A path that is opened without any right to its contents, so that nobody can notice.
class Handle {
public:
    explicit Handle(const boost::filesystem::path& path) : descriptor_(::open(path.c_str(), O_PATH | O_CLOEXEC)) {}
    ~Handle() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    bool identify(Identity& identity) const {
        struct stat status {};
        if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0) return false;
        identity = {status.st_dev, deviceOfMount(mountOf(descriptor_), status.st_dev), status.st_ino};
        return true;
    }

private:
    const int descriptor_;
};

// Lines such as "1: FLOCK  ADVISORY  WRITE 18938 fe:00:10961730 0 EOF"; one that waits has "->" before its kind.
bool isHoldOn(const std::string& line, const Identity& identity) {
    std::istringstream words(line);
    std::string number;
    std::string kind;
    std::string manner;
    std::string mode;
    std::string process;
    std::string file;
    if (!(words >> number >> kind >> manner >> mode >> process >> file)) return false;
    const size_t lastColon = file.rfind(':');
    dev_t device = 0;
    if (kind != "FLOCK" || mode != "WRITE" || !parseDevice(file, 16, device)) return false;
    return (device == identity.statDevice || device == identity.mountDevice) &&
           std::strtoull(file.c_str() + lastColon + 1, nullptr, 10) == identity.inode;
}

}  // namespace

HoldState probeHold(const boost::filesystem::path& path) {
    Identity identity{};
    std::ifstream locks("/proc/locks");
    if (!locks || !Handle(path).identify(identity)) return HoldState::unknown;
    for (std::string line; std::getline(locks, line);) {
        if (isHoldOn(line, identity)) return HoldState::held;
    }
    return HoldState::free;
}

}  // namespace velmora::platform
