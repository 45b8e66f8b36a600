#include "tools/velmora/command.h"

namespace velmora::tool {

void registerCollector(CLI::App& program, int& exitCode) {
    registerCollect(program, exitCode);
    registerReconcile(program, exitCode);
}

}  // namespace velmora::tool
