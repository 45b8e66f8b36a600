#include "tools/velmora/jetstream/jetstreamstore.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "tools/velmora/jetstream/eventaddress.h"

namespace velmora::tool {
namespace {

constexpr auto kStartPatience = std::chrono::seconds(30);
constexpr size_t kHeaderRoom = 1024;  // subject, reply and message id of an event, generously
constexpr int kNoSpaceErrors[] = {JSInsufficientResourcesErr, JSMemoryResourcesExceededErr,
                                  JSStorageResourcesExceededErr, JSStreamStoreFailedErr};

// The number after "err_code": in a refusal of the log.
int errorCodeOf(std::string_view answer) {
    constexpr std::string_view kKey = "\"err_code\":";
    const size_t found = answer.find(kKey);
    int code = 0;
    if (found != std::string_view::npos)
        std::from_chars(answer.data() + found + kKey.size(), answer.data() + answer.size(), code);
    return code;
}

// Nothing for an acknowledgement.
std::optional<AppendResult> failureIn(natsMsg* message) {
    if (natsMsg_IsNoResponders(message))
        return AppendResult{AppendOutcome::away, "no node of the log takes events now"};
    const std::string_view answer(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)));
    if (answer.find("\"error\"") == std::string_view::npos) return std::nullopt;
    const int code = errorCodeOf(answer);
    std::string text = "the log answers " + std::string(answer.substr(0, 200));
    if (std::count(std::begin(kNoSpaceErrors), std::end(kNoSpaceErrors), code) > 0)
        return AppendResult{AppendOutcome::full, std::move(text)};
    return AppendResult{code == JSStreamMessageExceedsMaximumErr ? AppendOutcome::refused : AppendOutcome::away,
                        std::move(text)};
}

// BATCH.INDEX at the end of a reply's subject.
bool readPlace(std::string_view text, uint64_t& id, size_t& index) {
    const char* const end = text.data() + text.size();
    const auto [dot, failed] = std::from_chars(text.data(), end, id);
    return failed == std::errc() && dot != end && *dot == '.' && std::from_chars(dot + 1, end, index).ec == std::errc();
}

natsStatus publishEvent(natsConnection* connection, const ReceivedEvent& event, const std::string& reply) {
    const std::string subject = eventSubject(event.project, event.environment, event.isSignedIn);
    const std::string id =
        messageId(event.project, event.guid, event.guid.empty() ? std::string(event.text) : std::string());
    natsMsg* raw = nullptr;
    natsStatus status =
        natsMsg_Create(&raw, subject.c_str(), reply.c_str(), event.text.data(), static_cast<int>(event.text.size()));
    const NatsOwned<natsMsg> message(raw);
    if (status == NATS_OK) status = natsMsgHeader_Set(raw, "Nats-Msg-Id", id.c_str());
    if (status == NATS_OK) status = natsConnection_PublishMsg(connection, raw);
    return status;
}

}  // namespace

JetStreamStore::JetStreamStore(StreamAddress address, std::chrono::milliseconds timeout, uint64_t maxPendingBytes)
    : timeout_(timeout),
      maxPendingBytes_(maxPendingBytes),
      stream_(std::move(address), "velmora collect", kStartPatience),
      maxEventBytes_(static_cast<size_t>(natsConnection_GetMaxPayload(stream_.connection())) - kHeaderRoom) {
    subscribe();
    publisher_ = std::thread([this] { publishAll(); });
    watch_ = std::thread([this] { watchDeadlines(); });
}

JetStreamStore::~JetStreamStore() { stop(); }

void JetStreamStore::subscribe() {
    natsInbox* inbox = nullptr;
    natsStatus status = natsInbox_Create(&inbox);
    if (status != NATS_OK) stream_.fail("subscribe", status);
    replyPrefix_ = std::string(inbox) + ".";
    natsInbox_Destroy(inbox);
    natsSubscription* raw = nullptr;
    status = natsConnection_Subscribe(&raw, stream_.connection(), (replyPrefix_ + ">").c_str(), onReply, this);
    replies_.reset(raw);
    // What waits here is bounded by what is pending.
    if (status == NATS_OK) status = natsSubscription_SetPendingLimits(raw, -1, -1);
    const auto onEnd = [](void* self) {
        auto& store = *static_cast<JetStreamStore*>(self);
        const MutexLock lock(store.mutex_);
        store.unsubscribed_ = true;
        store.changed_.notifyAll();
    };
    if (status == NATS_OK) status = natsSubscription_SetOnCompleteCB(raw, onEnd, this);
    if (status != NATS_OK) stream_.fail("subscribe", status);
}

void JetStreamStore::append(std::shared_ptr<const Batch> batch, Completion done) noexcept {
    try {
        if (batch->events.empty()) return done({});
        if (const auto refusal = refusalOf(*batch)) return done(*refusal);
        enqueue(batch, done);
    } catch (const std::bad_alloc&) {
        done({AppendOutcome::full, "out of memory"});
    }
}

std::optional<AppendResult> JetStreamStore::refusalOf(const Batch& batch) const {
    std::string why;
    if (!ready(why)) return AppendResult{AppendOutcome::away, why};
    for (const ReceivedEvent& event : batch.events) {
        if (event.text.size() > maxEventBytes_)
            return AppendResult{AppendOutcome::refused, "an event of " + std::to_string(event.text.size()) +
                                                            " bytes; the log takes " + std::to_string(maxEventBytes_)};
    }
    const MutexLock lock(mutex_);
    if (draining_) return AppendResult{AppendOutcome::away, "the collector is stopping"};
    if (pendingBytes_ + batch.body.size() > maxPendingBytes_ && pendingBytes_ > 0)
        return AppendResult{AppendOutcome::full, "too much waits for the log"};
    return std::nullopt;
}

void JetStreamStore::enqueue(std::shared_ptr<const Batch>& batch, Completion& done) {
    const size_t events = batch->events.size();
    const uint64_t bytes = batch->body.size();
    std::vector<bool> acknowledged(events);
    const MutexLock lock(mutex_);
    const uint64_t id = lastId_ + 1;
    unpublished_.push_back(id);
    // The entry's memory is the last thing that can fail: until then the caller still holds the completion.
    Pending& entry = pending_[id];
    entry.acknowledged = std::move(acknowledged);
    entry.left = events;
    entry.deadline = Clock::now() + timeout_;
    entry.batch = std::move(batch);
    entry.done = std::move(done);
    lastId_ = id;
    pendingBytes_ += bytes;
    changed_.notifyAll();
}

void JetStreamStore::publishAll() {
    for (;;) {
        uint64_t id = 0;
        std::shared_ptr<const Batch> batch;
        {
            const MutexLock lock(mutex_);
            changed_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return stopping_ || !unpublished_.empty(); });
            if (stopping_) return;
            id = unpublished_.front();
            unpublished_.pop_front();
            const auto found = pending_.find(id);
            if (found == pending_.end()) continue;
            batch = found->second.batch;
        }
        publish(id, *batch);
    }
}

void JetStreamStore::publish(uint64_t id, const Batch& batch) {
    const std::string prefix = replyPrefix_ + std::to_string(id) + ".";
    for (size_t index = 0; index < batch.events.size(); ++index) {
        const natsStatus status =
            publishEvent(stream_.connection(), batch.events[index], prefix + std::to_string(index));
        if (status == NATS_OK) continue;
        return finish(id, {AppendOutcome::away, std::string("publishing fails: ") + natsStatus_GetText(status)});
    }
}

void JetStreamStore::watchDeadlines() {
    for (;;) {
        uint64_t id = 0;
        {
            const MutexLock lock(mutex_);
            changed_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return stopping_ || !pending_.empty(); });
            if (stopping_) return;
            const auto [first, deadline] = std::pair(pending_.begin()->first, pending_.begin()->second.deadline);
            const bool isOver = !changed_.waitUntil(mutex_, deadline, [this, first = first]() VELMORA_REQUIRES(mutex_) {
                return stopping_ || pending_.count(first) == 0;
            });
            if (!isOver) continue;
            id = first;
            ++timeouts_;
        }
        finish(id, {AppendOutcome::away, "the log does not acknowledge in time"});
    }
}

void JetStreamStore::onReply(natsConnection*, natsSubscription*, natsMsg* message, void* self) noexcept {
    auto& store = *static_cast<JetStreamStore*>(self);
    const NatsOwned<natsMsg> owned(message);
    const std::string_view subject(natsMsg_GetSubject(message));
    uint64_t id = 0;
    size_t index = 0;
    if (readPlace(subject.substr(std::min(subject.size(), store.replyPrefix_.size())), id, index))
        store.onAnswer(id, index, failureIn(message));
}

void JetStreamStore::onAnswer(uint64_t id, size_t index, const std::optional<AppendResult>& failure) {
    if (failure) return finish(id, *failure);
    {
        const MutexLock lock(mutex_);
        const auto found = pending_.find(id);
        if (found == pending_.end() || index >= found->second.acknowledged.size()) return;
        Pending& entry = found->second;
        // An answer that comes twice must not stand for another event's.
        if (entry.acknowledged[index]) return;
        entry.acknowledged[index] = true;
        ++storedEvents_;
        if (--entry.left > 0) return;
    }
    finish(id, {});
}

void JetStreamStore::finish(uint64_t id, AppendResult result) {
    std::optional<Pending> taken;
    {
        const MutexLock lock(mutex_);
        taken = takeLocked(id);
        if (!taken) return;
        ++finishing_;
    }
    taken->done(std::move(result));
    taken.reset();
    const MutexLock lock(mutex_);
    --finishing_;
    changed_.notifyAll();
}

std::optional<JetStreamStore::Pending> JetStreamStore::takeLocked(uint64_t id) {
    auto node = pending_.extract(id);
    if (node.empty()) return std::nullopt;
    pendingBytes_ -= node.mapped().batch->body.size();
    return std::move(node.mapped());
}

bool JetStreamStore::ready(std::string& why) const {
    if (stream_.isConnected()) return true;
    why = "no connection to " + stream_.address().display();
    return false;
}

StoreFigures JetStreamStore::figures() const {
    const uint64_t connected = stream_.isConnected() ? 1 : 0;
    const MutexLock lock(mutex_);
    return {{"log_connected", connected},
            {"log_pending_batches", pending_.size()},
            {"log_pending_bytes", pendingBytes_},
            {"log_acknowledged_events_total", storedEvents_},
            {"log_timeouts_total", timeouts_}};
}

void JetStreamStore::stop() noexcept {
    {
        const MutexLock lock(mutex_);
        if (stopping_) return;
        draining_ = true;
        // The watch ends each of them in its time.
        changed_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return pending_.empty() && finishing_ == 0; });
        stopping_ = true;
        changed_.notifyAll();
    }
    publisher_.join();
    watch_.join();
    natsSubscription_Unsubscribe(replies_.get());
    const MutexLock lock(mutex_);
    changed_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return unsubscribed_; });
}

std::unique_ptr<Store> openJetStreamStore(const StoreOptions& options) {
    StreamAddress address = StreamAddress::parse(options.target);
    address.credentialsFile = options.credentials;
    address.settings = {options.replicas, options.duplicateWindow, options.retention, options.maxStreamBytes};
    return std::make_unique<JetStreamStore>(std::move(address), options.timeout, options.maxPendingBytes);
}

}  // namespace velmora::tool
