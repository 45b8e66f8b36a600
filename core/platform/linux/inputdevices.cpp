#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "core/platform/linux/sysfs.h"
#include "core/platform/sysfacts.h"

namespace velmora::platform {
namespace {

namespace fs = boost::filesystem;

constexpr int kIntegratedTouch = 1;
constexpr int kExternalTouch = 2;
constexpr int kIntegratedPen = 4;
constexpr int kExternalPen = 8;

// A device on one of these can be unplugged.
bool isExternal(const fs::path& device) {
    const std::string bus = readFirstLine(device / "id" / "bustype");
    return bus == "0003" || bus == "0005";  // USB and Bluetooth
}

bool isTouchScreen(const fs::path& device) {
    return maskHasBit(readFirstLine(device / "properties"), INPUT_PROP_DIRECT) &&
           maskHasBit(readFirstLine(device / "capabilities" / "key"), BTN_TOUCH);
}

bool isPen(const fs::path& device) { return maskHasBit(readFirstLine(device / "capabilities" / "key"), BTN_TOOL_PEN); }

// A screen reports contacts by slots if it can tell several apart. Their number is only shown to those who may open the
// device; one contact is what every screen has.
int contactsOf(const fs::path& event) {
    const std::string node = "/dev/input/" + event.filename().string();
    const int descriptor = ::open(node.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) return 1;
    input_absinfo slots{};
    const bool known = ::ioctl(descriptor, EVIOCGABS(ABS_MT_SLOT), &slots) >= 0;
    ::close(descriptor);
    return known ? std::max(1, slots.maximum + 1) : 1;
}

}  // namespace

PenTouch penTouch() {
    PenTouch result;
    for (const fs::path& event : childrenOf("/sys/class/input")) {
        if (event.filename().string().rfind("event", 0) != 0) continue;
        const fs::path device = event / "device";
        if (isPen(device)) {
            result.digitizer |= isExternal(device) ? kExternalPen : kIntegratedPen;
        } else if (isTouchScreen(device)) {
            result.digitizer |= isExternal(device) ? kExternalTouch : kIntegratedTouch;
            result.touches = std::max(result.touches, contactsOf(event));
        }
    }
    return result;
}

}  // namespace velmora::platform
