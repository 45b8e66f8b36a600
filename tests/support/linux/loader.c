#include "tests/support/loader.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <time.h>

library_handle openLibrary(const char* path) { return dlopen(path, RTLD_NOW | RTLD_LOCAL); }

void* findFunction(library_handle library, const char* name) { return dlsym(library, name); }

int closeLibrary(library_handle library) { return dlclose(library) == 0; }

void waitAMoment(void) {
    const struct timespec moment = {0, 20000000};
    nanosleep(&moment, NULL);
}

void endProcess(int code) { exit(code); }
