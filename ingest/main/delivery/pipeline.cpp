#include "ingest/main/delivery/pipeline.h"

#include <exception>
#include <functional>
#include <new>
#include <utility>

#include "core/json/jsontext.h"
#include "core/types/errors.h"
#include "core/types/function.h"
#include "core/types/logger.h"
#include "core/utils/timestamps.h"
#include "service/ingest/ingestrequest.h"

namespace velmora {

QueueConfig Pipeline::queueConfig(const IngestConfigProvider& config, const std::string& name, PipelineKind kind) {
    return config.read([&](const Config& c) {
        return isInvalidLine(kind)
                   ? QueueConfig{name, c.invalidEventFileRotationSize, c.invalidEventFolderSize,
                                 c.invalidEventFileRetentionPeriod}
                   : QueueConfig{name, c.eventFileRotationSize, c.eventFolderSize, c.eventFileRetentionPeriod};
    });
}

Pipeline::Pipeline(SessionView& session, const IngestConfigProvider& config, const Path& folder, DropCallback onDrop,
                   std::string name, PipelineKind kind, bool adopted)
    : session_(session),
      config_(config),
      name_(std::move(name)),
      folderName_(folder.parent().filename().string()),
      crypt_(config.read([](const Config& c) { return c.encryptionPassphrase; })),
      store_(folder, std::move(onDrop), queueConfig(config, name_, kind)),
      kind_(kind),
      adopted_(adopted) {
    VELMORA_LOG(info, "pipeline") << "Open pipeline: num_events=" << store_.size() << " name=" << name_;
}

Pipeline::~Pipeline() {
    exceptionSafeWrapper([this] {
        beginStop();
        ender_.stop();
        stop();
        if (transfer_) transfer_->stop(stopDeadline_);
        storeDirectPosts();
        VELMORA_LOG_AT(info, "pipeline", "velmora::Pipeline::~Pipeline")
            << "Close pipeline: num_events=" << store_.size() << " name=" << name_;
    });
}

void Pipeline::beginStop() noexcept {
    exceptionSafeWrapper([this] {
        if (stopping_) return;
        stopDeadline_ = transfer::Transfer::Clock::now() + transfer::kCancelPatience;
        if (stopping_.exchange(true)) return;
        changeState(PipelineState::SaveOnly);
        ender_.schedule(std::chrono::milliseconds(0), Task([this] { endFlushExchange(); }));
        schedule(Task([this] { endExchanges(); }));
    });
}

void Pipeline::changeState(PipelineState next) {
    if (stopping_ && next == PipelineState::On) return;
    if (state_.exchange(next) == next) return;
    VELMORA_LOG(info, "pipeline") << "Change state: name=" << name_ << " state=" << toString(next);
    if (next == PipelineState::On) {
        timer_.start();  // first: a batch that fails at once arms its retry there
        maybeStartBatch(true);
        armBatchTimer();
        return;
    }
    timer_.stop();
    slot_ = BatchSlot::free;
    if (isOptedOut()) discardAll();
}

void Pipeline::discardAll() {
    VELMORA_LOG(warn, "pipeline") << "Discard all events: reason=optout name=" << name_;
    // A submit that has seen the state before may still be on its way to the store; none is after this.
    submitting_.lock();
    submitting_.unlock();
    discardDirectPosts();
    schedule(Task([this] {
        const uint64_t count = store_.size();
        store_.remove();
        report(debug::Item::event, debug::Action::discarded, debug::Reason::opt_out, count);
    }));
}

void Pipeline::submitEvent(std::string event, bool batch) {
    VELMORA_LOG(debug, "pipeline") << "Submit event: name=" << name_ << " batch=" << batch << " payload=" << event;
    if (event.empty()) {
        VELMORA_LOG(warn, "pipeline") << "Skip empty event: name=" << name_;
        return;
    }
    if (acceptEvent(event, batch)) maybeStartBatch(true);
}

bool Pipeline::acceptEvent(const std::string& event, bool batch) {
    const SharedLock submitting(submitting_);
    const PipelineState state = state_;
    if (state == PipelineState::Off) throw std::system_error(VelmoraError::opt_out, "pipeline is in off state");
    if (!batch && state == PipelineState::On && scheduleDirectPost(event)) return false;
    storeEvent(event);
    return true;
}

bool Pipeline::isEnciphered() const {
    return !isInvalidLine(kind_) && config_.read([](const Config& c) { return c.encryptionEnabled; });
}

void Pipeline::storeEvent(const std::string& event) {
    if (!isEnciphered()) return push(event);
    const std::string enciphered = crypt_.encrypt(event);
    if (enciphered.empty()) throw std::system_error(VelmoraError::unknown, "event can't be enciphered");
    push(enciphered);
}

void Pipeline::push(const std::string& stored) {
    VELMORA_LOG(debug, "pipeline") << "Push: name=" << name_;
    store_.push(stored);
}

void Pipeline::maybeStartBatch(bool useBatchSize) {
    if (!useBatchSize) waitsForInterval_ = false;
    const bool waitsForFull = useBatchSize && !adopted_;  // nobody adds to an adopted store: what is there goes at once
    const uint64_t threshold = waitsForFull ? config_.read([](const Config& c) { return c.batchSize; }) : 1;
    const uint64_t stored = store_.size();
    if (state_ == PipelineState::On && stored >= threshold && !waitsForInterval_ && takeSlot(BatchSlot::free)) {
        try {
            enqueueTask(Task([this] { doInitiateRequest(); }));
        } catch (const std::bad_alloc&) {
            slot_ = BatchSlot::free;  // the event is stored: the next submit or interval tries again
        }
    }
    if (stored == 0 && emptyCallback_) emptyCallback_();
}

void Pipeline::armBatchTimer() {
    const uint64_t interval = config_.read([](const Config& c) { return c.batchInterval; });
    timer_.schedule(toMilliseconds(interval), Task([this] { onBatchTimeout(); }));
}

void Pipeline::onBatchTimeout() {
    VELMORA_LOG(trace, "pipeline") << "onBatchTimeout";
    const ScopeExit rearm([this] { exceptionSafeWrapper([this] { armBatchTimer(); }); });
    maybeStartBatch(false);
}

void Pipeline::enqueueTask(Task step) {
    schedule(Task([this, step = std::move(step)]() mutable {
        if (bailOut()) return;
        try {
            step();
        } catch (...) {
            lastError_ = currentExceptionToErrorCode("pipeline", "velmora::Pipeline::enqueueTask");
            const ScopeExit done([this] { slot_ = BatchSlot::free; });
            if (!settled_) doHandleError();
        }
    }));
}

bool Pipeline::bailOut() {
    if (state_ == PipelineState::On) return false;
    doResetState();
    slot_ = BatchSlot::free;
    VELMORA_LOG(info, "pipeline") << "Bailing out";
    return true;
}

void Pipeline::doInitiateRequest() {
    VELMORA_LOG(debug, "pipeline") << "Start batch-task: name=" << name_;
    doResetState();
    if (store_.size() == 0) {  // emptied since the decision
        auto taken = BatchSlot::taken;
        slot_.compare_exchange_strong(taken, BatchSlot::emptied);
        return;
    }
    if (formBatch()) return doPostBatch();
    slot_ = BatchSlot::free;
}

bool Pipeline::formBatch() {
    batch_ = store_.peek(batchSize_);
    std::vector<std::string> records = std::move(batch_.records);
    batchSize_ = records.size();
    if (records.empty()) return false;
    std::vector<std::string> plain = doDecrypt(records);
    events_ = doFilterInvalidEvents(std::move(records), std::move(plain));
    request_ = makeRequest(addBatchAttributes(events_));
    return true;
}

std::vector<std::string> Pipeline::doDecrypt(const std::vector<std::string>& records) const {
    if (!isEnciphered()) return records;
    std::vector<std::string> plain;
    plain.reserve(records.size());
    for (const std::string& record : records) {
        plain.push_back(crypt_.decrypt(record));
        VELMORA_LOG(debug, "pipeline") << "Decrypted payload=" << plain.back();
    }
    return plain;
}

std::vector<Pipeline::BatchEvent> Pipeline::doFilterInvalidEvents(std::vector<std::string> records,
                                                                  std::vector<std::string> plain) {
    std::vector<BatchEvent> events;
    events.reserve(plain.size());
    uint64_t invalid = 0;
    for (size_t i = 0; i < plain.size(); ++i) {
        const bool readable = validJSON(plain[i]);
        events.push_back({std::move(readable ? plain[i] : records[i]), readable});
        if (!readable) ++invalid;
    }
    if (invalid != 0) {
        VELMORA_LOG(warn, "pipeline") << "Filter out events: count=" << invalid << " name=" << name_;
    }
    return events;
}

std::vector<std::string> Pipeline::addBatchAttributes(const std::vector<BatchEvent>& events) const {
    std::vector<std::string> outgoing;
    outgoing.reserve(events.size());
    for (const BatchEvent& event : events) {
        if (!event.readable) continue;
        outgoing.push_back(event.text);
        static_cast<void>(transform(outgoing.back()));
    }
    return outgoing;
}

bool Pipeline::transform(std::string& event) const {
    if (batchAttributes_) return batchAttributes_(event, carriesIdentity(kind_));
    // A line without a transform holds what can't be deciphered: a readable event there is a fault.
    if (validJSON(event)) throw std::bad_function_call();
    return false;
}

http::Request Pipeline::makeRequest(const std::vector<std::string>& transformed) const {
    std::string body = doBatch(transformed);
    if (compressionEnabled_) body = service::ingest::compressGzip(body.data(), body.size(), -1);
    const auto [environment, apiKey] =
        config_.read([](const Config& c) { return std::make_pair(c.environment, c.apiKey); });
    return service::ingest::makeIngestRequest(environment, apiKey, std::move(body), compressionEnabled_);
}

std::string Pipeline::doBatch(const std::vector<std::string>& events) const {
    std::string body = service::ingest::makeBatchBody(events);
    VELMORA_LOG(trace, "pipeline") << "Batch: name=" << name_ << " payload=\n" << prettyPrint(body);
    return body;
}

future<std::error_code> Pipeline::flush() {
    bool retrySeen = false;
    waitFor(
        [&] {
            retrySeen = retryInProgress_;
            return retrySeen || takeSlot(BatchSlot::free) || takeSlot(BatchSlot::emptied);
        },
        "in-process batch (name=" + name_ + ")", 1, kNoTimeout);
    return schedule(std::error_code(), [this, retrySeen] { return doFlush(retrySeen); });
}

std::error_code Pipeline::doFlush(bool retrySeen) {
    const ScopeExit done([this, retrySeen] {
        if (!retrySeen) slot_ = BatchSlot::free;  // else the batch that waits for its retry still owns it
    });
    std::error_code result;
    try {
        if (retrySeen) throw std::system_error(VelmoraError::precondition_failed, "retry is in progress");
        lastError_.clear();
        flushBatches();
        result = lastError_;
    } catch (...) {
        result = lastError_ = currentExceptionToErrorCode("pipeline", "velmora::Pipeline::flush");
    }
    if (!result) {
        VELMORA_LOG_AT(info, "pipeline", "velmora::Pipeline::flush") << "flush succeeded for name=" << name_;
    } else {
        VELMORA_LOG_AT(error, "pipeline", "velmora::Pipeline::flush")
            << "flush failed for name=" << name_ << "with code=" << result.value() << " error=" << result.message();
    }
    return result;
}

void Pipeline::flushBatches() {
    for (bool foundNothing = false;;) {
        VELMORA_LOG_AT(info, "pipeline", "velmora::Pipeline::flush") << "flush iteration: name=" << name_;
        if (store_.size() == 0) return;
        if (state_ != PipelineState::On) throw std::system_error(VelmoraError::precondition_failed, "state is not on");
        doResetState();
        if (!formBatch()) {  // what was counted has been found damaged; more may have come meanwhile
            if (std::exchange(foundNothing, true)) return;
            continue;
        }
        foundNothing = false;
        const http::Response response = doPost(request_);
        lastError_ = response.error;
        logHTTPResponse(response);
        if (lastError_ && stopping_) throw std::system_error(VelmoraError::precondition_failed, "line is stopping");
        if (lastError_) return;
        doHandleSuccess();
    }
}

void Pipeline::report(debug::Item item, debug::Action action, debug::Reason reason, uint64_t count) const {
    debugCallback_(folderName_, kind_, item, action, reason, count);
}

}  // namespace velmora
