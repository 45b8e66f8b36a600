// The watch on the machine's network state. It keeps the state and reports every change through one callback. Where the
// system gives no notification, a poller asks at intervals while the network is down.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>

#include "core/types/mutex.h"

namespace velmora {

enum class NetworkState : int32_t { unknown = -1, offline = 0, online = 1 };
std::ostream& operator<<(std::ostream& out, NetworkState state);  // "offline", "online", "(unknown)"

class NetworkPoller;

// The callback runs on a timer thread, or on the thread that called start() or poll(); it must neither stop nor destroy
// the monitor. A derived class calls stop() in its destructor, so that nothing asks it for the state any more.
//
// Threads: any, except that setCallback comes first.
class NetworkMonitor {
public:
    NetworkMonitor();
    virtual ~NetworkMonitor();
    NetworkMonitor(const NetworkMonitor&) = delete;
    NetworkMonitor& operator=(const NetworkMonitor&) = delete;

    virtual NetworkState getNetworkState() = 0;  // asks the platform now
    virtual bool startListening() = 0;           // true if the platform will report changes by itself
    virtual void stopListening() = 0;

    // Before the first start().
    void setCallback(std::function<void(NetworkState)> callback);
    void setPollInterval(std::chrono::milliseconds interval) noexcept { pollInterval_ = interval; }
    [[nodiscard]] std::chrono::milliseconds pollInterval() const noexcept { return pollInterval_; }

    // start() asks at once, and so always reports the first state.
    void start();
    void stop();

    // Asks again, for a caller that has reason to doubt the state.
    void poll();

    // The stored state, without asking the platform.
    [[nodiscard]] NetworkState state() const noexcept { return state_; }

    void updateNetworkState(NetworkState state);

private:
    void replacePoller(std::shared_ptr<NetworkPoller> next) VELMORA_EXCLUDES(pollerMutex_);

    std::atomic<bool> stopped_ = true;                         // start and stop decide by exchanging it
    std::atomic<NetworkState> state_ = NetworkState::unknown;  // changes are found by exchanging it
    std::function<void(NetworkState)> onChange_;
    std::atomic<std::chrono::milliseconds> pollInterval_ = std::chrono::milliseconds(30000);

    Mutex pollerMutex_;
    std::shared_ptr<NetworkPoller> poller_ VELMORA_GUARDED_BY(pollerMutex_);
};

// By the registered factory, else a monitor over the platform's network state.
[[nodiscard]] std::unique_ptr<NetworkMonitor> createNetworkMonitor();
void setNetworkMonitorFactory(std::function<std::unique_ptr<NetworkMonitor>()> factory);

}  // namespace velmora
