// Where a deliverer puts events.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/velmora/deliver/consumer.h"
#include "tools/velmora/deliver/eventrow.h"

namespace velmora::tool {

// Messages of the log, and the same as rows, which point into them.
struct Delivery {
    std::vector<LogMessage> messages;
    std::vector<EventRow> rows;

    explicit Delivery(std::vector<LogMessage> taken = {});
    Delivery(Delivery&&) = default;
    Delivery& operator=(Delivery&&) = default;
};

// What became of a delivery; the sum is its size.
struct DeliveryCounts {
    uint64_t stored = 0;
    uint64_t repeated = 0;  // were there already, or belong to a forgotten user
    uint64_t setAside = 0;  // the target can't hold them as events; kept with the reason

    DeliveryCounts& operator+=(const DeliveryCounts& other);
};

// The target can't be reached or has no room for now.
class TargetAway : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Threads: one at a time.
class Target {
public:
    virtual ~Target() = default;

    // The newest message that is stored for certain, for a target that takes messages in the log's order only; such a
    // target wants Consumer::Begin::inOrder.
    [[nodiscard]] virtual bool wantsOrder() const { return false; }
    [[nodiscard]] virtual uint64_t lastSequence() const { return 0; }

    // Begins to store the delivery, which has to live until finish(); returns while the target is still at work.
    // begin and finish throw TargetAway; then all of the delivery is stored, or nothing of it, and begin is called
    // again with the same delivery. Any other std::runtime_error is for good.
    virtual void begin(const Delivery& delivery) = 0;
    // Returns once everything is stored for good.
    virtual DeliveryCounts finish() = 0;
};

// "postgresql://..." or "ndjson:PATH". Throws std::invalid_argument for anything else; what the target lacks is made.
// A database that is not up is waited for until `patience` is over.
[[nodiscard]] std::unique_ptr<Target> openTarget(const std::string& address, std::chrono::milliseconds patience);

}  // namespace velmora::tool
