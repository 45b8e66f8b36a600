// The stream of a NATS JetStream log that collectors fill and deliverers empty.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora::tool {

// The log can't be reached for now: what was tried may be tried again. Any other failure (wrong credentials, a stream
// with other settings) is a std::runtime_error whose text says what to do.
class LogAway : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// How a stream is made, and what is asked of one that exists: what is not set is not compared.
struct StreamSettings {
    std::optional<int> replicas;                 // made with 1
    std::optional<std::chrono::seconds> window;  // in which a repeated message id is dropped; made with two minutes
    std::optional<std::chrono::seconds> keep;    // how long messages stay; 0, as it is made: until they are delivered
    std::optional<int64_t> maxBytes;             // beyond which publishing is refused; -1, as it is made: no bound
};

struct StreamAddress {
    std::vector<std::string> servers;  // "nats://[USER:PASSWORD@]HOST:PORT" each
    std::string stream;
    std::string credentialsFile;  // of user and seed; empty: none
    StreamSettings settings;

    // "jetstream:nats://[USER:PASSWORD@]HOST:PORT[,HOST:PORT...]/STREAM"; user and password go for all of them. Throws
    // std::invalid_argument.
    [[nodiscard]] static StreamAddress parse(const std::string& text);

    // The servers without users and passwords, and the stream: for messages.
    [[nodiscard]] std::string display() const;
};

struct NatsDeleter {
    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
    void operator()(natsSubscription* subscription) const { natsSubscription_Destroy(subscription); }
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
    void operator()(jsCtx* context) const { jsCtx_Destroy(context); }
    void operator()(jsStreamInfo* info) const { jsStreamInfo_Destroy(info); }
    void operator()(jsConsumerInfo* info) const { jsConsumerInfo_Destroy(info); }
};
template <typename T>
using NatsOwned = std::unique_ptr<T, NatsDeleter>;

// One connection to the log, on a stream that is there. It comes back by itself, to any of the servers, for as long as
// it lives; a server that stops answering is left after some ten seconds.
//
// Threads: any. The client keeps threads of its own; callbacks of subscriptions come from those.
class Stream {
public:
    // Connects, and makes the stream if it is missing. `name` is what the servers' own tools show. A server that does
    // not answer, or whose cluster has no leader yet, is tried again until `patience` is over.
    Stream(StreamAddress address, const std::string& name, std::chrono::milliseconds patience);

    [[nodiscard]] natsConnection* connection() const { return connection_.get(); }
    [[nodiscard]] jsCtx* context() const { return context_.get(); }
    [[nodiscard]] const std::string& name() const { return address_.stream; }
    [[nodiscard]] const StreamAddress& address() const { return address_; }
    [[nodiscard]] bool isConnected() const;

    // Whether messages go once they are delivered. If not, they stay for their time, and consumers are independent.
    [[nodiscard]] bool isWorkQueue() const { return isWorkQueue_; }

    // Throws what fits a failed call: LogAway for what passes, else std::runtime_error. `what` names the call.
    [[noreturn]] void fail(const std::string& what, natsStatus status, jsErrCode code = jsErrCode(0)) const;

private:
    void connect(const std::string& name);
    void findOrMake();
    void make();
    void check(const jsStreamConfig& found) const;

    const StreamAddress address_;
    NatsOwned<natsConnection> connection_;
    NatsOwned<jsCtx> context_;
    bool isWorkQueue_ = true;
};

}  // namespace velmora::tool
