#include "core/network/networkmonitor.h"

#include <ostream>
#include <utility>

#include "core/platform/sysfacts.h"
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

class PlatformNetworkMonitor final : public NetworkMonitor {
public:
    ~PlatformNetworkMonitor() override { stop(); }
    NetworkState getNetworkState() override {
        return platform::isNetworkAlive() ? NetworkState::online : NetworkState::offline;
    }
};

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
    if (!isNotified) replacePoller(std::make_shared<Poller>(*this));
}

void NetworkMonitor::stop() {
    if (stopped_.exchange(true)) return;
    VELMORA_LOGF(info, "netmon", "Stopping network monitor");
    replacePoller(nullptr);
    stopListening();
}

void NetworkMonitor::poll() {
    std::shared_ptr<Poller> poller;
    {
        const MutexLock lock(pollerMutex_);
        poller = poller_;
    }
    if (poller) poller->start();
}

// A stop() that has come meanwhile has found the old poller: the next one is not kept then.
void NetworkMonitor::replacePoller(std::shared_ptr<Poller> next) {
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

// ---- polling

NetworkMonitor::Poller::Poller(NetworkMonitor& monitor) : monitor_(monitor) { start(); }

void NetworkMonitor::Poller::start() {
    if (running_.exchange(true)) {
        VELMORA_LOG(trace, "netpoll") << "Network poller timer is already running";
        return;
    }
    VELMORA_LOG(trace, "netpoll") << "Starting network poller";
    engine_.start();
    onPollTimeout();
}

void NetworkMonitor::Poller::stop() {
    VELMORA_LOG_SCOPE(info, "netpoll", "Stopping network poller");
    running_ = false;
    engine_.stop();
}

void NetworkMonitor::Poller::onPollTimeout() {
    try {
        if (pollOnce()) return engine_.schedule(monitor_.pollInterval(), [this] { onPollTimeout(); });
    } catch (...) {
        running_ = false;  // no timer is set: the next start() may try again
        throw;
    }
    running_ = false;
}

// True if the network is down.
bool NetworkMonitor::Poller::pollOnce() {
    const NetworkState state = monitor_.getNetworkState();
    monitor_.updateNetworkState(state);
    VELMORA_LOG(trace, "netpoll") << "network is " << state;
    return state == NetworkState::offline;
}

// ---- who makes monitors

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
