#include "service/config/ingestconfigprovider.h"

#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/timestamps.h"

namespace velmora {

IngestConfigProvider::IngestConfigProvider(std::string configGuid, Fetch fetch, std::function<void()> onUpdate)
    : configGuid_(std::move(configGuid)), fetch_(std::move(fetch)), onUpdate_(std::move(onUpdate)) {
    refresh();
}

IngestConfigProvider::~IngestConfigProvider() {
    exceptionSafeWrapper([this] {
        VELMORA_LOG_AT(info, "configprovider", "velmora::IngestConfigProvider::~IngestConfigProvider")
            << "In ~IngestConfigProvider";
        engine_.stop();
    });
}

void IngestConfigProvider::start() {
    engine_.stop();
    engine_.start();
    scheduleNextUpdate();
}

void IngestConfigProvider::stop() { engine_.stop(); }

void IngestConfigProvider::refresh() { updateConfig(fetch_(configGuid_)); }

void IngestConfigProvider::updateConfig(Config config) {
    VELMORA_LOG(trace, "configprovider") << "Update config for configGuid=" << configGuid_;
    std::shared_ptr<const Config> next = std::make_shared<Config>(std::move(config));
    const MutexLock lock(mutex_);
    config_.swap(next);
}

void IngestConfigProvider::scheduleNextUpdate() {
    const uint64_t ttl = read([](const Config& config) { return config.configTtl; });
    VELMORA_LOG(trace, "configprovider") << "Schedule update for configGuid=" << configGuid_ << " after " << ttl
                                         << " ms";
    engine_.schedule(toMilliseconds(ttl), Task([this] { onRefreshTimeout(); }));
}

void IngestConfigProvider::onRefreshTimeout() {
    const ScopeExit rearm([this] { exceptionSafeWrapper([this] { scheduleNextUpdate(); }); });
    refresh();
    if (onUpdate_) onUpdate_();
}

}  // namespace velmora
