#include "core/platform/commandline.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

// After windows.h, which it builds on.
#include <shellapi.h>

#include <cstdio>

#include "core/platform/windows/text.h"

namespace velmora::platform {

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
