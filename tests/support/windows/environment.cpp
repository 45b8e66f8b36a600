#include "tests/support/environment.h"

#include <windows.h>

namespace velmora::test {

void setEnvironmentVariable(const char* name, const char* value) { ::SetEnvironmentVariableA(name, value); }

}  // namespace velmora::test
