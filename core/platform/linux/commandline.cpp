#include "core/platform/commandline.h"

namespace velmora::platform {

std::vector<std::string> commandLineArguments(int argc, const char* const* argv) {
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

void prepareStandardStreams() {}

}  // namespace velmora::platform
