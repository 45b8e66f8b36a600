// The process-wide singleton at the top: owns what the instances of the process share, answers their questions about
// state, and fans out to them what the host says. It comes up at the first use, offline, and ends with the process;
// instances that the host has not stopped stop there.
//
// Threads: the public operations may be called from any. Fan-out tasks run on the session's serial engine, in the order
// of their causes, so that an instance sees its updates in that order. Nothing calls the host or an instance with a
// lock held.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "core/network/networkmonitor.h"
#include "core/types/errors.h"
#include "core/types/mutex.h"
#include "core/utils/taskengine.h"
#include "ingest/event/conversion/conversions.h"
#include "ingest/main/delivery/sessionview.h"
#include "ingest/session/hostsettings.h"
#include "ingest/session/identitymanager.h"
#include "ingest/session/instancetable.h"
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

    using Handle = InstanceTable::Handle;

    // A second start with a guid gives the running instance. With a callback, the end of a stop is reported there:
    // code 14 for a handle that is not alive.
    [[nodiscard]] Handle startIngest(const std::string& configGuid, const std::string& commonData,
                                     velmora_ingest_error_callback errorCallback);
    void stopIngest(Handle handle, velmora_ingest_completion_callback callback, void* userData);

    // Throws `ingest_instance_not_found`.
    [[nodiscard]] InstanceTable::Held instance(Handle handle) { return instances_.hold(handle); }

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
    enum class EngineState { none, creating, ready };

    // Removes the logger when everything that logs is gone.
    struct LoggerEnd {
        ~LoggerEnd();
    };

    class SessionOwner;

    Session();

    void installDefaultLogger();
    void connect();
    std::error_code stopBody(Handle handle);
    void setOnline(bool online);
    void tellOnline(transfer::TransferEngine& engine);
    std::shared_ptr<transfer::TransferEngine> presentTransferEngine() VELMORA_EXCLUDES(dataMutex_);
    std::shared_ptr<transfer::TransferEngine> createTransferEngine();
    void tellFacts(IngestInstance& instance);
    void tellFactsToAll();
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
    Mutex dataMutex_;
    Published<HostFacts> facts_;
    IngestSettings ingestSettings_;
    std::atomic<bool> online_ = false;  // set by the host's calls, read by instances without a lock
    const std::unique_ptr<SessionConfigProvider> configProvider_;
    EngineState engineState_ VELMORA_GUARDED_BY(dataMutex_) = EngineState::none;
    Condition engineCreated_;  // with dataMutex_
    std::shared_ptr<transfer::TransferEngine> transferEngine_ VELMORA_GUARDED_BY(dataMutex_);
    const std::unique_ptr<NetworkMonitor> networkMonitor_;
    IdentityManager identityManager_;
    InstanceTable instances_;
    Conversions conversions_;
    TaskEngine stops_;  // each with a callback on a thread of its own: one may wait for the host
};

}  // namespace velmora
