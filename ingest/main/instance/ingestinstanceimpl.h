// The owner of one configuration's event traffic in this process: it holds an instance folder for its whole life,
// routes events to five lines inside it, decides what a failed batch does to them and which state each is in, and
// counts all that for the events that it sends about itself.
//
// There is no instance-wide lock: configuration, preset and counters guard themselves, and the serial engine puts state
// changes in order.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/filesystem/lockedpath.h"
#include "core/utils/taskengine.h"
#include "ingest/event/debugcounters.h"
#include "ingest/event/eventpreset.h"
#include "ingest/event/metaevent.h"
#include "ingest/main/delivery/pipeline.h"
#include "ingest/main/instance/healthcheck.h"
#include "ingest/main/instance/ingestinstance.h"
#include "ingest/main/instance/orphaninstance.h"
#include "service/config/ingestconfigprovider.h"

namespace velmora {

class IngestInstanceImpl final : public IngestInstance {
public:
    IngestInstanceImpl(SessionView& session, velmora_ingest_instance handle, std::string configGuid,
                       const std::string& commonData, velmora_ingest_error_callback errorCallback);
    ~IngestInstanceImpl() override;

    void addCommonAttribute(const char* key, const char* value) override;
    void removeCommonAttribute(const char* key) override;
    void submitEvent(const char* json, bool batch, bool auth, int32_t validate, const char* configOverride) override;
    void flush(velmora_ingest_completion_callback callback, void* userData) override;
    void beginStop() noexcept override;
    std::string getConfigGuid() override { return configGuid_; }
    void setProfile(std::shared_ptr<service::oswin::Profile> profile) override;
    void refresh() override;
    void updateState() override;
    void setSessionGuid(std::string guid) override { preset_.setSessionGuid(guid); }
    void setLorneProfile(std::unordered_map<std::string, std::string> profile) override {
        preset_.setLorneProfile(profile);
    }
    void submitMetaEvent(std::string json) override;
    void reportError(int32_t code) override;
    Consent getConsent() override;
    Environment getEnvironment() override;

private:
    using Events = std::vector<Pipeline::BatchEvent>;
    using StringMap = SessionView::StringMap;

    static StringMap effectiveCommonData(const std::string& commonData, const StringMap& hostData);

    void connectLines();
    void begin();
    LineCallbacks lineCallbacks();
    std::unique_ptr<Pipeline> makeLine(PipelineKind kind);

    void submitEventInPipeline(Pipeline& pipeline, const std::string& json, bool batch, int32_t validate,
                               const std::string& configOverride);
    void countRejected(PipelineKind kind, const std::error_code& code);

    uint64_t onErrorFromLine(bool auth, const std::error_code& error, const Events& events);

    // Takes an event of a batch back into a line. False if the system refuses, and so will for the next ones. One that
    // the line can never take is dropped, and counted.
    bool moveBack(Pipeline& line, const std::string& event);
    void handleError(const std::error_code& code);
    void doUpdateState() VELMORA_EXCLUDES(stateMutex_);
    void changeState(LineStates states) VELMORA_REQUIRES(stateMutex_);
    void saveOnly() VELMORA_EXCLUDES(stateMutex_);
    void onDropped(const std::string& storeName, const std::string& reason, uint64_t count, uint64_t folderSize);

    // A flush with a callback, until its turn comes.
    struct PendingFlush {
        velmora_ingest_completion_callback callback;
        void* userData;
    };

    std::error_code doFlush();
    void runFlush(uint64_t id);
    void complete(const PendingFlush& flush, int32_t result);
    void dropPendingFlushes();
    std::array<Pipeline*, kPipelineKinds> lines() const;
    std::array<uint64_t, kPipelineKinds> storedEvents();
    service::config::ingest::Config fetchConfig(const std::string& configGuid);

    SessionView& session_;
    const velmora_ingest_instance handle_;
    SerialTaskEngine engine_;
    const std::string configGuid_;
    const std::unique_ptr<LockedPath> instanceFolder_;
    const velmora_ingest_error_callback errorCallback_;
    IngestConfigProvider configProvider_;
    const SourceType sourceType_;
    const StringMap commonData_;
    const std::string name_;  // the instance folder's number
    DebugCounters debugCounters_;
    EventPreset preset_;
    const std::unique_ptr<Pipeline> metaPipeline_;
    const std::unique_ptr<Pipeline> authInvalidPipeline_;
    const std::unique_ptr<Pipeline> authPipeline_;
    const std::unique_ptr<Pipeline> anonInvalidPipeline_;
    const std::unique_ptr<Pipeline> anonPipeline_;
    OrphanInstance orphanInstance_;
    HealthCheck healthCheck_;
    std::atomic<bool> stopping_ = false;  // set once, by beginStop
    Mutex stateMutex_;                    // from looking at the limits until the lines have their states
    Mutex flushMutex_;
    uint64_t lastFlush_ VELMORA_GUARDED_BY(flushMutex_) = 0;
    std::map<uint64_t, PendingFlush> pendingFlushes_ VELMORA_GUARDED_BY(flushMutex_);
    TaskEngine timer_;  // the resume after a server error
};

}  // namespace velmora
