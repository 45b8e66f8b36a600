#include "core/network/networkmonitor.h"

#include <ostream>
#include <utility>

#include "core/network/networkpoller.h"
#include "core/network/platformnetworkmonitor.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

struct Factory {
    Mutex mutex;
    std::function<std::unique_ptr<NetworkMonitor>()> make VELMORA_GUARDED_BY(mutex);
};

Factory& factory() {
    static Factory instance;
    return instance;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, NetworkState state) {
    switch (state) {
        case NetworkState::offline:
            return out << "offline";
        case NetworkState::online:
            return out << "online";
        case NetworkState::unknown:
            break;
    }
    return out << "(unknown)";
}

NetworkMonitor::NetworkMonitor() = default;
NetworkMonitor::~NetworkMonitor() = default;

void NetworkMonitor::setCallback(std::function<void(NetworkState)> callback) { onChange_ = std::move(callback); }

void NetworkMonitor::start() {
    if (!stopped_.exchange(false)) return;
    VELMORA_LOGF(info, "netmon", "Starting network monitor");
    const bool isNotified = startListening();
    updateNetworkState(getNetworkState());
    if (!isNotified) replacePoller(std::make_shared<NetworkPoller>(*this));
}

void NetworkMonitor::stop() {
    if (stopped_.exchange(true)) return;
    VELMORA_LOGF(info, "netmon", "Stopping network monitor");
    replacePoller(nullptr);
    stopListening();
}

void NetworkMonitor::poll() {
    std::shared_ptr<NetworkPoller> poller;
    {
        const MutexLock lock(pollerMutex_);
        poller = poller_;
    }
    if (poller) poller->start();
}

// A stop() that has come meanwhile has found the old poller: the next one is not kept then.
void NetworkMonitor::replacePoller(std::shared_ptr<NetworkPoller> next) {
    {
        const MutexLock lock(pollerMutex_);
        if (!stopped_ || !next) poller_.swap(next);
    }
    if (next) next->stop();  // here, since poll() may hold the poller for a moment longer
}

void NetworkMonitor::updateNetworkState(NetworkState state) {
    if (state_.exchange(state) == state) return;
    VELMORA_LOG(info, "netmon") << "network is " << state;
    if (onChange_) onChange_(state);
}

std::unique_ptr<NetworkMonitor> createNetworkMonitor() {
    std::function<std::unique_ptr<NetworkMonitor>()> make;
    {
        const MutexLock lock(factory().mutex);
        make = factory().make;
    }
    return make ? make() : std::make_unique<PlatformNetworkMonitor>();
}

void setNetworkMonitorFactory(std::function<std::unique_ptr<NetworkMonitor>()> make) {
    const MutexLock lock(factory().mutex);
    factory().make.swap(make);
}

}  // namespace velmora
