#include "tests/support/shell.h"

#include <sys/wait.h>

#include <cstdlib>

namespace velmora::test {

int runInShell(const std::string& line) {
    const int status = std::system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace velmora::test
