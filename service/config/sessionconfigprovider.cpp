#include "service/config/sessionconfigprovider.h"

#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/timestamps.h"

namespace velmora {
namespace {

LogConfig logConfigOf(const SessionConfigProvider::Config& config) {
    return {config.logPrefix, config.logFileRotationSize, config.logFolderSize, config.logFileRetentionPeriod};
}

}  // namespace

SessionConfigProvider::SessionConfigProvider(std::function<Config()> fetch, std::function<void()> onUpdate)
    : fetch_(std::move(fetch)), onUpdate_(std::move(onUpdate)) {
    refresh();
}

SessionConfigProvider::~SessionConfigProvider() {
    exceptionSafeWrapper([this] {
        VELMORA_LOG_AT(info, "session.configprovider", "velmora::SessionConfigProvider::~SessionConfigProvider")
            << "In ~SessionConfigProvider";
        engine_.stop();
    });
}

void SessionConfigProvider::start() {
    engine_.stop();
    engine_.start();
    scheduleNextUpdate();
}

void SessionConfigProvider::stop() { engine_.stop(); }

void SessionConfigProvider::restart() {
    engine_.stop();
    engine_.start();
    refreshAndRearm();
}

void SessionConfigProvider::refresh() {
    updateConfig(fetch_());
    const LoggerUse used;
    if (!used) return;
    const auto [level, limits] = read([](const Config& c) { return std::make_pair(c.logLevel, logConfigOf(c)); });
    setLogLevel(level);
    used->setConfig(limits);
}

void SessionConfigProvider::refreshAndRearm() {
    const ScopeExit rearm([this] { exceptionSafeWrapper([this] { scheduleNextUpdate(); }); });
    refresh();
    if (onUpdate_) onUpdate_();
}

void SessionConfigProvider::updateConfig(Config config) {
    VELMORA_LOG(trace, "session.configprovider") << "Update session config";
    const MutexLock lock(mutex_);
    config_ = std::move(config);
}

void SessionConfigProvider::scheduleNextUpdate() {
    const uint64_t ttl = read([](const Config& c) { return c.configTtl; });
    VELMORA_LOG(trace, "session.configprovider") << "Schedule update for session config after " << ttl << " ms";
    engine_.schedule(toMilliseconds(ttl), Task([this] { refreshAndRearm(); }));
}

}  // namespace velmora
