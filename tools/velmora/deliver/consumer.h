// The durable place of a deliverer in a stream: what it has acknowledged does not come again, what it has not comes
// again after a while, to it or to another deliverer of the same name.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/velmora/jetstream/stream.h"

namespace velmora::tool {

// A message that is held until it is acknowledged or the holder is gone.
struct LogMessage {
    NatsOwned<natsMsg> message;
    uint64_t sequence = 0;  // in the stream, ascending
    int64_t published = 0;  // microseconds since 1970

    [[nodiscard]] std::string_view text() const {
        return {natsMsg_GetData(message.get()), static_cast<size_t>(natsMsg_GetDataLength(message.get()))};
    }
};

// Threads: one at a time.
class Consumer {
public:
    // Where a consumer that has to be made begins.
    enum class Begin {
        shared,   // made if it is missing; any number of deliverers share its messages
        inOrder,  // made anew, for a single deliverer that keeps its own place: everything after it, oldest first; what
                  // was dealt with may come again, but nothing comes before an older message that has not come yet
    };

    // Throws as Stream does.
    Consumer(Stream& stream, std::string name, Begin begin, uint64_t afterSequence = 0);

    // At most `max`, once so many are there or `wait` is over; none if there are none, or if the log is away.
    [[nodiscard]] std::vector<LogMessage> fetch(size_t max, std::chrono::milliseconds wait);

    // Tells the log that they are dealt with. An acknowledgement may be lost with the connection: they come again then.
    void acknowledge(const std::vector<LogMessage>& messages);

    // Asks the log not to send them again while they are worked on.
    void keep(const std::vector<LogMessage>& messages);

    // Whether every message of the stream has been acknowledged. Throws as Stream does.
    [[nodiscard]] bool isAtEnd();

    static constexpr std::chrono::seconds kAckWait{30};

private:
    void make();
    void makeAnew();
    void subscribe();
    [[nodiscard]] bool isNext(const LogMessage& message, uint64_t consumerSequence);

    Stream& stream_;
    const std::string name_;
    const Begin begin_;
    uint64_t lastSequence_;          // of the messages handed out; only in order
    uint64_t consumerSequence_ = 0;  // of the last message: the log counts what it sends
    NatsOwned<natsSubscription> subscription_;
};

}  // namespace velmora::tool
