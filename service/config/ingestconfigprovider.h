// The live configuration of one instance, refreshed from its source at the interval that it itself names. A value that
// the host sets reaches a running instance through this refresh, and only through it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "core/types/mutex.h"
#include "core/utils/taskengine.h"
#include "service/config/ingestconfig.h"

namespace velmora {

// Threads: any. The source and the update callback run on the caller of the constructor or on a timer thread, without
// the provider's mutex.
class IngestConfigProvider {
public:
    using Config = service::config::ingest::Config;
    using Fetch = std::function<Config(const std::string& configGuid)>;

    // Fetches at once; the timer is not started.
    IngestConfigProvider(std::string configGuid, Fetch fetch, std::function<void()> onUpdate);
    ~IngestConfigProvider();

    // Begins the timed refreshes; a pending one is dropped. One that fails is logged, and the next one comes all the
    // same.
    void start();
    void stop();
    void refresh();
    void updateConfig(Config config) VELMORA_EXCLUDES(mutex_);
    void scheduleNextUpdate();

    // Reads from the live record under the mutex: provider.read([](const auto& config) { return config.batchSize; }).
    // The reader must not call out.
    template <typename Reader>
    auto read(Reader reader) const VELMORA_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        return reader(*config_);
    }

    // The live record as it is now: a value that later updates replace and do not change.
    [[nodiscard]] std::shared_ptr<const Config> snapshot() const VELMORA_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        return config_;
    }

private:
    void onRefreshTimeout();

    mutable Mutex mutex_;
    const std::string configGuid_;
    std::shared_ptr<const Config> config_ VELMORA_GUARDED_BY(mutex_);
    const Fetch fetch_;
    const std::function<void()> onUpdate_;
    TaskEngine engine_;
};

}  // namespace velmora
