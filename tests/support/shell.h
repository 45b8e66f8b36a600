// Runs a line by the system's command shell.
#pragma once

#include <string>

namespace velmora::test {

// The exit code; a program that can't be started or was killed gives some other number than its own codes.
[[nodiscard]] int runInShell(const std::string& line);

}  // namespace velmora::test
