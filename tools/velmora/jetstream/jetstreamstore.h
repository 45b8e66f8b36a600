// The collector's store on a NATS JetStream log: `stored` means that the log's nodes have acknowledged every event of
// the batch, on as many of them as the stream has replicas.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/types/mutex.h"
#include "tools/velmora/jetstream/stream.h"
#include "tools/velmora/store.h"

namespace velmora::tool {

// Owns the connection, a thread that publishes and one that watches the deadlines; acknowledgements come on a thread of
// the client. A batch is pending from append until its last event is acknowledged, until one of them fails, or until
// its time is over, whichever is first. Nothing is published again from here: the client sends the batch again, and the
// message ids tell the log which events it has already.
//
// An event that is larger than the log takes makes the batch `refused`; a log without room makes it `full`.
class JetStreamStore : public Store {
public:
    // Connects and makes the stream if it is missing; see Stream for what it throws.
    JetStreamStore(StreamAddress address, std::chrono::milliseconds timeout, uint64_t maxPendingBytes);
    ~JetStreamStore() override;
    JetStreamStore(const JetStreamStore&) = delete;
    JetStreamStore& operator=(const JetStreamStore&) = delete;

    void append(std::shared_ptr<const Batch> batch, Completion done) noexcept override;
    [[nodiscard]] bool ready(std::string& why) const override;
    [[nodiscard]] StoreFigures figures() const override;
    void stop() noexcept override;

private:
    using Clock = std::chrono::steady_clock;

    struct Pending {
        std::shared_ptr<const Batch> batch;
        Completion done;
        Clock::time_point deadline;
        std::vector<bool> acknowledged;
        size_t left;
    };

    void subscribe();
    [[nodiscard]] std::optional<AppendResult> refusalOf(const Batch& batch) const;
    void enqueue(std::shared_ptr<const Batch>& batch, Completion& done);
    void publishAll();
    void publish(uint64_t id, const Batch& batch);
    void watchDeadlines();
    static void onReply(natsConnection*, natsSubscription*, natsMsg* message, void* self) noexcept;
    void onAnswer(uint64_t id, size_t index, const std::optional<AppendResult>& failure);
    void finish(uint64_t id, AppendResult result);
    [[nodiscard]] std::optional<Pending> takeLocked(uint64_t id) VELMORA_REQUIRES(mutex_);

    const std::chrono::milliseconds timeout_;
    const uint64_t maxPendingBytes_;
    Stream stream_;
    const size_t maxEventBytes_;
    std::string replyPrefix_;  // each event's acknowledgement goes to PREFIX.BATCH.INDEX
    NatsOwned<natsSubscription> replies_;

    // Guards what follows. Stands alone: nothing is published and no completion is called under it.
    mutable Mutex mutex_;
    Condition changed_;
    std::map<uint64_t, Pending> pending_ VELMORA_GUARDED_BY(mutex_);  // by age, so by deadline
    std::deque<uint64_t> unpublished_ VELMORA_GUARDED_BY(mutex_);
    uint64_t lastId_ VELMORA_GUARDED_BY(mutex_) = 0;
    uint64_t pendingBytes_ VELMORA_GUARDED_BY(mutex_) = 0;
    uint64_t finishing_ VELMORA_GUARDED_BY(mutex_) = 0;  // completions that are being called
    uint64_t storedEvents_ VELMORA_GUARDED_BY(mutex_) = 0;
    uint64_t timeouts_ VELMORA_GUARDED_BY(mutex_) = 0;
    bool draining_ VELMORA_GUARDED_BY(mutex_) = false;  // nothing new is taken
    bool stopping_ VELMORA_GUARDED_BY(mutex_) = false;  // the threads end
    bool unsubscribed_ VELMORA_GUARDED_BY(mutex_) = false;

    std::thread publisher_;
    std::thread watch_;
};

}  // namespace velmora::tool
