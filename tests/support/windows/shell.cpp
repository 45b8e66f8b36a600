#include "tests/support/shell.h"

#include <cstdlib>

namespace velmora::test {

// The shell takes one pair of quotation marks off the line.
int runInShell(const std::string& line) { return std::system(("\"" + line + "\"").c_str()); }

}  // namespace velmora::test
