#include "core/platform/process.h"

#include <windows.h>

#include "core/platform/windows/text.h"

namespace velmora::platform {
namespace {

// The loader takes the process down: every other thread is already gone.
bool isShuttingDown() noexcept {
    using Query = BOOLEAN(WINAPI*)();
    static const auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
    return query != nullptr && query() != FALSE;
}

bool hasExitCode() noexcept {
    DWORD code = STILL_ACTIVE;
    return ::GetExitCodeProcess(::GetCurrentProcess(), &code) != FALSE && code != STILL_ACTIVE;
}

}  // namespace

uint64_t currentThreadId() noexcept { return ::GetCurrentThreadId(); }

bool isTerminating() noexcept { return hasExitCode() || isShuttingDown(); }

bool environmentVariable(const std::string& name, std::string& value) {
    const std::wstring wideName = wideFromUtf8(name);
    std::wstring text(256, L'\0');
    for (;;) {
        ::SetLastError(ERROR_SUCCESS);
        const DWORD length = ::GetEnvironmentVariableW(wideName.c_str(), text.data(), static_cast<DWORD>(text.size()));
        if (length == 0 && ::GetLastError() != ERROR_SUCCESS) return false;
        const bool complete = length < text.size();
        text.resize(length);  // another thread may have made the text longer meanwhile: then it is asked again
        if (complete) break;
    }
    value = utf8FromWide(text);
    return true;
}

}  // namespace velmora::platform
