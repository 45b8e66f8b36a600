// The live session configuration, refreshed from its source at the interval that it itself names. A refresh also sets
// the logger's level and limits.
#pragma once

#include <functional>
#include <utility>

#include "core/types/mutex.h"
#include "core/utils/taskengine.h"
#include "service/config/sessionconfig.h"

namespace velmora {

// Threads: any. The source and the update callback run on the caller of the constructor, of restart() or on a timer
// thread, without the provider's mutex.
class SessionConfigProvider {
public:
    using Config = service::config::session::Config;

    // Fetches at once; the timer is not started.
    SessionConfigProvider(std::function<Config()> fetch, std::function<void()> onUpdate);
    ~SessionConfigProvider();

    void start();
    void stop();

    // Drops the pending refresh, refreshes now, and begins a new period, also if the refresh throws.
    void restart();
    void refresh();
    void updateConfig(Config config) VELMORA_EXCLUDES(mutex_);
    void scheduleNextUpdate();

    // Reads from the live record under the mutex. The reader must not call out.
    template <typename Reader>
    auto read(Reader reader) const VELMORA_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        return reader(config_);
    }

private:
    void refreshAndRearm();

    mutable Mutex mutex_;
    Config config_ VELMORA_GUARDED_BY(mutex_);
    const std::function<Config()> fetch_;
    const std::function<void()> onUpdate_;
    TaskEngine engine_;
};

}  // namespace velmora
