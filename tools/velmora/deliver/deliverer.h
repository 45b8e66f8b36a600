// Empties a stream into a target: fetches, stores, acknowledges, in that order, for ever.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "tools/velmora/deliver/consumer.h"
#include "tools/velmora/deliver/target.h"

namespace velmora::tool {

struct DelivererOptions {
    size_t batch = 1000;      // messages of one transaction, at most
    bool untilEmpty = false;  // ends when every message of the stream is acknowledged
};

// Holds at most two deliveries: one that the target stores and the next, fetched meanwhile. A delivery is acknowledged
// after the target has it for good, so it may be killed anywhere: what was not acknowledged comes again, and the target
// knows what it has. While the target or the log is away it waits and holds on to what it has.
class Deliverer {
public:
    using Log = std::function<void(const std::string&)>;
    using Stop = std::function<bool()>;

    Deliverer(Consumer& consumer, Target& target, DelivererOptions options, Stop stop, Log log);

    // Until `stop` says true, which is asked at least once a second and ends it after the delivery in work, or until
    // the stream is empty if so asked. Throws std::runtime_error for failures that do not pass.
    DeliveryCounts run();

private:
    [[nodiscard]] Delivery fetch();
    void store(const Delivery& current, Delivery& next);
    [[nodiscard]] bool isDone();
    void pause(const Delivery& current, const Delivery& next, const std::string& why);

    Consumer& consumer_;
    Target& target_;
    const DelivererOptions options_;
    const Stop stop_;
    const Log log_;
    DeliveryCounts counts_;
    bool isAway_ = false;                               // the log has been told of it
    std::chrono::steady_clock::time_point lastLook_{};  // at the consumer's state
    std::chrono::steady_clock::time_point lastKeep_{};
};

}  // namespace velmora::tool
