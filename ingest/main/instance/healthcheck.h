// Sends a heartbeat event at a configured interval for as long as an instance lives.
#pragma once

#include <functional>

#include "core/utils/taskengine.h"
#include "ingest/event/metaevent.h"
#include "service/config/ingestconfigprovider.h"

namespace velmora {

class HealthCheck {
public:
    HealthCheck(const IngestConfigProvider& config, const DebugCounters& counters);

    // Where heartbeats go; any thread. Before start().
    void setSink(std::function<void(MetaEvent)> sink) { sink_ = std::move(sink); }

    void start();

    // Ends the timer, waiting for a running one, and sends one last heartbeat on the calling thread.
    void stop();

private:
    void armTimer();
    void onHealthCheckTimeout();
    void sendHeartbeat();

    const IngestConfigProvider& config_;
    std::function<void(MetaEvent)> sink_;
    const DebugCounters& counters_;
    TaskEngine timer_;
};

}  // namespace velmora
