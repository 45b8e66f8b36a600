// The watch on the machine's network state. It keeps the state and reports every change through one callback. Where the
// system gives no notification, a poller asks at intervals while the network is down.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>

#include "core/types/mutex.h"
#include "core/utils/taskengine.h"

namespace velmora {

enum class NetworkState : int32_t { unknown = -1, offline = 0, online = 1 };
std::ostream& operator<<(std::ostream& out, NetworkState state);  // "offline", "online", "(unknown)"

// The callback runs on a timer thread, or on the thread that called start() or poll(); it must neither stop nor destroy
// the monitor. A derived class calls stop() in its destructor, so that nothing asks it for the state any more.
//
// Owns the poller, between start() and stop(). The poller asks the platform again only while the last answer was
// offline: polling ends when the network is back, and what is lost later is found by poll().
//
//            start()              online              poll(), and the answer is offline
//   stopped ---------> asking ---------------> resting ---------------------------------> asking again, at intervals
//            stop(), from any of them, leads back to stopped
//
// Threads: any, except that setCallback comes first.
class NetworkMonitor {
public:
    NetworkMonitor();
    virtual ~NetworkMonitor();
    NetworkMonitor(const NetworkMonitor&) = delete;
    NetworkMonitor& operator=(const NetworkMonitor&) = delete;

    virtual NetworkState getNetworkState() = 0;  // asks the platform now; may throw, which ends the polling

    // True if the platform will report changes by itself, through updateNetworkState: there is no poller then.
    virtual bool startListening() { return false; }
    virtual void stopListening() {}

    // Before the first start().
    void setCallback(std::function<void(NetworkState)> callback);

    // Acts from the next wait on. Above 0.
    void setPollInterval(std::chrono::milliseconds interval) noexcept { pollInterval_ = interval; }
    [[nodiscard]] std::chrono::milliseconds pollInterval() const noexcept { return pollInterval_; }

    // start() asks at once, on the calling thread, and so always reports the first state; stop() waits for a poll under
    // way, and the last state stays. Each does nothing the second time in a row.
    void start();
    void stop();

    // Asks again, on the calling thread, for a caller that has reason to doubt the state. Without effect while stopped,
    // while polling is under way, and where the platform reports by itself.
    void poll();

    // The stored state, without asking the platform.
    [[nodiscard]] NetworkState state() const noexcept { return state_; }

    // Keeps the state and reports it, if it is another one.
    void updateNetworkState(NetworkState state);

private:
    // Asks at intervals while the network is down: either `running_` and a timer set or about to be, or neither.
    // The monitor outlives it. stop() and the destructor wait for a poll on a timer thread, and so must not be called
    // from one.
    class Poller {
    public:
        explicit Poller(NetworkMonitor& monitor);  // starts

        // Asks at once, on the calling thread, and goes on asking while the answer is offline. Without effect while it
        // does.
        void start();
        void stop();

    private:
        void onPollTimeout();
        [[nodiscard]] bool pollOnce();

        std::atomic<bool> running_ = false;  // start() decides by exchanging it: a timer is set, or about to be
        NetworkMonitor& monitor_;
        TaskEngine engine_;  // last: its end, before that of the rest, waits for a poll
    };

    void replacePoller(std::shared_ptr<Poller> next) VELMORA_EXCLUDES(pollerMutex_);

    std::atomic<bool> stopped_ = true;                         // start and stop decide by exchanging it
    std::atomic<NetworkState> state_ = NetworkState::unknown;  // changes are found by exchanging it
    std::function<void(NetworkState)> onChange_;
    std::atomic<std::chrono::milliseconds> pollInterval_ = std::chrono::milliseconds(30000);

    Mutex pollerMutex_;
    std::shared_ptr<Poller> poller_ VELMORA_GUARDED_BY(pollerMutex_);
};

// By the registered factory, else a monitor over the platform's network state, which gives no notification.
[[nodiscard]] std::unique_ptr<NetworkMonitor> createNetworkMonitor();

// For a host platform, or a test, that knows better. Null: the platform's again. Monitors that exist stay as they are.
void setNetworkMonitorFactory(std::function<std::unique_ptr<NetworkMonitor>()> factory);

}  // namespace velmora
