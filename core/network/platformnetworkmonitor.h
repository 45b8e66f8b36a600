// The monitor over the platform's network state, which gives no notification.
#pragma once

#include "core/network/networkmonitor.h"

namespace velmora {

class PlatformNetworkMonitor final : public NetworkMonitor {
public:
    ~PlatformNetworkMonitor() override;

    NetworkState getNetworkState() override;
    bool startListening() override { return false; }
    void stopListening() override {}
};

}  // namespace velmora
