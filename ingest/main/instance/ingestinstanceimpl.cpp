#include "ingest/main/instance/ingestinstanceimpl.h"

#include <algorithm>
#include <utility>

#include "core/http/message.h"
#include "core/json/mergejson.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "core/utils/callbackscope.h"
#include "core/utils/gate.h"
#include "core/utils/timestamps.h"
#include "ingest/main/instance/instancefolder.h"

namespace velmora {

using debug::Action;
using debug::Item;
using debug::Reason;

namespace {

// What counters say of an event that was not taken.
Reason rejectionReason(const std::error_code& code) {
    if (code == VelmoraError::invalid_json || code == VelmoraError::invalid_event_format) return Reason::validation;
    if (code == VelmoraError::opt_out) return Reason::opt_out;
    if (code == VelmoraError::event_too_big) return Reason::payloadsize;
    return Reason::error;
}

// The kind whose folder a store's name speaks of; the meta line for names that speak of none.
PipelineKind kindOfStore(const std::string& storeName) {
    for (const PipelineKind kind : kEveryPipelineKind) {
        if (storeName.find(storeFolderName(kind)) != std::string::npos) return kind;
    }
    return PipelineKind::meta;
}

}  // namespace

std::shared_ptr<IngestInstance> makeIngestInstance(SessionView& session, velmora_ingest_instance handle,
                                                   std::string configGuid, const std::string& commonData,
                                                   velmora_ingest_error_callback errorCallback) {
    return std::make_shared<IngestInstanceImpl>(session, handle, std::move(configGuid), commonData, errorCallback);
}

IngestInstanceImpl::StringMap IngestInstanceImpl::effectiveCommonData(const std::string& commonData,
                                                                      const StringMap& hostData) {
    StringMap effective = jsonToStringMap(commonData);
    effective.insert(hostData.begin(), hostData.end());  // keeps what the instance itself has named
    return effective;
}

IngestInstanceImpl::IngestInstanceImpl(SessionView& session, velmora_ingest_instance handle, std::string configGuid,
                                       const std::string& commonData, velmora_ingest_error_callback errorCallback)
    : session_(session),
      handle_(handle),
      configGuid_(std::move(configGuid)),
      instanceFolder_(acquireInstanceFolder(configGuid_, true)),
      errorCallback_(errorCallback),
      configProvider_(
          configGuid_, [this](const std::string& guid) { return fetchConfig(guid); }, [this] { updateState(); }),
      sourceType_(configProvider_.read([](const auto& config) { return config.sourceType; })),
      commonData_(effectiveCommonData(commonData, session.getCommonData())),
      name_(instanceFolder_->filename().string()),
      debugCounters_(name_, {}),
      preset_(configProvider_),
      metaPipeline_(makeLine(PipelineKind::meta)),
      authInvalidPipeline_(makeLine(PipelineKind::auth_invalid)),
      authPipeline_(makeLine(PipelineKind::auth)),
      anonInvalidPipeline_(makeLine(PipelineKind::anon_invalid)),
      anonPipeline_(makeLine(PipelineKind::anon)),
      orphanInstance_(session_, configProvider_, configGuid_, lineCallbacks()),
      healthCheck_(configProvider_, debugCounters_) {
    VELMORA_LOG(always, "ingestinstance") << "Initializing IngestInstanceImpl";
    try {
        connectLines();
        begin();
    } catch (...) {
        engine_.stop();  // what is scheduled there uses members that are about to go
        throw;
    }
}

std::unique_ptr<Pipeline> IngestInstanceImpl::makeLine(PipelineKind kind) {
    return std::make_unique<Pipeline>(session_, configProvider_, *instanceFolder_ / storeFolderName(kind),
                                      lineCallbacks().onDrop, "main", kind);
}

LineCallbacks IngestInstanceImpl::lineCallbacks() {
    return {
        [this](const std::string& storeName, const std::string& reason, uint64_t count, uint64_t size) {
            onDropped(storeName, reason, count, size);
        },
        [this](std::string& event, bool includeIdentity) {
            return preset_.tryApplyBatchAttributes(event, includeIdentity);
        },
        [this](const std::error_code& error, const Events& events) { return onErrorFromLine(true, error, events); },
        [this](const std::error_code& error, const Events& events) { return onErrorFromLine(false, error, events); },
        [this](const std::string& folderName, PipelineKind kind, Item item, Action action, Reason reason,
               uint64_t count) { debugCounters_.add(folderName, kind, item, action, reason, count); },
    };
}

void IngestInstanceImpl::connectLines() {
    preset_.setCommonAttributes(commonData_);  // refuses what would need escaping
    if (sourceType_ == SourceType::host) session_.setCommonData(commonData_);
    preset_.setSessionGuid(session_.getSessionGuid());
    preset_.setLorneProfile(session_.getLorneProfile());
    const LineCallbacks callbacks = lineCallbacks();
    for (Pipeline* line : {metaPipeline_.get(), authPipeline_.get(), anonPipeline_.get()}) {
        line->setBatchAttributes(callbacks.batchAttributes);
    }
    for (Pipeline* line : lines()) line->setDebugCallback(callbacks.onDebug);
    authPipeline_->setBatchErrorCallback(callbacks.onAuthError);
    anonPipeline_->setBatchErrorCallback(callbacks.onAnonError);
}

void IngestInstanceImpl::begin() {
    healthCheck_.setSink([this](MetaEvent event) { submitMetaEvent(std::move(event).json()); });
    healthCheck_.start();
    configProvider_.start();
    updateState();
    engine_.schedule(Task([this] { preset_.updateUserAgent(); }));
    const DebugCounters found(name_, storedEvents());
    submitMetaEvent(MetaEvent::makeInit(sourceType_, configGuid_, found).json());
}

IngestInstanceImpl::~IngestInstanceImpl() {
    beginStop();
    exceptionSafeWrapper([this] {
        engine_.stop();
        dropPendingFlushes();
        saveOnly();
    });
    exceptionSafeWrapper([this] { healthCheck_.stop(); });
    exceptionSafeWrapper([this] {
        const DebugCounters left(name_, storedEvents());
        submitMetaEvent(MetaEvent::makeExit(sourceType_, configGuid_, left).json());
    });
    exceptionSafeWrapper([this] {
        if (configProvider_.read([](const auto& config) { return config.flushOnStopEnabled; })) doFlush();
    });
    exceptionSafeWrapper([this] { configProvider_.stop(); });
}

void IngestInstanceImpl::addCommonAttribute(const char* key, const char* value) {
    VELMORA_LOG(info, "ingestinstance") << "In addCommonAttribute key=" << key << " value=" << value;
    preset_.setCommonAttribute(key, value);
}

void IngestInstanceImpl::removeCommonAttribute(const char* key) {
    VELMORA_LOG(info, "ingestinstance") << "In removeCommonAttribute key=" << key;
    preset_.removeCommonAttribute(key);
}

void IngestInstanceImpl::submitEvent(const char* json, bool batch, bool auth, int32_t validate,
                                     const char* configOverride) {
    submitEventInPipeline(auth ? *authPipeline_ : *anonPipeline_, json, batch, validate, configOverride);
}

void IngestInstanceImpl::submitMetaEvent(std::string json) {
    submitEventInPipeline(*metaPipeline_, json, true, -1, "{}");
}

void IngestInstanceImpl::submitEventInPipeline(Pipeline& pipeline, const std::string& json, bool batch,
                                               int32_t validate, const std::string& configOverride) {
    const PipelineKind kind = pipeline.kind();
    VELMORA_LOG(info, "ingestinstance") << "submit batch=" << batch << " kind=" << pipelineKindToString(kind)
                                        << " validate=" << validate << " json=" << json;
    try {
        pipeline.submitEvent(preset_.getEventPayload(json, static_cast<uint32_t>(validate), configOverride), batch);
    } catch (const std::system_error& e) {
        countRejected(kind, e.code());
        throw;
    }
    debugCounters_.add(name_, kind, Item::event, Action::saved, Reason::success, 1);
}

void IngestInstanceImpl::countRejected(PipelineKind kind, const std::error_code& code) {
    debugCounters_.add(name_, kind, Item::event, Action::rejected, rejectionReason(code), 1);
}

void IngestInstanceImpl::changeState(LineStates states) {
    const PipelineState anon = std::min(states.anon, session_.getNetworkLimit());
    const PipelineState auth = std::min(states.auth, anon);
    authPipeline_->changeState(auth);
    anonPipeline_->changeState(anon);
    metaPipeline_->changeState(anon);
    orphanInstance_.changeState({auth, anon});
}

void IngestInstanceImpl::saveOnly() {
    const MutexLock lock(stateMutex_);
    changeState({PipelineState::SaveOnly, PipelineState::SaveOnly});
}

void IngestInstanceImpl::updateState() {
    engine_.schedule(Task([this] { doUpdateState(); }));
}

void IngestInstanceImpl::doUpdateState() {
    const MutexLock lock(stateMutex_);
    const PipelineState auth = session_.getAuthState(getConsent(), getEnvironment());
    changeState({auth, session_.getOnlineLimit()});
}

void IngestInstanceImpl::refresh() {
    configProvider_.refresh();
    doUpdateState();
}

uint64_t IngestInstanceImpl::onErrorFromLine(bool auth, const std::error_code& error, const Events& events) {
    engine_.schedule(Task([this, error] { handleError(error); }));
    const auto invalid = static_cast<uint64_t>(
        std::count_if(events.begin(), events.end(), [](const auto& event) { return !event.readable; }));
    VELMORA_LOG_AT(
        error, "ingestinstance",
        auth ? "velmora::IngestInstanceImpl::onErrorFromAuthLine" : "velmora::IngestInstanceImpl::onErrorFromAnonLine")
        << "Resubmitting " << (error ? events.size() - invalid : 0) << " valid events and " << invalid
        << " invalid events at the back of " << (auth ? "auth" : "anon")
        << "(_invalid) queues: error=" << error.message();
    Pipeline& line = auth ? *authPipeline_ : *anonPipeline_;
    Pipeline& invalidLine = auth ? *authInvalidPipeline_ : *anonInvalidPipeline_;
    uint64_t moved = 0;
    uint64_t movedInvalid = 0;
    for (const Pipeline::BatchEvent& event : events) {
        const bool isDelivered = event.readable && !error;
        if (!isDelivered && !moveBack(event.readable ? line : invalidLine, event.text)) break;
        ++moved;
        if (!event.readable) ++movedInvalid;
    }
    if (movedInvalid == 0) return moved;
    exceptionSafeWrapper(
        [&] { submitMetaEvent(MetaEvent::makeLifecycle(sourceType_, "warn", "decrypt", movedInvalid).json()); });
    debugCounters_.add(name_, invalidLine.kind(), Item::event, Action::saved, Reason::success, movedInvalid);
    return moved;
}

bool IngestInstanceImpl::moveBack(Pipeline& line, const std::string& event) {
    try {
        line.submitEvent(event, true);
    } catch (...) {
        const std::error_code why =
            currentExceptionToErrorCode("ingestinstance", "velmora::IngestInstanceImpl::moveBack");
        if (why != VelmoraError::opt_out && why != VelmoraError::event_too_big) return false;
        VELMORA_LOG(warn, "ingestinstance") << "Discard event: error=" << toString(why);
        debugCounters_.add(name_, line.kind(), Item::event, Action::discarded, rejectionReason(why), 1);
    }
    return true;
}

void IngestInstanceImpl::handleError(const std::error_code& code) {
    if (http::isServerError(code)) {
        saveOnly();
        const uint64_t pause = configProvider_.read([](const auto& config) { return config.pauseInterval; });
        timer_.schedule(toMilliseconds(pause), Task([this] { updateState(); }));
    }
    if (http::isForbidden(code)) {
        VELMORA_LOG(error, "ingestinstance") << "Invalid API key will stop the workers";
        saveOnly();
    }
}

void IngestInstanceImpl::onDropped(const std::string& storeName, const std::string& reason, uint64_t count,
                                   uint64_t folderSize) {
    std::string warning = MetaEvent::makeSizeWarning(storeName, reason, count, folderSize).json();
    engine_.schedule(Task([this, warning = std::move(warning)]() mutable { submitMetaEvent(std::move(warning)); }));
    debugCounters_.add(name_, kindOfStore(storeName), Item::event, Action::discarded, Reason::filesize, count);
}

void IngestInstanceImpl::flush(velmora_ingest_completion_callback callback, void* userData) {
    if (callback == nullptr) {
        if (const std::error_code result = doFlush()) throw std::system_error(result);
        return;
    }
    uint64_t id = 0;
    {
        const MutexLock lock(flushMutex_);
        id = ++lastFlush_;
        pendingFlushes_.emplace(id, PendingFlush{callback, userData});
    }
    engine_.schedule(Task([this, id] { runFlush(id); }));
}

void IngestInstanceImpl::runFlush(uint64_t id) {
    PendingFlush flush{};
    {
        const MutexLock lock(flushMutex_);
        const auto found = pendingFlushes_.find(id);
        if (found == pendingFlushes_.end()) return;
        flush = found->second;
        pendingFlushes_.erase(found);
    }
    std::error_code result;
    try {
        result = doFlush();
    } catch (...) {
        result = currentExceptionToErrorCode("ingestinstance", "velmora::IngestInstanceImpl::flush");
    }
    complete(flush, toVelmoraError(result));
}

void IngestInstanceImpl::complete(const PendingFlush& flush, int32_t result) {
    VELMORA_LOG_SCOPE_AT(info, "ingestinstance", "velmora::IngestInstanceImpl::flush",
                         "invoke flush completion callback");
    const CallbackScope scope(handle_);
    flush.callback(handle_, result, flush.userData);
}

// Those whose turn never came: the engine has stopped.
void IngestInstanceImpl::dropPendingFlushes() {
    std::map<uint64_t, PendingFlush> dropped;
    {
        const MutexLock lock(flushMutex_);
        dropped.swap(pendingFlushes_);
    }
    for (const auto& [id, flush] : dropped) {
        complete(flush, static_cast<int32_t>(VelmoraError::ingest_instance_not_found));
    }
}

void IngestInstanceImpl::beginStop() noexcept {
    if (stopping_.exchange(true)) return;
    for (Pipeline* line : lines()) line->beginStop();
    orphanInstance_.beginStop();
}

std::array<Pipeline*, kPipelineKinds> IngestInstanceImpl::lines() const {
    return {metaPipeline_.get(), authInvalidPipeline_.get(), authPipeline_.get(), anonInvalidPipeline_.get(),
            anonPipeline_.get()};
}

std::error_code IngestInstanceImpl::doFlush() {
    VELMORA_LOG_SCOPE_AT(info, "ingestinstance", "velmora::IngestInstanceImpl::flush", "flush task");
    const std::error_code timeout = VelmoraError::timeout;
    // All three begin before the first is waited for.
    const auto meta = metaPipeline_->flush();
    const auto anon = anonPipeline_->flush();
    const auto auth = authPipeline_->flush();
    std::error_code result;
    for (const auto& [flushed, name] :
         {std::pair(meta, "meta-flush"), std::pair(anon, "anon-flush"), std::pair(auth, "auth-flush")}) {
        const std::error_code code = waitForFuture(flushed, timeout, name);
        if (code) result = code;
    }
    return result;
}

void IngestInstanceImpl::setProfile(std::shared_ptr<service::oswin::Profile> profile) {
    if (profile) {
        preset_.setProfile(*profile);
    } else {
        preset_.clearProfile();
    }
}

void IngestInstanceImpl::reportError(int32_t code) {
    engine_.schedule(Task([this, code] {
        VELMORA_LOG_SCOPE_AT(info, "ingestinstance", "velmora::IngestInstanceImpl::reportError",
                             "reportError: e=" << code);
        const CallbackScope scope(handle_);
        if (errorCallback_ != nullptr) errorCallback_(code);
    }));
}

Consent IngestInstanceImpl::getConsent() {
    return configProvider_.read([](const auto& config) { return config.consent; });
}

Environment IngestInstanceImpl::getEnvironment() {
    return configProvider_.read([](const auto& config) { return config.environment; });
}

std::array<uint64_t, kPipelineKinds> IngestInstanceImpl::storedEvents() {
    std::array<uint64_t, kPipelineKinds> stored{};
    const auto all = lines();
    std::transform(all.begin(), all.end(), stored.begin(), [](Pipeline* line) { return line->size(); });
    return stored;
}

service::config::ingest::Config IngestInstanceImpl::fetchConfig(const std::string& configGuid) {
    VELMORA_LOG_AT(debug, "ingestinstance", "velmora::IngestInstanceImpl::onFetchConfig")
        << "Fetch config for configGuid=" << configGuid;
    return session_.getIngestConfig(configGuid_);
}

}  // namespace velmora
