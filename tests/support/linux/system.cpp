#include "tests/support/system.h"

#include <sys/wait.h>

#include <cstdlib>

namespace velmora::test {

void setEnvironmentVariable(const char* name, const char* value) { ::setenv(name, value, 1); }

int runInShell(const std::string& line) {
    const int status = std::system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace velmora::test
