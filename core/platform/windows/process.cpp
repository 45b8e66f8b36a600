#include "core/platform/process.h"

#include <fcntl.h>
#include <io.h>
#include <objbase.h>
#include <windows.h>
// After windows.h.
#include <shellapi.h>

#include <algorithm>
#include <cstdio>
#include <system_error>

#include "core/platform/windows/system.h"

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

bool isForkedChild() noexcept { return false; }

CancellationHold::CancellationHold() noexcept = default;

CancellationHold::~CancellationHold() = default;

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

bool localOffset(int64_t utcSeconds, std::chrono::seconds& offset) noexcept {
    const int64_t utcTicks = utcSeconds * kTicksPerSecond + kTicksFrom1601To1970;
    const FILETIME utcTime = toFileTime(utcTicks);
    FILETIME localTime{};
    SYSTEMTIME utc{};
    SYSTEMTIME local{};
    if (::FileTimeToSystemTime(&utcTime, &utc) == FALSE) return false;
    if (::SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) == FALSE) return false;
    if (::SystemTimeToFileTime(&local, &localTime) == FALSE) return false;
    offset = std::chrono::seconds((toTicks(localTime) - utcTicks) / kTicksPerSecond);
    return true;
}

std::array<uint8_t, 16> randomGuidBytes() {
    GUID guid{};
    const HRESULT result = ::CoCreateGuid(&guid);
    if (FAILED(result)) throw std::system_error(result, std::system_category(), "CoCreateGuid");
    std::array<uint8_t, 16> bytes{
        static_cast<uint8_t>(guid.Data1 >> 24), static_cast<uint8_t>(guid.Data1 >> 16),
        static_cast<uint8_t>(guid.Data1 >> 8),  static_cast<uint8_t>(guid.Data1),
        static_cast<uint8_t>(guid.Data2 >> 8),  static_cast<uint8_t>(guid.Data2),
        static_cast<uint8_t>(guid.Data3 >> 8),  static_cast<uint8_t>(guid.Data3),
    };
    std::copy_n(guid.Data4, 8, bytes.begin() + 8);
    return bytes;
}

// The texts of main() are in the code page, which does not hold every name.
std::vector<std::string> commandLineArguments(int, const char* const*) {
    int count = 0;
    wchar_t** const texts = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    std::vector<std::string> arguments;
    for (int i = 1; texts != nullptr && i < count; ++i) arguments.push_back(utf8FromWide(texts[i]));
    ::LocalFree(texts);
    return arguments;
}

void prepareStandardStreams() {
    ::_setmode(::_fileno(stdin), _O_BINARY);
    ::_setmode(::_fileno(stdout), _O_BINARY);
    ::SetConsoleOutputCP(CP_UTF8);
}

}  // namespace velmora::platform
