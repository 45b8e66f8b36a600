#include "core/platform/sysfacts.h"

#include <winsock2.h>
// After winsock2.h.
#include <iphlpapi.h>
#include <shellapi.h>
#include <shlobj.h>
#include <urlmon.h>
#include <windows.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "core/platform/windows/system.h"

namespace velmora::platform {
namespace {

const wchar_t* const kFirmwareKey = L"HARDWARE\\DESCRIPTION\\System\\BIOS";
const wchar_t* const kProcessorKey = L"Hardware\\Description\\System\\CentralProcessor\\0";
const wchar_t* const kMachineKey = L"SOFTWARE\\Microsoft\\SQMClient";

std::string registryText(const wchar_t* key, const wchar_t* name) {
    DWORD bytes = 0;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, nullptr, &bytes) != ERROR_SUCCESS) {
        return {};
    }
    std::wstring text(bytes / sizeof(wchar_t), L'\0');
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, text.data(), &bytes) != ERROR_SUCCESS) {
        return {};
    }
    return utf8FromWide(text.c_str());  // without what follows the terminator
}

SYSTEM_INFO nativeSystem() {
    SYSTEM_INFO info{};
    ::GetNativeSystemInfo(&info);
    return info;
}

constexpr DWORD kLanAlive = 1;

struct LibraryRelease {
    void operator()(HMODULE library) const noexcept { ::FreeLibrary(library); }
};
using Library = std::unique_ptr<std::remove_pointer_t<HMODULE>, LibraryRelease>;

struct HeapRelease {
    void operator()(void* block) const noexcept { ::HeapFree(::GetProcessHeap(), 0, block); }
};
using AdapterList = std::unique_ptr<IP_ADAPTER_INFO, HeapRelease>;

AdapterList allocateAdapters(ULONG bytes) noexcept {
    return AdapterList(static_cast<IP_ADAPTER_INFO*>(::HeapAlloc(::GetProcessHeap(), 0, bytes)));
}

}  // namespace

const char* systemName() noexcept { return "Win"; }

OsVersion osVersion() {
    const DWORD value = ::GetVersion();
    OsVersion version;
    version.major = value & 0xFF;
    version.minor = (value >> 8) & 0xFF;
    version.build = (value & 0x80000000) == 0 ? value >> 16 : 0;
    return version;
}

std::string processorName() { return registryText(kProcessorKey, L"ProcessorNameString"); }

bool processorSpeed(uint64_t& hertz) {
    DWORD megahertz = 0;
    DWORD bytes = sizeof megahertz;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kProcessorKey, L"~MHz", RRF_RT_REG_DWORD, nullptr, &megahertz, &bytes) !=
        ERROR_SUCCESS) {
        return false;
    }
    hertz = uint64_t{megahertz} * 1'000'000;
    return true;
}

uint64_t processorCount() { return nativeSystem().dwNumberOfProcessors; }

std::string processorArchitecture() {
    switch (nativeSystem().wProcessorArchitecture) {
        case 0:
            return "x86";
        case 5:
            return "ARM";
        case 9:
            return "x64";
        case 12:
            return "ARM64";
        default:
            return "unknown";
    }
}

std::string machineId() { return registryText(kMachineKey, L"MachineId"); }

DeviceNames deviceNames() {
    return {registryText(kFirmwareKey, L"SystemManufacturer"), registryText(kFirmwareKey, L"SystemFamily"),
            registryText(kFirmwareKey, L"SystemProductName")};
}

DisplaySize displaySize() { return {::GetSystemMetrics(SM_CXSCREEN), ::GetSystemMetrics(SM_CYSCREEN)}; }

PenTouch penTouch() { return {::GetSystemMetrics(SM_MAXIMUMTOUCHES), ::GetSystemMetrics(SM_DIGITIZER)}; }

std::error_code systemVolumeSize(uint64_t& bytes) {
    ULARGE_INTEGER available{};
    ULARGE_INTEGER total{};
    ULARGE_INTEGER free{};
    if (::SHGetDiskFreeSpaceExW(L"C:", &available, &total, &free) == FALSE) return lastError();
    bytes = total.QuadPart;
    return {};
}

std::error_code installedMemory(uint64_t& bytes) {
    ULONGLONG kilobytes = 0;
    if (::GetPhysicallyInstalledSystemMemory(&kilobytes) == FALSE) return lastError();
    bytes = kilobytes << 10;
    return {};
}

std::string userLocale() {
    wchar_t name[LOCALE_NAME_MAX_LENGTH] = {};
    if (::GetUserDefaultLocaleName(name, LOCALE_NAME_MAX_LENGTH) <= 0) return {};
    return utf8FromWide(name);
}

bool userAgent(std::string& text) {
    char buffer[512] = {};
    DWORD size = sizeof buffer;
    if (FAILED(::ObtainUserAgentString(0, buffer, &size))) return false;
    text = buffer;
    return true;
}

bool isNetworkAlive() noexcept {
    using Query = BOOL(WINAPI*)(LPDWORD);
    const Library library(::LoadLibraryW(L"sensapi.dll"));
    if (!library) return true;
    const auto query =
        reinterpret_cast<Query>(reinterpret_cast<void*>(::GetProcAddress(library.get(), "IsNetworkAlive")));
    if (query == nullptr) return true;
    DWORD flags = kLanAlive;
    return query(&flags) != FALSE;
}

AdapterAddress firstEthernetAddress() {
    AdapterAddress result;
    ULONG size = sizeof(IP_ADAPTER_INFO);
    AdapterList adapters = allocateAdapters(size);
    if (adapters && ::GetAdaptersInfo(adapters.get(), &size) == ERROR_BUFFER_OVERFLOW) {
        adapters = allocateAdapters(size);
    }
    if (!adapters) {
        result.outcome = AdapterOutcome::outOfMemory;
        return result;
    }
    result.code = static_cast<int>(::GetAdaptersInfo(adapters.get(), &size));
    if (result.code != NO_ERROR) {
        result.outcome = AdapterOutcome::failed;
        return result;
    }
    for (const IP_ADAPTER_INFO* each = adapters.get(); each != nullptr; each = each->Next) {
        if (each->Type != MIB_IF_TYPE_ETHERNET) continue;
        result.outcome = AdapterOutcome::found;
        result.bytes.assign(each->Address, each->Address + each->AddressLength);
        break;
    }
    return result;
}

}  // namespace velmora::platform
