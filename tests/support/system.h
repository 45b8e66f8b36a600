// The environment of this process, and the system's command shell.
#pragma once

#include <string>

namespace velmora::test {

// The empty text sets a variable to nothing, which is not the same as removing it.
void setEnvironmentVariable(const char* name, const char* value);

// Runs a line. The exit code; a program that can't be started or was killed gives some other number than its own codes.
[[nodiscard]] int runInShell(const std::string& line);

}  // namespace velmora::test
