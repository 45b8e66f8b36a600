#include "tools/velmora/command.h"

namespace velmora::tool {

void registerCollector(CLI::App&, int&) {}

}  // namespace velmora::tool
