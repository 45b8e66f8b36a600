#include "ingest/session/session.h"

#include <algorithm>
#include <boost/regex.hpp>
#include <mutex>
#include <utility>

#include "core/crypt/crypt.h"
#include "core/json/mergejson.h"
#include "core/logging/defaultlogger.h"
#include "core/platform/pool.h"
#include "core/types/exceptions.h"
#include "core/types/log.h"
#include "core/utils/durations.h"
#include "core/utils/scopeexit.h"
#include "core/utils/strings.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/eventpreset.h"
#include "ingest/session/globalconfig.h"

namespace velmora {
namespace {

std::atomic<Session*> currentSession = nullptr;  // set by the session's constructor, cleared by its destructor

}  // namespace

// Where the pools' threads can't be waited for, nothing can be stopped: what they hold may stay locked for ever. The
// session is then left as it is; its events are on disk.
class Session::SessionOwner {
public:
    SessionOwner() : session_((bringUpWhatOutlivesIt(), new Session)) {}
    ~SessionOwner() {
        if (platform::canAwaitPools()) delete session_;
    }
    SessionOwner(const SessionOwner&) = delete;
    SessionOwner& operator=(const SessionOwner&) = delete;

    [[nodiscard]] Session& session() const { return *session_; }

private:
    // What the teardown at exit still uses ends in the reverse order of its coming up, so it has to come up before: the
    // cipher's library, whose clean-up has to follow the last thread, the blocks that Boost.Regex keeps for reuse, and
    // the pools.
    static void bringUpWhatOutlivesIt() {
        static_cast<void>(Crypt(std::string()));
        static_cast<void>(boost::regex_match("", boost::regex("")));
        platform::defaultPool();
        platform::defaultTimer();
    }

    Session* const session_;
};

Session& Session::getInstance() {
    static const SessionOwner owner;
    return owner.session();
}

Session* Session::current() noexcept { return currentSession; }

Session::LoggerEnd::~LoggerEnd() {
    exceptionSafeWrapper([] { setLogger(nullptr); });
}

Session::Session()
    : sessionGuid_(makeGuid()),
      configProvider_([this] {
          exceptionSafeWrapper([this] { installDefaultLogger(); });
          return std::make_unique<SessionConfigProvider>([this] { return fetchConfig(); },
                                                         [this] { onConfigUpdated(); });
      }()),
      networkMonitor_(createNetworkMonitor()),
      identityManager_(*this, *configProvider_, [this] { return getTransferEngine(); }) {
    VELMORA_LOGF(info, "session", "initialize session: sdk-version=%s session-guid=%s", kSdkVersion,
                 getSessionGuid().c_str());
    if (logger() != nullptr) logger()->start();
    connect();
    configProvider_->start();
    currentSession = this;
}

// Fails where the system names no temporary folder; there is no log then.
void Session::installDefaultLogger() {
    setDefaultLogger(std::make_unique<DefaultLogger>(
        getGlobalConfig().logLevel, [this](const std::string& reason, uint64_t count, uint64_t folderSize) {
            scheduleMetaEvent(MetaEvent::makeSizeWarning("log", reason, count, folderSize));
        }));
}

void Session::connect() {
    networkMonitor_->setCallback([this](NetworkState state) { onNetworkStateChange(state); });
    onConfigUpdated();
    identityManager_.setCallbacks({
        [this](std::shared_ptr<service::oswin::Profile> profile) { scheduleProfile(std::move(profile)); },
        [this] { scheduleStateUpdate(); },
        [this](MetaEvent event) { scheduleMetaEvent(std::move(event)); },
        [this](int32_t code) { scheduleError(code); },
    });
}

Session::~Session() {
    currentSession = nullptr;
    exceptionSafeWrapper([this] {
        configProvider_->stop();
        networkMonitor_->stop();
        stop();
    });
}

void Session::setGlobalConfigValue(const std::string& path, const std::string& value) {
    overwriteGlobalConfig(jsonFromPath(path, value));
    if (Session* const session = current()) session->adoptGlobalConfig();
}

void Session::adoptGlobalConfig() {
    schedule(Task([this] { configProvider_->restart(); }));
}

service::config::session::Config Session::fetchConfig() {
    VELMORA_LOG_AT(debug, "session", "velmora::Session::onFetchConfig") << "Fetch session config";
    return getGlobalConfig();
}

void Session::onConfigUpdated() {
    const uint64_t interval = configProvider_->read([](const auto& config) { return config.pollInterval; });
    networkMonitor_->setPollInterval(toMilliseconds(interval));
}

void Session::startIngest(const std::string& configGuid, const std::string& commonData,
                          velmora_ingest_error_callback errorCallback, IngestInstance** out) {
    {
        const std::unique_lock<SharedMutex> lock(instancesLock_);
        if (const auto found = instances_.find(configGuid); found != instances_.end()) {
            *out = found->second.get();
            return;
        }
        std::shared_ptr<IngestInstance> instance = makeIngestInstance(*this, configGuid, commonData, errorCallback);
        *out = instance.get();
        instances_.emplace(configGuid, std::move(instance));
    }
    if (auto profile = identityManager_.profile()) scheduleProfile(std::move(profile));
}

void Session::stopIngest(IngestInstance* instance, velmora_ingest_completion_callback callback, void* userData) {
    if (callback == nullptr) {
        if (const std::error_code result = stopBody(instance)) throw std::system_error(result);
        return;
    }
    schedule(Task([this, instance, callback, userData] {
        const std::error_code result = stopBody(instance);
        VELMORA_LOG_SCOPE_AT(info, "session", "velmora::Session::stopIngest", "invoke stop completion callback");
        callback(reinterpret_cast<velmora_ingest_instance>(instance), toVelmoraError(result), userData);
    }));
}

std::error_code Session::stopBody(IngestInstance* instance) noexcept {
    try {
        VELMORA_LOG_SCOPE_AT(info, "session", "velmora::Session::stopIngest", "stop task");
        const std::unique_lock<SharedMutex> lock(instancesLock_);
        if (!hasIngestInstance(instance)) return VelmoraError::ingest_instance_not_found;
        instances_.erase(instance->getConfigGuid());
        return {};
    } catch (...) {
        return currentExceptionToErrorCode("session", "velmora::Session::stopIngest");
    }
}

bool Session::hasIngestInstance(const IngestInstance* instance) const {
    return std::any_of(instances_.begin(), instances_.end(),
                       [instance](const auto& entry) { return entry.second.get() == instance; });
}

void Session::goOnline() { setOnline(true); }

void Session::goOffline() { setOnline(false); }

void Session::setOnline(bool online) {
    online_ = online;
    if (online) {
        networkMonitor_->start();
    } else {
        networkMonitor_->stop();
    }
    std::shared_ptr<transfer::TransferEngine> engine;
    {
        const MutexLock lock(dataMutex_);
        engine = transferEngine_;
    }
    // Without the lock: going offline waits for send callbacks, and those may enter the library.
    if (engine && online) engine->online();
    if (engine && !online) engine->offline();
    scheduleStateUpdate();
}

std::shared_ptr<transfer::TransferEngine> Session::getTransferEngine() {
    {
        const MutexLock lock(dataMutex_);
        engineCreated_.wait(dataMutex_,
                            [this]() VELMORA_REQUIRES(dataMutex_) { return engineState_ != EngineState::creating; });
        if (engineState_ == EngineState::ready) return transferEngine_;
        engineState_ = EngineState::creating;
    }
    return createTransferEngine();
}

std::shared_ptr<transfer::TransferEngine> Session::createTransferEngine() {
    // The host makes its session here, so without the lock; others wait for the outcome meanwhile.
    std::shared_ptr<transfer::TransferEngine> engine;
    const ScopeExit publish([&] {
        const MutexLock lock(dataMutex_);
        transferEngine_ = engine;
        engineState_ = engine ? EngineState::ready : EngineState::none;
        engineCreated_.notifyAll();
    });
    auto created = transfer::makeTransferEngine();
    created->setErrorCallback(
        [this](std::error_code, const std::string&) { schedule(Task([this] { networkMonitor_->poll(); })); });
    if (online_) {
        created->online();
    } else {
        created->offline();
    }
    engine = created;
    return engine;
}

PipelineState Session::getOnlineLimit() { return online_ ? PipelineState::On : PipelineState::SaveOnly; }

PipelineState Session::getNetworkLimit() {
    return networkMonitor_->state() == NetworkState::online ? PipelineState::On : PipelineState::SaveOnly;
}

PipelineState Session::getAuthState(Consent consent, Environment environment) {
    if (consent == Consent::denied) return PipelineState::Off;
    if (!identityManager_.hasAccessToken() || !online_) return PipelineState::SaveOnly;
    if (identityManager_.fetchInfo(consent == Consent::granted, environment)) return PipelineState::SaveOnly;
    if (consent == Consent::granted) return PipelineState::On;
    return identityManager_.isTrackingAllowed() ? PipelineState::On : PipelineState::Off;
}

std::vector<uint64_t> Session::getRetryIntervals() {
    return configProvider_->read([](const auto& config) { return config.retryInterval; });
}

void Session::setAccessToken(const std::string& token) {
    identityManager_.setAccessToken(token);
    scheduleStateUpdate();
}

void Session::setSessionGuid(const std::string& guid) {
    {
        const MutexLock lock(dataMutex_);
        sessionGuid_ = guid;
    }
    forEachInstance([&](IngestInstance& instance) { instance.setSessionGuid(guid); });
}

void Session::setLorneProfile(const std::string& json) {
    const StringMap profile = jsonToStringMap(json);
    {
        const MutexLock lock(dataMutex_);
        lorneProfile_ = profile;
    }
    forEachInstance([&](IngestInstance& instance) { instance.setLorneProfile(profile); });
}

std::string Session::getSessionGuid() {
    const MutexLock lock(dataMutex_);
    return sessionGuid_;
}

Session::StringMap Session::getCommonData() {
    const MutexLock lock(dataMutex_);
    return commonData_;
}

void Session::setCommonData(StringMap data) {
    const MutexLock lock(dataMutex_);
    commonData_ = std::move(data);
}

Session::StringMap Session::getLorneProfile() {
    const MutexLock lock(dataMutex_);
    return lorneProfile_;
}

Session::IngestConfig Session::getIngestConfig(const std::string& configGuid) {
    const MutexLock lock(dataMutex_);
    const auto found = ingestConfigs_.find(configGuid);
    return found == ingestConfigs_.end() ? IngestConfig() : found->second;
}

Session::IngestConfig& Session::ingestConfig(const std::string& configGuid) { return ingestConfigs_[configGuid]; }

void Session::setIngestConfig(const std::string& configGuid, const IngestConfig& setup) {
    const MutexLock lock(dataMutex_);
    IngestConfig& config = ingestConfig(configGuid);
    config.project = setup.project;
    config.apiKey = setup.apiKey;
    config.environment = setup.environment;
    config.sourceType = setup.sourceType;
    config.sourceCategory = setup.sourceCategory;
    config.consent = setup.consent;
}

void Session::setConfigValue(const std::string& configGuid, const std::string& path, const std::string& value) {
    const std::string document = jsonFromPath(path, value);
    const MutexLock lock(dataMutex_);
    ingestConfig(configGuid).overwriteWith(document);
}

void Session::forEachInstance(const std::function<void(IngestInstance&)>& visit) {
    const std::shared_lock<SharedMutex> lock(instancesLock_);
    for (const auto& [guid, instance] : instances_) visit(*instance);
}

void Session::scheduleStateUpdate() {
    schedule(Task([this] { forEachInstance([](IngestInstance& instance) { instance.updateState(); }); }));
}

void Session::scheduleProfile(std::shared_ptr<service::oswin::Profile> profile) {
    schedule(Task([this, profile = std::move(profile)] {
        forEachInstance([&](IngestInstance& instance) { instance.setProfile(profile); });
    }));
}

void Session::scheduleMetaEvent(MetaEvent event) {
    schedule(Task([this, json = std::move(event).json()] {
        const std::shared_lock<SharedMutex> lock(instancesLock_);
        if (!instances_.empty()) instances_.begin()->second->submitMetaEvent(json);
    }));
}

void Session::scheduleError(int32_t code) {
    schedule(Task([this, code] {
        const std::shared_lock<SharedMutex> lock(instancesLock_);
        if (!instances_.empty()) instances_.begin()->second->reportError(code);
    }));
}

void Session::onNetworkStateChange(NetworkState state) {
    VELMORA_LOG(info, "session") << "network is " << state;
    setEventOnline(state == NetworkState::online);
    scheduleStateUpdate();
}

}  // namespace velmora
