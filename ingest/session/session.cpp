#include "ingest/session/session.h"

#include <boost/regex.hpp>
#include <utility>

#include "core/crypt/crypt.h"
#include "core/json/mergejson.h"
#include "core/logging/defaultlogger.h"
#include "core/platform/pool.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/callbackscope.h"
#include "core/utils/gate.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/eventpreset.h"
#include "ingest/session/hostsettings.h"

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
    : facts_(HostFacts{makeGuid(), {}, {}}),
      configProvider_([this] {
          exceptionSafeWrapper([this] { installDefaultLogger(); });
          return std::make_unique<SessionConfigProvider>([this] { return fetchConfig(); },
                                                         [this] { onConfigUpdated(); });
      }()),
      networkMonitor_(createNetworkMonitor()),
      identityManager_(*this, *configProvider_, [this] { return getTransferEngine(); }) {
    VELMORA_LOGF(info, "session", "initialize session: sdk-version=%s session-guid=%s", kSdkVersion,
                 getSessionGuid().c_str());
    if (const LoggerUse used; used) used->start();
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
    exceptionSafeWrapper([this] {
        instances_.close();
        stops_.stop();
        instances_.stopAll();
    });
    exceptionSafeWrapper([this] {
        std::shared_ptr<transfer::TransferEngine> engine;  // ends here: its errors come to this session
        const MutexLock lock(dataMutex_);
        engine.swap(transferEngine_);
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

Session::Handle Session::startIngest(const std::string& configGuid, const std::string& commonData,
                                     velmora_ingest_error_callback errorCallback) {
    const Handle handle = instances_.start(configGuid, [&](Handle name) {
        return makeIngestInstance(*this, name, configGuid, commonData, errorCallback);
    });
    if (const auto instance = instances_.tryHold(handle)) {  // what changed while it was made was told to others only
        tellFacts(**instance);
        (*instance)->updateState();
    }
    scheduleProfile();
    return handle;
}

void Session::stopIngest(Handle handle, velmora_ingest_completion_callback callback, void* userData) {
    if (callback == nullptr) {
        if (const std::error_code result = stopBody(handle)) throw std::system_error(result);
        return;
    }
    stops_.schedule(std::chrono::milliseconds(0), Task([this, handle, callback, userData] {
                        std::error_code result;
                        try {
                            result = stopBody(handle);
                        } catch (...) {
                            result = currentExceptionToErrorCode("session", "velmora::Session::stopIngest");
                        }
                        VELMORA_LOG_SCOPE_AT(info, "session", "velmora::Session::stopIngest",
                                             "invoke stop completion callback");
                        const CallbackScope scope(handle);
                        callback(handle, toVelmoraError(result), userData);
                    }));
}

std::error_code Session::stopBody(Handle handle) {
    VELMORA_LOG_SCOPE_AT(info, "session", "velmora::Session::stopIngest", "stop task");
    return instances_.stop(handle) ? std::error_code() : VelmoraError::ingest_instance_not_found;
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
        auto created = transfer::makeTransferEngine(
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
    facts_.change([&](HostFacts& facts) { facts.sessionGuid = guid; });
    tellFactsToAll();
}

void Session::setLorneProfile(const std::string& json) {
    const StringMap profile = jsonToStringMap(json);
    facts_.change([&](HostFacts& facts) { facts.lorneProfile = profile; });
    tellFactsToAll();
}

// Others may tell the instance at the same time; whoever is the last to tell it sees whether it was the truth.
void Session::tellFacts(IngestInstance& instance) {
    Published<HostFacts>::Shared told;
    do {
        told = facts_.get();
        instance.setSessionGuid(told->sessionGuid);
        instance.setLorneProfile(told->lorneProfile);
    } while (told != facts_.get());
}

void Session::tellFactsToAll() {
    forEachInstance([this](IngestInstance& instance) { tellFacts(instance); });
}

std::string Session::getSessionGuid() { return facts_.get()->sessionGuid; }

Session::StringMap Session::getCommonData() { return facts_.get()->commonData; }

void Session::setCommonData(StringMap data) {
    facts_.change([&](HostFacts& facts) { facts.commonData = data; });
}

Session::StringMap Session::getLorneProfile() { return facts_.get()->lorneProfile; }

Session::IngestConfig Session::getIngestConfig(const std::string& configGuid) {
    return *ingestSettings_.get(configGuid);
}

void Session::setIngestConfig(const std::string& configGuid, const IngestConfig& setup) {
    ingestSettings_.change(configGuid, [&](IngestConfig& config) {
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
    ingestSettings_.change(configGuid, [&](IngestConfig& config) { config.overwriteWith(document); });
}

void Session::forEachInstance(const std::function<void(IngestInstance&)>& visit) {
    for (const InstanceTable::Held& instance : instances_.holdAll()) visit(*instance);
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
        if (const auto first = instances_.holdAny()) (*first)->submitMetaEvent(json);
    }));
}

void Session::scheduleError(int32_t code) {
    schedule(Task([this, code] {
        if (const auto first = instances_.holdAny()) (*first)->reportError(code);
    }));
}

void Session::onNetworkStateChange(NetworkState state) {
    VELMORA_LOG(info, "session") << "network is " << state;
    setEventOnline(state == NetworkState::online);
    scheduleStateUpdate();
}

}  // namespace velmora
