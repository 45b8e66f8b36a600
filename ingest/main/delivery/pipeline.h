// One ingest line: takes event text, keeps it in a store of its own, and drains the store to the ingest service batch
// by batch. Events leave the store only after the service has answered, or after the answer says that sending again is
// pointless; so the service may see a batch twice, and never misses one.
//
// Threads: submitEvent, changeState, size and flush may be called from any thread. All work on a batch runs on the
// line's own serial engine; one slot, which a batch or a flush takes, is what keeps two batches from overlapping.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "core/crypt/crypt.h"
#include "core/filesystem/path.h"
#include "core/http/message.h"
#include "core/http/retryhandler.h"
#include "core/transfer/transfer.h"
#include "core/types/mutex.h"
#include "core/utils/taskengine.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/store/eventstore.h"
#include "ingest/main/delivery/sessionview.h"
#include "service/config/ingestconfigprovider.h"

namespace velmora {

class Pipeline : private SerialTaskEngine {
public:
    // Applied to each event right before batching; the flag asks for the user's identity. False, with the text as it
    // was, for a text that is no JSON object: whoever transforms an event has parsed it.
    using BatchAttributes = std::function<bool(std::string& event, bool includeIdentity)>;

    // Events that are posted directly at a time; further ones are stored, and go with the next batch.
    static constexpr size_t kDirectPosts = 64;

    // Told of what happens to events and requests, on any thread; the first argument names the instance folder.
    using DebugCallback = std::function<void(const std::string& folderName, PipelineKind, debug::Item, debug::Action,
                                             debug::Reason, uint64_t count)>;

    // One record of a batch.
    struct BatchEvent {
        std::string text;      // in plain text; of a record that can't be read the stored form
        bool readable = true;  // a JSON object
    };

    // Takes over the events of a batch that is given up, on the line's engine and at most once for a batch. Returns how
    // many it has settled, counted from the front: these leave the store, the rest stays where it is, and the line's
    // next batch waits for the batch interval. With a clean code the readable events have been delivered, and only the
    // others are to be taken over.
    using BatchErrorCallback = std::function<uint64_t(const std::error_code& error, const std::vector<BatchEvent>&)>;

    // Loads the store in `folder` and starts in SaveOnly. `name` is that of the store in logs and drop reports. A line
    // of an adopted folder, to which nobody adds, sends what is there at once instead of waiting for full batches.
    // Throws what the store raises.
    Pipeline(SessionView& session, const IngestConfigProvider& config, const Path& folder, DropCallback onDrop,
             std::string name, PipelineKind kind, bool adopted = false);

    // Stops all work. Stored events stay on disk; events posted directly that have not been answered are stored.
    ~Pipeline() override;

    // All before any traffic. The transform and both last callbacks may be left empty.
    void setBatchAttributes(BatchAttributes transform) { batchAttributes_ = std::move(transform); }
    void setDebugCallback(DebugCallback callback) { debugCallback_ = std::move(callback); }
    void setBatchErrorCallback(BatchErrorCallback callback) { batchErrorCallback_ = std::move(callback); }
    void setEmptyCallback(std::function<void()> callback) { emptyCallback_ = std::move(callback); }

    // On begins sending; any other state ends it and forgets the batch in flight, whose events are still stored. Off
    // makes the lines of the signed-in user discard what they hold, events on their way included. Not to be called from
    // two threads at once.
    void changeState(PipelineState state);

    // The first half of the end: takes the line from On for good, asks the host for the end of what is under way, and
    // gives it up after transfer::kCancelPatience; a running flush then ends with `precondition_failed`. Returns at
    // once. Only the first call acts. The destructor is the second half, and waits no longer than that either.
    void beginStop() noexcept;

    // Stores an event; with `batch` false and sending on, posts it at once instead, and stores it only if that fails or
    // if kDirectPosts are under way.
    // An empty event is skipped with a warning. Throws `opt_out` in state Off, `event_too_big`, and what the store
    // raises.
    void submitEvent(std::string event, bool batch);

    // Sends everything that is stored, batch by batch, without retries: a batch that fails stays stored and ends the
    // flush. Waits for the batch in process before it returns the future. The result is `precondition_failed` if a
    // retry is waiting, or if events are stored while sending is off.
    [[nodiscard]] future<std::error_code> flush();

    [[nodiscard]] uint64_t size() { return store_.size(); }
    [[nodiscard]] PipelineKind kind() const noexcept { return kind_; }

private:
    using Transfer = std::shared_ptr<transfer::RequestHandle>;

    // An event that has been accepted for posting without the store; it is not lost while it stands here.
    struct DirectPost {
        std::string event;  // emptied when its user opts out: from then on it is neither sent nor stored
        Transfer transfer;
    };

    // Who owns the fields of the batch in flight.
    enum class BatchSlot {
        free,
        taken,    // a batch or a flush
        emptied,  // a batch that found the store empty: none starts until the state leaves On, or a flush takes over
    };

    using Config = service::config::ingest::Config;
    using Answer = std::function<void(const http::Response&)>;

    static QueueConfig queueConfig(const IngestConfigProvider& config, const std::string& name, PipelineKind kind);

    bool acceptEvent(const std::string& event, bool batch);  // false if it is posted directly
    bool isEnciphered() const;
    void storeEvent(const std::string& event);
    void push(const std::string& stored);
    bool isOptedOut() const { return state_ == PipelineState::Off && isAuthenticated(kind_); }
    void discardAll();
    void maybeStartBatch(bool useBatchSize);
    void armBatchTimer();
    void onBatchTimeout();
    void enqueueTask(Task step);
    bool bailOut();
    bool takeSlot(BatchSlot from) { return slot_.compare_exchange_strong(from, BatchSlot::taken); }

    void doInitiateRequest();
    bool formBatch();  // false if there is nothing to post
    std::vector<std::string> doDecrypt(const std::vector<std::string>& records) const;
    std::vector<BatchEvent> doFilterInvalidEvents(std::vector<std::string> records, std::vector<std::string> plain);
    std::vector<std::string> addBatchAttributes(const std::vector<BatchEvent>& events) const;
    bool transform(std::string& event) const;
    std::string doBatch(const std::vector<std::string>& events) const;
    http::Request makeRequest(const std::vector<std::string>& transformed) const;

    void doPostBatch();
    void onNetworkResponse(uint64_t exchange, const http::Response& response);
    void doHandleResponse(uint64_t exchange, const http::Response& response);
    void doHandleSuccess();
    bool doRetry(const http::Response& response);
    bool armRetry(std::chrono::milliseconds delay, uint32_t attempt);
    void onRetryTimeout(uint64_t exchange);
    void doHandleError();
    void settle(const std::error_code& error);
    void doResetState();
    void logHTTPResponse(const http::Response& response) const;

    // Sends a request. The answer, also that of a request that could not be sent, comes on any thread, perhaps from
    // within the call; `transfer` receives what keeps the exchange alive.
    void post(http::Request request, const Answer& onAnswer, Transfer& transfer);
    http::Response doPost(http::Request request);
    void endExchanges();
    void endFlushExchange();

    std::error_code doFlush(bool retrySeen);
    void flushBatches();

    bool scheduleDirectPost(const std::string& event);
    void discardDirectPosts();
    void cancelDirectPosts();
    std::string directEvent(uint64_t id);
    void doDirectPost(uint64_t id);
    void onDirectAnswer(uint64_t id, const http::Response& response);
    void storeAnsweredWithError(const std::string& event);
    void countUnstored(const std::error_code& why);
    void storeDirectPosts();

    void report(debug::Item item, debug::Action action, debug::Reason reason, uint64_t count) const;

    SessionView& session_;
    const IngestConfigProvider& config_;
    BatchAttributes batchAttributes_;
    DebugCallback debugCallback_;
    std::atomic<PipelineState> state_ = PipelineState::SaveOnly;  // written by changeState, read by every thread
    const std::string name_;
    const std::string folderName_;
    const Crypt crypt_;
    EventStore store_;
    BatchErrorCallback batchErrorCallback_;
    std::function<void()> emptyCallback_;
    const PipelineKind kind_;
    const bool adopted_;
    const bool compressionEnabled_ = true;
    std::atomic<BatchSlot> slot_ = BatchSlot::free;  // taken by exchange on any thread

    // The batch in flight; on the engine only.
    Queue::Batch batch_;
    uint64_t batchSize_ = 0;  // of its events, or how many are wanted before there is one
    std::error_code lastError_;
    std::vector<BatchEvent> events_;
    bool settled_ = false;  // an answer or the owner has decided about the events: nobody else may
    http::Request request_;
    Transfer transfer_;
    uint64_t lastExchange_ = 0;
    uint64_t awaited_ = 0;  // the exchange whose answer counts; 0 for none
    std::unique_ptr<http::RetryHandler> retryHandler_;
    std::atomic<bool> retryInProgress_ = false;  // retryHandler_ exists; written on the engine, read by flush

    std::atomic<bool> waitsForInterval_ = false;            // the store took nothing back: no batch before the interval
    std::atomic<bool> stopping_ = false;                    // set once, by beginStop
    transfer::Transfer::Clock::time_point stopDeadline_{};  // written before stopping_
    Mutex flushMutex_;
    Transfer flushTransfer_ VELMORA_GUARDED_BY(flushMutex_);  // what a flush waits for; null for nothing

    SharedMutex submitting_;  // shared by each submit while it acts by the state; an opt-out waits for those before it

    Mutex directMutex_;
    uint64_t directRequestId_ VELMORA_GUARDED_BY(directMutex_) = 0;
    std::map<uint64_t, DirectPost> directRequests_ VELMORA_GUARDED_BY(directMutex_);

    TaskEngine timer_;
    TaskEngine ender_;  // ends the exchange of a flush, for which the engine itself waits
};

// What the owner of lines connects them to, those of an adopted folder like its own.
struct LineCallbacks {
    DropCallback onDrop;
    Pipeline::BatchAttributes batchAttributes;
    Pipeline::BatchErrorCallback onAuthError;
    Pipeline::BatchErrorCallback onAnonError;
    Pipeline::DebugCallback onDebug;
};

}  // namespace velmora
