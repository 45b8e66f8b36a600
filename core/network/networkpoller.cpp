#include "core/network/networkpoller.h"

#include "core/network/networkmonitor.h"
#include "core/types/logger.h"

namespace velmora {

NetworkPoller::NetworkPoller(NetworkMonitor& monitor) : monitor_(monitor) { start(); }

void NetworkPoller::start() {
    if (running_.exchange(true)) {
        VELMORA_LOG(trace, "netpoll") << "Network poller timer is already running";
        return;
    }
    VELMORA_LOG(trace, "netpoll") << "Starting network poller";
    engine_.start();
    onPollTimeout();
}

void NetworkPoller::stop() {
    VELMORA_LOG_SCOPE(info, "netpoll", "Stopping network poller");
    running_ = false;
    engine_.stop();
}

void NetworkPoller::onPollTimeout() {
    try {
        if (pollOnce()) return engine_.schedule(monitor_.pollInterval(), [this] { onPollTimeout(); });
    } catch (...) {
        running_ = false;  // no timer is set: the next start() may try again
        throw;
    }
    running_ = false;
}

// True if the network is down.
bool NetworkPoller::pollOnce() {
    const NetworkState state = monitor_.getNetworkState();
    monitor_.updateNetworkState(state);
    VELMORA_LOG(trace, "netpoll") << "network is " << state;
    return state == NetworkState::offline;
}

}  // namespace velmora
