#include "core/network/platformnetworkmonitor.h"

#include "core/platform/sysfacts.h"

namespace velmora {

PlatformNetworkMonitor::~PlatformNetworkMonitor() { stop(); }

NetworkState PlatformNetworkMonitor::getNetworkState() {
    return platform::isNetworkAlive() ? NetworkState::online : NetworkState::offline;
}

}  // namespace velmora
