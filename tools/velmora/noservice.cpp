// Where the service side is not built.
#include <stdexcept>

#include "tools/velmora/command.h"
#include "tools/velmora/store.h"

namespace velmora::tool {

std::unique_ptr<Store> openJetStreamStore(const StoreOptions&) {
    throw std::runtime_error("this build of velmora has no JetStream store; give --store a file");
}

void registerServiceSide(CLI::App&, int&) {}

}  // namespace velmora::tool
