#include "tests/support/system.h"

#include <windows.h>

#include <cstdlib>

namespace velmora::test {

void setEnvironmentVariable(const char* name, const char* value) { ::SetEnvironmentVariableA(name, value); }

// The shell takes one pair of quotation marks off the line.
int runInShell(const std::string& line) { return std::system(("\"" + line + "\"").c_str()); }

}  // namespace velmora::test
