#include "tests/support/environment.h"

#include <cstdlib>

namespace velmora::test {

void setEnvironmentVariable(const char* name, const char* value) { ::setenv(name, value, 1); }

}  // namespace velmora::test
