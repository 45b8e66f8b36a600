#include "tools/velmora/deliver/consumer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "core/types/function.h"
#include "tools/velmora/jetstream/eventaddress.h"

namespace velmora::tool {
namespace {

constexpr int64_t kMaxAckPending = 20000;  // of all deliverers that share a consumer
constexpr auto kPause = std::chrono::milliseconds(100);

// The second: how many messages the consumer has been sent, this one included; 0 if the message does not tell.
std::pair<LogMessage, uint64_t> readMessage(natsMsg* raw) {
    LogMessage message;
    message.message.reset(raw);
    jsMsgMetaData* meta = nullptr;
    if (natsMsg_GetMetaData(&meta, raw) != NATS_OK) return {std::move(message), 0};
    message.sequence = meta->Sequence.Stream;
    message.published = meta->Timestamp / 1000;
    const uint64_t consumerSequence = meta->Sequence.Consumer;
    jsMsgMetaData_Destroy(meta);
    return {std::move(message), consumerSequence};
}

}  // namespace

Consumer::Consumer(Stream& stream, std::string name, Begin begin, uint64_t afterSequence)
    : stream_(stream), name_(std::move(name)), begin_(begin), lastSequence_(afterSequence) {
    jsConsumerInfo* raw = nullptr;
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        js_GetConsumerInfo(&raw, stream_.context(), stream_.name().c_str(), name_.c_str(), nullptr, &code);
    const NatsOwned<jsConsumerInfo> info(raw);
    const bool isMissing = status == NATS_NOT_FOUND || code == JSConsumerNotFoundErr;
    if (status != NATS_OK && !isMissing) stream_.fail("look at the consumer", status, code);
    if (isMissing) {
        make();
        subscribe();
    } else if (begin == Begin::inOrder) {
        makeAnew();
    } else if (info->Config->AckPolicy != js_AckExplicit || info->Config->DeliverSubject) {
        throw std::runtime_error("consumer " + name_ + " of stream " + stream_.name() +
                                 " is no pull consumer with explicit acknowledgement: name another with --consumer");
    } else {
        subscribe();
    }
}

void Consumer::make() {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = name_.c_str();
    config.AckPolicy = js_AckExplicit;
    config.AckWait = std::chrono::nanoseconds(kAckWait).count();
    config.MaxAckPending = kMaxAckPending;
    config.FilterSubject = kAllSubjects;
    // A work queue holds nothing but what is still to be done, and knows no other beginning.
    if (begin_ == Begin::inOrder && lastSequence_ > 0 && !stream_.isWorkQueue()) {
        config.DeliverPolicy = js_DeliverByStartSequence;
        config.OptStartSeq = lastSequence_ + 1;
    }
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        js_AddConsumer(nullptr, stream_.context(), stream_.name().c_str(), &config, nullptr, &code);
    if (status == NATS_OK) return;
    if (code == JSConsumerWQMultipleUnfilteredErr || code == JSConsumerWQConsumerNotUniqueErr)
        throw std::runtime_error("stream " + stream_.name() +
                                 " is emptied by another consumer already: use its name with --consumer, or make the "
                                 "stream keep events for a time, so that each consumer sees all of them");
    stream_.fail("make the consumer", status, code);
}

void Consumer::makeAnew() {
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        js_DeleteConsumer(stream_.context(), stream_.name().c_str(), name_.c_str(), nullptr, &code);
    if (status != NATS_OK && status != NATS_NOT_FOUND) stream_.fail("begin the consumer anew", status, code);
    make();
    subscribe();
    consumerSequence_ = 0;
}

void Consumer::subscribe() {
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream_.name().c_str();
    options.Consumer = name_.c_str();
    natsSubscription* raw = nullptr;
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        js_PullSubscribe(&raw, stream_.context(), kAllSubjects, name_.c_str(), nullptr, &options, &code);
    subscription_.reset(raw);
    if (status != NATS_OK) stream_.fail("use the consumer", status, code);
}

std::vector<LogMessage> Consumer::fetch(size_t max, std::chrono::milliseconds wait) {
    std::vector<LogMessage> messages;
    natsMsgList list{};
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        natsSubscription_Fetch(&list, subscription_.get(), static_cast<int>(max), wait.count(), &code);
    const ScopeExit release([&list] { natsMsgList_Destroy(&list); });
    if (status != NATS_OK) {
        // The connection is coming back, or the consumer has no leader: no reason to ask without a pause.
        if (status != NATS_TIMEOUT) nats_Sleep(kPause.count());
        return messages;
    }
    messages.reserve(static_cast<size_t>(list.Count));
    for (int i = 0; i < list.Count; ++i) {
        auto [message, consumerSequence] = readMessage(std::exchange(list.Msgs[i], nullptr));
        if (begin_ == Begin::inOrder && !isNext(message, consumerSequence)) {
            makeAnew();
            break;
        }
        messages.push_back(std::move(message));
    }
    return messages;
}

// A message that was sent but did not come would come again only later, behind younger ones.
bool Consumer::isNext(const LogMessage& message, uint64_t consumerSequence) {
    if (consumerSequence != consumerSequence_ + 1) return false;
    consumerSequence_ = consumerSequence;
    lastSequence_ = std::max(lastSequence_, message.sequence);
    return true;
}

void Consumer::acknowledge(const std::vector<LogMessage>& messages) {
    for (const LogMessage& message : messages) natsMsg_Ack(message.message.get(), nullptr);
}

void Consumer::keep(const std::vector<LogMessage>& messages) {
    for (const LogMessage& message : messages) natsMsg_InProgress(message.message.get(), nullptr);
}

bool Consumer::isAtEnd() {
    jsConsumerInfo* raw = nullptr;
    jsErrCode code = jsErrCode(0);
    const natsStatus status =
        js_GetConsumerInfo(&raw, stream_.context(), stream_.name().c_str(), name_.c_str(), nullptr, &code);
    const NatsOwned<jsConsumerInfo> info(raw);
    if (status != NATS_OK) stream_.fail("look at the consumer", status, code);
    return info->NumPending == 0 && info->NumAckPending == 0;
}

}  // namespace velmora::tool
