#include <winsock2.h>
// After winsock2.h.
#include <iphlpapi.h>
#include <windows.h>

#include <memory>
#include <type_traits>

#include "core/platform/netstate.h"
#include "core/platform/sysfacts.h"

namespace velmora::platform {
namespace {

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
