// Asks a monitor's platform at intervals for as long as the network is down.
#pragma once

#include <atomic>

#include "core/utils/taskengine.h"

namespace velmora {

class NetworkMonitor;

// The monitor outlives the poller. stop() and the destructor wait for a poll on a timer thread, and so must not be
// called from one.
class NetworkPoller {
public:
    explicit NetworkPoller(NetworkMonitor& monitor);  // starts
    NetworkPoller(const NetworkPoller&) = delete;
    NetworkPoller& operator=(const NetworkPoller&) = delete;

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

}  // namespace velmora
