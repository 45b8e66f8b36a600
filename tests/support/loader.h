/* The system's loader and the end of a process, for hosts in pure C. */
#pragma once

typedef void* library_handle;

/* Null if the library can't be loaded. */
library_handle openLibrary(const char* path);
void* findFunction(library_handle library, const char* name);
/* 0 if the system refuses. */
int closeLibrary(library_handle library);

void waitAMoment(void);

/* Ends the process without a return from main, but with the libraries' own teardown. */
void endProcess(int code);
