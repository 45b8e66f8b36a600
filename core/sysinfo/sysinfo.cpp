#include "core/sysinfo/sysinfo.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "core/platform/sysfacts.h"
#include "core/types/logger.h"
#include "core/types/text.h"
#include "core/utils/strings.h"

namespace velmora::sysinfo {
namespace {

constexpr int kIntegratedOrExternalTouch = 0x3;
constexpr int kIntegratedOrExternalPen = 0xC;

// What asks the system may fail in ways that nobody foresees; an event then goes without the attribute.
template <typename Query>
bool quietly(Query query) noexcept {
    try {
        return query();
    } catch (...) {
        return false;
    }
}

// For what counts as told in any case: a failure leaves the output as it is.
template <typename Query>
bool alwaysTold(Query query) noexcept {
    quietly([&] { return query(), true; });
    return true;
}

// Upper-case pairs joined by hyphens. Services know the text with the NUL character that ends it.
std::string formatAddress(const std::vector<uint8_t>& address) {
    std::string text;
    for (const uint8_t byte : address) {
        char pair[4];
        std::snprintf(pair, sizeof pair, "%.2X-", byte);
        text += pair;
    }
    if (!text.empty()) text.back() = '\0';
    return text;
}

}  // namespace

bool getOSVersion(std::string& out) {
    return alwaysTold([&] {
        const platform::OsVersion version = platform::osVersion();
        out = std::to_string(version.major) + "." + std::to_string(version.minor) + ".";
        VELMORA_LOG_AT(trace, "sysinfo", "velmora::sysinfo::getOSVersion") << "os version=" << out;
        out += std::to_string(version.build);
    });
}

bool getProcessorName(std::string& out) {
    return quietly([&] {
        out = platform::processorName();
        return !out.empty();
    });
}

bool getProcessorSpeed(uint64_t& out) {
    return quietly([&] { return platform::processorSpeed(out); });
}

bool getNumCores(uint64_t& out) {
    return alwaysTold([&] { out = platform::processorCount(); });
}

void getProcessorArchitecture(std::string& out) {
    alwaysTold([&] {
        out = platform::processorArchitecture();
        VELMORA_LOG_AT(trace, "sysinfo", "velmora::sysinfo::getProcessorArchitecture") << "arch=" << out;
    });
}

void getProcessBitness(std::string& out) { out = "64"; }

bool getPlatform(std::string& out) {
    static const std::string platform = [] {
        std::string architecture;
        std::string bitness;
        getProcessorArchitecture(architecture);
        getProcessBitness(bitness);
        return std::string(platform::systemName()) + "-" + architecture + ":" + bitness;
    }();
    out = platform;
    return true;
}

bool getDeviceGuid(std::string& out) {
    return quietly([&] {
        std::string id = platform::machineId();
        std::erase_if(id, [](char c) { return c == '{' || c == '}'; });
        out = trim(id);
        return !out.empty();
    });
}

bool getDeviceName(std::string& out) {
    return quietly([&] {
        const platform::DeviceNames names = platform::deviceNames();
        out = names.manufacturer + "_" + names.family + "_" + names.product;
        std::replace_if(out.begin(), out.end(), isBlank, '-');
        return !out.empty();
    });
}

bool getDisplayResolution(std::string& out) {
    return alwaysTold([&] {
        const platform::DisplaySize size = platform::displaySize();
        out = std::to_string(size.width) + "x" + std::to_string(size.height);
    });
}

bool getDiskSize(uint64_t& out) {
    return quietly([&] {
        const std::error_code failure = platform::systemVolumeSize(out);
        if (failure) {
            VELMORA_LOGF_AT(error, "sysinfo", "velmora::sysinfo::getDiskSize", "SHGetDiskFreeSpace returned error=%d",
                            failure.value());
        }
        return !failure;
    });
}

bool getRAMSize(uint64_t& out) {
    return quietly([&] {
        const std::error_code failure = platform::installedMemory(out);
        if (failure) {
            VELMORA_LOG_AT(error, "sysinfo", "velmora::sysinfo::getRAMSize")
                << "GetPhysicallyInstalledSystemMemory returned error=" << failure.value();
        }
        return !failure;
    });
}

bool getPrimaryMACAddress(std::string& out) {
    return quietly([&] {
        const char* const function = "velmora::sysinfo::getPrimaryMACAddress";
        const platform::AdapterAddress adapter = platform::firstEthernetAddress();
        if (adapter.outcome == platform::AdapterOutcome::outOfMemory) {
            VELMORA_LOG_AT(error, "sysinfo", function) << "Error allocating memory needed to call GetAdaptersinfo";
        }
        if (adapter.outcome == platform::AdapterOutcome::failed) {
            VELMORA_LOG_AT(error, "sysinfo", function) << "GetAdaptersInfo failed with error:" << adapter.code;
        }
        if (adapter.outcome != platform::AdapterOutcome::found) return false;
        out = formatAddress(adapter.bytes);
        return true;
    });
}

bool getLocale(std::string& out) {
    return quietly([&] {
        const std::string locale = platform::userLocale();
        if (locale.empty()) return false;
        out = locale;
        VELMORA_LOG_AT(trace, "sysinfo", "velmora::sysinfo::getLocale") << "locale=" << out;
        return true;
    });
}

bool getPenTouchSupport(std::string& out) {
    return alwaysTold([&] {
        const platform::PenTouch support = platform::penTouch();
        const bool pen = (support.digitizer & kIntegratedOrExternalPen) != 0;
        const bool touch = support.touches >= 1 || (support.digitizer & kIntegratedOrExternalTouch) != 0;
        out = pen ? "supports pen; " : "no pen support; ";
        out += touch ? "supports touch with " + std::to_string(support.touches) + " touch points" : "no touch support";
    });
}

bool getUserAgent(std::string& out) {
    if (quietly([&] { return platform::userAgent(out); })) return true;
    out = "unknown";
    return false;
}

bool getConnectionType(std::string&) { return false; }

std::string getEnvironmentVariable(const char* name) {
    std::string value;
    quietly([&] { return velmora::getEnvironmentVariable(name, value); });
    return value;
}

}  // namespace velmora::sysinfo
