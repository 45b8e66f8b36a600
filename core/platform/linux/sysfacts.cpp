#include "core/platform/sysfacts.h"

#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string_view>

#include "core/platform/cipher.h"
#include "core/platform/linux/sysfs.h"
#include "core/platform/linux/utf8.h"

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

// A digest as a version 4 guid.
std::string formatGuid(std::string digest) {
    digest[6] = static_cast<char>((digest[6] & 0x0F) | 0x40);
    digest[8] = static_cast<char>((digest[8] & 0x3F) | 0x80);
    std::string text;
    for (size_t i = 0; i < 16; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned>(static_cast<uint8_t>(digest[i])));
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += pair;
    }
    return text;
}

std::string firstMode(const fs::path& connector) { return readFirstLine(connector / "modes"); }

bool isConnected(const fs::path& connector) { return readFirstLine(connector / "status") == "connected"; }

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
    return formatGuid(std::move(digest));
}

DeviceNames deviceNames() {
    return {readFirstLine(kFirmwareFacts / "sys_vendor"), readFirstLine(kFirmwareFacts / "product_family"),
            readFirstLine(kFirmwareFacts / "product_name")};
}

ComputerModel computerModel() {
    ComputerModel computer;
    const DeviceNames names = deviceNames();
    if (!names.manufacturer.empty()) computer.manufacturer = names.manufacturer;
    if (!names.product.empty()) computer.model = names.product;
    return computer;
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

}  // namespace velmora::platform
