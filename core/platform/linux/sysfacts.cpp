#include "core/platform/sysfacts.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/input.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "core/platform/cipher.h"
#include "core/platform/linux/system.h"
#include "core/types/text.h"

namespace velmora::platform {
namespace {

namespace fs = boost::filesystem;

const fs::path kFirmwareFacts = "/sys/class/dmi/id";
const fs::path kFrequencies = "/sys/devices/system/cpu/cpu0/cpufreq";

// Ties the identifier to its purpose: other programs that derive one from the same machine get another.
const char* const kMachineIdKey = "com.orvane.velmora.device";

std::string cpuInfo(std::string_view wanted) {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        const std::string name = line.substr(0, line.find_last_not_of(" \t", colon - 1) + 1);
        const size_t value = line.find_first_not_of(" \t", colon + 1);
        if (name == wanted) return value == std::string::npos || !isUtf8(line) ? std::string() : line.substr(value);
    }
    return {};
}

std::string firstMode(const fs::path& connector) { return readFirstLine(connector / "modes"); }

bool isConnected(const fs::path& connector) { return readFirstLine(connector / "status") == "connected"; }

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

using Interfaces = std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)>;

// Empty if the system refuses; `code` then holds its number.
Interfaces queryInterfaces(int& code) noexcept {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) code = errno;
    return {list, &::freeifaddrs};
}

const sockaddr_ll* hardwareAddress(const ifaddrs& interface) {
    if (interface.ifa_addr == nullptr || interface.ifa_addr->sa_family != AF_PACKET) return nullptr;
    return reinterpret_cast<const sockaddr_ll*>(interface.ifa_addr);
}

bool isEthernet(const sockaddr_ll& address) {
    const auto* const end = address.sll_addr + std::min<size_t>(address.sll_halen, sizeof address.sll_addr);
    return address.sll_hatype == ARPHRD_ETHER && std::any_of(address.sll_addr, end, [](uint8_t b) { return b != 0; });
}

// Bridges, tunnels and container links look like Ethernet as well, and their addresses change from run to run.
bool isPhysical(const std::string& name) {
    boost::system::error_code ignored;
    const fs::path facts = fs::path("/sys/class/net") / name;
    return fs::exists(facts / "device", ignored) && !fs::exists(facts / "wireless", ignored);
}

}  // namespace

const char* systemName() noexcept { return "Linux"; }

OsVersion osVersion() {
    OsVersion version;
    utsname names{};
    if (::uname(&names) == 0) {
        std::sscanf(names.release, "%u.%u.%u", &version.major, &version.minor, &version.build);
    }
    return version;
}

std::string processorName() { return cpuInfo("model name"); }

bool processorSpeed(uint64_t& hertz) {
    for (const char* const limit : {"base_frequency", "cpuinfo_max_freq"}) {
        const uint64_t kilohertz = std::strtoull(readFirstLine(kFrequencies / limit).c_str(), nullptr, 10);
        if (kilohertz == 0) continue;
        hertz = kilohertz * 1000;
        return true;
    }
    const auto megahertz = static_cast<uint64_t>(std::strtod(cpuInfo("cpu MHz").c_str(), nullptr));
    if (megahertz == 0) return false;
    hertz = megahertz * 1'000'000;
    return true;
}

uint64_t processorCount() {
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<uint64_t>(count) : 1;
}

std::string processorArchitecture() {
    static const std::map<std::string_view, const char*> names{{"x86_64", "x64"}, {"aarch64", "ARM64"},
                                                               {"i686", "x86"},   {"i586", "x86"},
                                                               {"armv7l", "ARM"}, {"armv6l", "ARM"}};
    utsname system{};
    if (::uname(&system) != 0) return "unknown";
    const auto found = names.find(system.machine);
    return found == names.end() ? "unknown" : found->second;
}

// The system's identifier is confidential; only what a one-way function makes of it leaves the machine.
std::string machineId() {
    const std::string id = readFirstLine("/etc/machine-id");
    if (id.empty() || id == "uninitialized") return {};
    std::string digest;
    const std::string inner = std::string(kMachineIdKey) + ":" + id;
    if (hashSha256(inner, digest).failedStep != CipherStep::none) return {};
    std::array<uint8_t, 16> bytes;
    std::copy_n(digest.begin(), bytes.size(), bytes.begin());
    return formatGuid(bytes);
}

DeviceNames deviceNames() {
    return {readFirstLine(kFirmwareFacts / "sys_vendor"), readFirstLine(kFirmwareFacts / "product_family"),
            readFirstLine(kFirmwareFacts / "product_name")};
}

DisplaySize displaySize() {
    DisplaySize size;
    for (const fs::path& connector : childrenOf("/sys/class/drm")) {
        if (!isConnected(connector)) continue;
        if (std::sscanf(firstMode(connector).c_str(), "%dx%d", &size.width, &size.height) == 2) return size;
    }
    return {};
}

std::error_code systemVolumeSize(uint64_t& bytes) {
    struct statvfs volume {};
    if (::statvfs("/", &volume) != 0) return {errno, std::system_category()};
    bytes = uint64_t{volume.f_blocks} * volume.f_frsize;
    return {};
}

std::error_code installedMemory(uint64_t& bytes) {
    struct sysinfo memory {};
    if (::sysinfo(&memory) != 0) return {errno, std::system_category()};
    bytes = uint64_t{memory.totalram} * memory.mem_unit;
    return {};
}

// "en_US.UTF-8@euro" becomes "en-US"; the locales of the C language name no language.
std::string userLocale() {
    for (const char* const variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* const value = std::getenv(variable);
        if (value == nullptr || *value == '\0') continue;
        std::string locale(value);
        locale.erase(std::min(locale.find_first_of(".@"), locale.size()));
        if (locale == "C" || locale == "POSIX" || !isUtf8(locale)) return {};
        if (const size_t underscore = locale.find('_'); underscore != std::string::npos) locale[underscore] = '-';
        return locale;
    }
    return {};
}

bool userAgent(std::string&) { return false; }

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

bool isNetworkAlive() noexcept {
    int code = 0;
    const Interfaces interfaces = queryInterfaces(code);
    bool anyAdapter = false;
    for (const ifaddrs* each = interfaces.get(); each != nullptr; each = each->ifa_next) {
        if ((each->ifa_flags & IFF_LOOPBACK) != 0) continue;
        if ((each->ifa_flags & IFF_UP) != 0 && (each->ifa_flags & IFF_RUNNING) != 0) return true;
        anyAdapter = true;
    }
    return !anyAdapter;
}

AdapterAddress firstEthernetAddress() {
    AdapterAddress result;
    const Interfaces interfaces = queryInterfaces(result.code);
    if (result.code != 0) {
        result.outcome = result.code == ENOMEM ? AdapterOutcome::outOfMemory : AdapterOutcome::failed;
        return result;
    }
    for (const ifaddrs* each = interfaces.get(); each != nullptr; each = each->ifa_next) {
        const sockaddr_ll* const address = hardwareAddress(*each);
        if (address == nullptr || !isEthernet(*address)) continue;
        const bool physical = isPhysical(each->ifa_name);
        if (result.outcome == AdapterOutcome::found && !physical) continue;
        result.outcome = AdapterOutcome::found;
        result.bytes.assign(address->sll_addr, address->sll_addr + address->sll_halen);
        if (physical) break;
    }
    return result;
}

}  // namespace velmora::platform
