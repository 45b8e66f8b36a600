#include "ingest/session/session.h"

#include <algorithm>
#include <boost/regex.hpp>
#include <mutex>
#include <utility>

#include "core/crypt/crypt.h"
#include "core/json/mergejson.h"
#include "core/logging/defaultlogger.h"
#include "core/platform/pool.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/gate.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/eventpreset.h"
#include "ingest/session/globalconfig.h"

namespace velmora {
namespace {

std::atomic<Session*> currentSession = nullptr;  // set by the session's constructor, cleared by its destructor
std::atomic<bool> sessionEnded = false;          // set before the session's destructor, and read for ever after

}  // namespace

// Where the pools' threads can't be waited for, nothing can be stopped: what they hold may stay locked for ever. The
// session is then left as it is; its events are on disk.
class Session::SessionOwner {
public:
    SessionOwner() : session_((bringUpWhatOutlivesIt(), new Session)) {}
    ~SessionOwner() {
        if (!platform::canAwaitPools()) return;
        sessionEnded = true;
        delete session_;
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
    if (sessionEnded) throw std::system_error(VelmoraError::unknown, "the session has ended");
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
    adoptGlobalConfig();  // what was set between the first fetch and this moment has found no session
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
        [this](const std::shared_ptr<service::oswin::Profile>&) { scheduleProfile(); },
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
        configProvider_->stop();  // again: settings that were just being adopted have restarted it
    });
    exceptionSafeWrapper([this] { stopInstances(); });
    exceptionSafeWrapper([this] {
        if (const auto engine = presentTransferEngine()) engine->setErrorCallback(nullptr);
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
    scheduleProfile();
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
        ++stopsUnderWay_;
        const ScopeExit done([this] { --stopsUnderWay_; });
        VELMORA_LOG_SCOPE_AT(info, "session", "velmora::Session::stopIngest", "stop task");
        const std::shared_ptr<IngestInstance> stopped = takeInstance(instance);
        return stopped ? std::error_code() : VelmoraError::ingest_instance_not_found;
    } catch (...) {
        return currentExceptionToErrorCode("session", "velmora::Session::stopIngest");
    }
}

// Waits out all calls on the instance; what comes later does not find it.
std::shared_ptr<IngestInstance> Session::takeInstance(const IngestInstance* instance) {
    const std::unique_lock<SharedMutex> lock(instancesLock_);
    const auto found = findInstance(instance);
    if (found == instances_.end()) return nullptr;
    std::shared_ptr<IngestInstance> taken = found->second;
    instances_.erase(found);
    return taken;
}

void Session::stopInstances() {
    Instances running;
    {
        const std::unique_lock<SharedMutex> lock(instancesLock_);
        running.swap(instances_);
    }
    running.clear();
    waitFor([this] { return stopsUnderWay_ == 0; }, "stops under way", 1, kNoTimeout);
}

bool Session::hasIngestInstance(const IngestInstance* instance) const {
    return findInstance(instance) != instances_.end();
}

Session::Instances::const_iterator Session::findInstance(const IngestInstance* instance) const {
    return std::find_if(instances_.begin(), instances_.end(),
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
    if (const auto engine = presentTransferEngine()) tellOnline(*engine);
    scheduleStateUpdate();
}

// Without a lock: going offline waits for send callbacks, and those may enter the library. So somebody else may tell
// the engine at the same time; whoever is the last to tell it sees whether it was the truth.
void Session::tellOnline(transfer::TransferEngine& engine) {
    bool told = false;
    do {
        told = online_;
        if (told) {
            engine.online();
        } else {
            engine.offline();
        }
    } while (told != online_);
}

std::shared_ptr<transfer::TransferEngine> Session::presentTransferEngine() {
    const MutexLock lock(dataMutex_);
    return transferEngine_;
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
    {
        const ScopeExit publish([&] {
            const MutexLock lock(dataMutex_);
            transferEngine_ = engine;
            engineState_ = engine ? EngineState::ready : EngineState::none;
            engineCreated_.notifyAll();
        });
        auto created = transfer::makeTransferEngine();
        created->setErrorCallback(
            [this](std::error_code, const std::string&) { schedule(Task([this] { networkMonitor_->poll(); })); });
        tellOnline(*created);  // before anybody sends
        engine = std::move(created);
    }
    tellOnline(*engine);  // of a change that came before there was an engine to be told
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
    const std::shared_ptr<const IngestConfig> found = findIngestConfig(configGuid);
    return found ? *found : IngestConfig();
}

std::shared_ptr<const Session::IngestConfig> Session::findIngestConfig(const std::string& configGuid) {
    const MutexLock lock(dataMutex_);
    const auto found = ingestConfigs_.find(configGuid);
    return found == ingestConfigs_.end() ? nullptr : found->second;
}

// On a copy and without the lock, since a parser logs; once more if another change has come between.
void Session::changeIngestConfig(const std::string& configGuid, const std::function<void(IngestConfig&)>& change) {
    bool isInForce = false;
    while (!isInForce) {
        const std::shared_ptr<const IngestConfig> before = findIngestConfig(configGuid);
        auto after = std::make_shared<IngestConfig>(before ? *before : IngestConfig());
        change(*after);
        const MutexLock lock(dataMutex_);
        std::shared_ptr<const IngestConfig>& present = ingestConfigs_[configGuid];
        isInForce = present == before;
        if (isInForce) present = std::move(after);
    }
}

void Session::setIngestConfig(const std::string& configGuid, const IngestConfig& setup) {
    changeIngestConfig(configGuid, [&](IngestConfig& config) {
        config.project = setup.project;
        config.apiKey = setup.apiKey;
        config.environment = setup.environment;
        config.sourceType = setup.sourceType;
        config.sourceCategory = setup.sourceCategory;
        config.consent = setup.consent;
    });
}

void Session::setConfigValue(const std::string& configGuid, const std::string& path, const std::string& value) {
    const std::string document = jsonFromPath(path, value);
    changeIngestConfig(configGuid, [&](IngestConfig& config) { config.overwriteWith(document); });
}

void Session::forEachInstance(const std::function<void(IngestInstance&)>& visit) {
    const std::shared_lock<SharedMutex> lock(instancesLock_);
    for (const auto& [guid, instance] : instances_) visit(*instance);
}

void Session::scheduleStateUpdate() {
    schedule(Task([this] { forEachInstance([](IngestInstance& instance) { instance.updateState(); }); }));
}

// The profile of the moment in which the task runs: the user may have changed since.
void Session::scheduleProfile() {
    schedule(Task([this] {
        const std::shared_ptr<service::oswin::Profile> profile = identityManager_.profile();
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
