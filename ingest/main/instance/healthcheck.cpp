#include "ingest/main/instance/healthcheck.h"

#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/timestamps.h"

namespace velmora {

HealthCheck::HealthCheck(const IngestConfigProvider& config, const DebugCounters& counters)
    : config_(config), counters_(counters) {
    VELMORA_LOG(always, "healthcheck") << "Initializing healthcheck";
}

void HealthCheck::start() {
    timer_.stop();
    timer_.start();
    armTimer();
}

void HealthCheck::stop() {
    timer_.stop();
    sendHeartbeat();
}

void HealthCheck::armTimer() {
    const uint64_t interval = config_.read([](const auto& config) { return config.heartbeatInterval; });
    timer_.schedule(toMilliseconds(interval), Task([this] {
                        VELMORA_LOG_SCOPE_AT(trace, "healthcheck", "velmora::HealthCheck::start", "timer fire");
                        onHealthCheckTimeout();
                    }));
}

void HealthCheck::onHealthCheckTimeout() {
    VELMORA_LOG_SCOPE(trace, "healthcheck", "health check timeout");
    const ScopeExit rearm([this] { exceptionSafeWrapper([this] { armTimer(); }); });
    sendHeartbeat();
}

void HealthCheck::sendHeartbeat() { sink_(MetaEvent::makeHeartbeat(counters_)); }

}  // namespace velmora
