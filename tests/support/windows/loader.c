#include "tests/support/loader.h"

#include <windows.h>

#include <string.h>

library_handle openLibrary(const char* path) {
    wchar_t wide[1024];
    if (MultiByteToWideChar(CP_UTF8, 0, path, -1, wide, 1024) == 0) return NULL;
    return LoadLibraryW(wide);
}

void* findFunction(library_handle library, const char* name) {
    FARPROC function = GetProcAddress((HMODULE)library, name);
    void* pointer = NULL;
    memcpy(&pointer, &function, sizeof pointer);
    return pointer;
}

int closeLibrary(library_handle library) { return FreeLibrary((HMODULE)library) != 0; }

void waitAMoment(void) { Sleep(20); }

void endProcess(int code) { ExitProcess((UINT)code); }
