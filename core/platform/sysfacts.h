// Facts about the machine, asked anew at each call. Text is UTF-8; what the system does not tell is empty or zero
// unless said otherwise.
#pragma once

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

namespace velmora::platform {

struct OsVersion {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t build = 0;
};

struct DeviceNames {
    std::string manufacturer;
    std::string family;
    std::string product;
};

struct DisplaySize {
    int width = 0;
    int height = 0;
};

// `touches` is the largest number of contacts; `digitizer` has bits of integrated touch (1), external touch (2),
// integrated pen (4) and external pen (8).
struct PenTouch {
    int touches = 0;
    int digitizer = 0;
};

enum class AdapterOutcome { found, none, outOfMemory, failed };

struct AdapterAddress {
    AdapterOutcome outcome = AdapterOutcome::none;
    int code = 0;  // the system's number for `failed`
    std::vector<uint8_t> bytes;
};

[[nodiscard]] const char* systemName() noexcept;  // how platform names begin: "Win" or "Linux"
[[nodiscard]] OsVersion osVersion();
[[nodiscard]] std::string processorName();
[[nodiscard]] bool processorSpeed(uint64_t& hertz);
[[nodiscard]] uint64_t processorCount();
[[nodiscard]] std::string processorArchitecture();  // "x86", "ARM", "x64", "ARM64" or "unknown"

// An identifier that the machine keeps. It is never one that the system declares confidential.
[[nodiscard]] std::string machineId();

[[nodiscard]] DeviceNames deviceNames();
[[nodiscard]] DisplaySize displaySize();
[[nodiscard]] PenTouch penTouch();
[[nodiscard]] std::error_code systemVolumeSize(uint64_t& bytes);
[[nodiscard]] std::error_code installedMemory(uint64_t& bytes);
[[nodiscard]] AdapterAddress firstEthernetAddress();
[[nodiscard]] std::string userLocale();  // "en-US"
[[nodiscard]] bool userAgent(std::string& text);

// Whether the machine is connected to a network. True as well if the system can't be asked: not knowing must not hold
// anything back.
[[nodiscard]] bool isNetworkAlive() noexcept;

}  // namespace velmora::platform
