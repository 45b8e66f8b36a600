#include "core/platform/sysfacts.h"

#include <winsock2.h>
// After winsock2.h.
#include <iphlpapi.h>
#include <objbase.h>
#include <oleauto.h>
#include <shellapi.h>
#include <shlobj.h>
#include <urlmon.h>
#include <wbemidl.h>
#include <windows.h>

#include <memory>
#include <stdexcept>
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

template <typename Interface>
class ComPointer {
public:
    ComPointer() = default;
    ~ComPointer() {
        if (object_ != nullptr) object_->Release();
    }
    ComPointer(const ComPointer&) = delete;
    ComPointer& operator=(const ComPointer&) = delete;

    Interface** out() { return &object_; }
    Interface* get() const { return object_; }
    Interface* operator->() const { return object_; }

private:
    Interface* object_ = nullptr;
};

class SystemString {
public:
    explicit SystemString(const wchar_t* text) : text_(::SysAllocString(text)) {}
    ~SystemString() { ::SysFreeString(text_); }
    SystemString(const SystemString&) = delete;
    SystemString& operator=(const SystemString&) = delete;

    BSTR get() const { return text_; }

private:
    BSTR text_;
};

class ComApartment {
public:
    ComApartment() : entered_(SUCCEEDED(::CoInitialize(nullptr))) {}
    ~ComApartment() {
        if (entered_) ::CoUninitialize();
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;

private:
    const bool entered_;  // not if the host has made the thread's apartment of another kind, which serves as well
};

bool connect(IWbemLocator& locator, IWbemServices** services) {
    const SystemString space(L"ROOT\\CIMV2");
    if (FAILED(locator.ConnectServer(space.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr, services))) {
        return false;
    }
    return SUCCEEDED(::CoSetProxyBlanket(*services, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                         RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE));
}

bool queryComputer(IWbemServices& services, IWbemClassObject** computer) {
    const SystemString language(L"WQL");
    const SystemString query(L"SELECT * FROM Win32_ComputerSystem");
    ComPointer<IEnumWbemClassObject> rows;
    if (FAILED(services.ExecQuery(language.get(), query.get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                  nullptr, rows.out()))) {
        return false;
    }
    ULONG count = 0;
    return SUCCEEDED(rows->Next(WBEM_INFINITE, 1, computer, &count)) && count == 1;
}

class Variant {
public:
    Variant() { ::VariantInit(&value_); }
    ~Variant() { ::VariantClear(&value_); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;

    VARIANT* get() { return &value_; }

private:
    VARIANT value_;
};

// Leaves the text as it is if the property can't be had or is no text.
void readProperty(IWbemClassObject& computer, const wchar_t* name, std::string& text) {
    Variant value;
    if (FAILED(computer.Get(name, 0, value.get(), nullptr, nullptr))) return;
    if ((V_VT(value.get()) & VT_ARRAY) != 0) {
        text = "Unknown";
    } else if (V_VT(value.get()) == VT_BSTR && V_BSTR(value.get()) != nullptr) {
        try {
            text = utf8FromWide(V_BSTR(value.get()));
        } catch (const std::range_error&) {
        }
    }
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

ComputerModel computerModel() {
    ComputerModel result;
    const ComApartment apartment;
    ComPointer<IWbemLocator> locator;
    if (FAILED(::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                  reinterpret_cast<void**>(locator.out())))) {
        return result;
    }
    ComPointer<IWbemServices> services;
    if (!connect(*locator.get(), services.out())) return result;
    ComPointer<IWbemClassObject> computer;
    if (!queryComputer(*services.get(), computer.out())) return result;
    readProperty(*computer.get(), L"Manufacturer", result.manufacturer);
    readProperty(*computer.get(), L"Model", result.model);
    return result;
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
