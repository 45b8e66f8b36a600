// The process-wide singleton at the top: owns what the instances of the process share, answers their questions about
// state, and fans out to them what the host says. It comes up at the first use and ends with the process; instances
// that the host has not stopped stop there.
//
// Lock order, outermost first: the table of instances (shared for each call on an instance, exclusive for a start and
// for the moment in which a stop takes its instance out), then the session's data, then an instance's own. Nothing
// calls the host with the data mutex or the exclusive lock held. The serial engine puts all fan-out tasks in order, so
// that an instance sees its updates in the order of their causes.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "core/network/networkmonitor.h"
#include "core/types/errors.h"
#include "core/types/mutex.h"
#include "core/utils/taskengine.h"
#include "ingest/event/conversion/conversions.h"
#include "ingest/main/delivery/sessionview.h"
#include "ingest/main/instance/ingestinstance.h"
#include "ingest/session/identitymanager.h"
#include "service/config/sessionconfigprovider.h"
#include "velmora/types.h"

namespace velmora {

class Session final : private SerialTaskEngine, public SessionView {
public:
    // Brings the singleton up. Throws `unknown` once it has ended with the process.
    static Session& getInstance();

    // The singleton if it exists, else null.
    static Session* current() noexcept;

    // Sets a value of the process-wide configuration; a session that exists adopts it at once.
    static void setGlobalConfigValue(const std::string& path, const std::string& value);

    ~Session() override;

    // The instances. A second start with a guid gives the running instance. A stop takes the instance out of the table
    // and ends it without the lock, so that callbacks of the host may call in meanwhile; it returns, or reports, when
    // the instance is gone. stopIngest throws `ingest_instance_not_found`, or reports it in the callback.
    void startIngest(const std::string& configGuid, const std::string& commonData,
                     velmora_ingest_error_callback errorCallback, IngestInstance** out);
    void stopIngest(IngestInstance* instance, velmora_ingest_completion_callback callback, void* userData);

    // With the table of instances held.
    [[nodiscard]] bool hasIngestInstance(const IngestInstance* instance) const;

    // Calls on an instance that can't be stopped meanwhile. A handle that is not alive throws
    // `ingest_instance_not_found`; it is compared, never followed.
    template <typename Call>
    void withLiveInstance(IngestInstance* instance, Call call) {
        const std::shared_lock<SharedMutex> lock(instancesLock_);
        if (!hasIngestInstance(instance)) throw std::system_error(VelmoraError::ingest_instance_not_found);
        call(*instance);
    }

    // What the host says.
    void goOnline();
    void goOffline();
    void setSessionGuid(const std::string& guid);
    void setAccessToken(const std::string& token);
    void setLorneProfile(const std::string& json);
    void setIngestConfig(const std::string& configGuid, const service::config::ingest::Config& setup);
    void setConfigValue(const std::string& configGuid, const std::string& path, const std::string& value);
    [[nodiscard]] std::string getSELBYData() const { return identityManager_.getSELBYData(); }
    [[nodiscard]] Conversions& conversions() noexcept { return conversions_; }

    // SessionView
    std::string getSessionGuid() override;
    StringMap getCommonData() override;
    void setCommonData(StringMap data) override;
    StringMap getLorneProfile() override;
    service::config::ingest::Config getIngestConfig(const std::string& configGuid) override;
    PipelineState getOnlineLimit() override;
    PipelineState getNetworkLimit() override;
    PipelineState getAuthState(Consent consent, Environment environment) override;
    std::shared_ptr<transfer::TransferEngine> getTransferEngine() override;
    std::vector<uint64_t> getRetryIntervals() override;

private:
    using IngestConfig = service::config::ingest::Config;
    using Instances = std::unordered_map<std::string, std::shared_ptr<IngestInstance>>;
    enum class EngineState { none, creating, ready };

    // Removes the logger when everything that logs is gone.
    struct LoggerEnd {
        ~LoggerEnd();
    };

    class SessionOwner;

    Session();

    void installDefaultLogger();
    void connect();
    std::error_code stopBody(IngestInstance* instance) noexcept;
    Instances::const_iterator findInstance(const IngestInstance* instance) const;
    std::shared_ptr<IngestInstance> takeInstance(const IngestInstance* instance);
    void stopInstances();
    void setOnline(bool online);
    void tellOnline(transfer::TransferEngine& engine);
    std::shared_ptr<transfer::TransferEngine> presentTransferEngine() VELMORA_EXCLUDES(dataMutex_);
    std::shared_ptr<transfer::TransferEngine> createTransferEngine();
    std::shared_ptr<const IngestConfig> findIngestConfig(const std::string& configGuid) VELMORA_EXCLUDES(dataMutex_);
    void changeIngestConfig(const std::string& configGuid, const std::function<void(IngestConfig&)>& change)
        VELMORA_EXCLUDES(dataMutex_);

    void forEachInstance(const std::function<void(IngestInstance&)>& visit);
    void scheduleStateUpdate();
    void scheduleProfile();
    void scheduleMetaEvent(MetaEvent event);
    void scheduleError(int32_t code);
    void onNetworkStateChange(NetworkState state);
    service::config::session::Config fetchConfig();
    void onConfigUpdated();
    void adoptGlobalConfig();

    const LoggerEnd loggerEnd_;
    mutable SharedMutex instancesLock_;
    Mutex dataMutex_;
    StringMap commonData_ VELMORA_GUARDED_BY(dataMutex_);
    std::string sessionGuid_ VELMORA_GUARDED_BY(dataMutex_);
    StringMap lorneProfile_ VELMORA_GUARDED_BY(dataMutex_);
    std::atomic<bool> online_ = false;  // set by the host's calls, read by instances without a lock
    const std::unique_ptr<SessionConfigProvider> configProvider_;
    EngineState engineState_ VELMORA_GUARDED_BY(dataMutex_) = EngineState::none;
    Condition engineCreated_;  // with dataMutex_
    std::shared_ptr<transfer::TransferEngine> transferEngine_ VELMORA_GUARDED_BY(dataMutex_);
    const std::unique_ptr<NetworkMonitor> networkMonitor_;
    IdentityManager identityManager_;
    Instances instances_;                      // guarded by instancesLock_
    std::atomic<uint32_t> stopsUnderWay_ = 0;  // raised before the table is looked at
    std::unordered_map<std::string, std::shared_ptr<const IngestConfig>> ingestConfigs_ VELMORA_GUARDED_BY(dataMutex_);
    Conversions conversions_;
};

}  // namespace velmora
