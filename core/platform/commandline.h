// What a program on the command line asks of the system.
#pragma once

#include <string>
#include <vector>

namespace velmora::platform {

// The arguments as UTF-8, without the program's name.
[[nodiscard]] std::vector<std::string> commandLineArguments(int argc, const char* const* argv);

// From now on standard input and output pass bytes on as they are, and a terminal takes what is written as UTF-8. Call
// it before anything is read or written.
void prepareStandardStreams();

}  // namespace velmora::platform
