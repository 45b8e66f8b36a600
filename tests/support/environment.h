#pragma once

namespace velmora::test {

// Sets a variable of this process; the empty text sets it to nothing, which is not the same as removing it.
void setEnvironmentVariable(const char* name, const char* value);

}  // namespace velmora::test
