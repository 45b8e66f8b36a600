#include "tools/velmora/deliver/deliverer.h"

#include <thread>

#include "tools/velmora/deliver/filetarget.h"
#include "tools/velmora/deliver/postgrestarget.h"

namespace velmora::tool {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kFetchWait = std::chrono::milliseconds(500);
constexpr auto kPause = std::chrono::milliseconds(500);
constexpr auto kLookInterval = std::chrono::seconds(10);
constexpr auto kKeepInterval = Consumer::kAckWait / 3;
constexpr char kFileScheme[] = "ndjson:";

}  // namespace

Delivery::Delivery(std::vector<LogMessage> taken) : messages(std::move(taken)) {
    rows.reserve(messages.size());
    for (const LogMessage& message : messages) rows.push_back(readEventRow(message.text(), message.published));
}

DeliveryCounts& DeliveryCounts::operator+=(const DeliveryCounts& other) {
    stored += other.stored;
    repeated += other.repeated;
    setAside += other.setAside;
    return *this;
}

std::unique_ptr<Target> openTarget(const std::string& address, std::chrono::milliseconds patience) {
    if (address.starts_with(kFileScheme)) return std::make_unique<FileTarget>(address.substr(sizeof kFileScheme - 1));
    if (address.starts_with("postgresql://") || address.starts_with("postgres://"))
        return std::make_unique<PostgresTarget>(address, patience);
    throw std::invalid_argument("'" + address + "' is neither postgresql://... nor ndjson:PATH");
}

Deliverer::Deliverer(Consumer& consumer, Target& target, DelivererOptions options, Stop stop, Log log)
    : consumer_(consumer), target_(target), options_(options), stop_(std::move(stop)), log_(std::move(log)) {}

DeliveryCounts Deliverer::run() {
    Delivery current = fetch();
    while (!stop_()) {
        Delivery next;
        if (!current.messages.empty()) {
            store(current, next);
        } else if (isDone()) {
            break;
        } else {
            next = fetch();
        }
        current = std::move(next);
    }
    return counts_;
}

Delivery Deliverer::fetch() { return Delivery(consumer_.fetch(options_.batch, kFetchWait)); }

// The target works on `current` while the next is fetched.
void Deliverer::store(const Delivery& current, Delivery& next) {
    bool isFetched = false;
    for (;;) {
        try {
            target_.begin(current);
            if (!isFetched) {
                isFetched = true;
                next = fetch();
            }
            counts_ += target_.finish();
            break;
        } catch (const TargetAway& away) {
            if (stop_()) return;
            pause(current, next, away.what());
        }
    }
    consumer_.acknowledge(current.messages);
    if (isAway_) log_("the target is back");
    isAway_ = false;
}

void Deliverer::pause(const Delivery& current, const Delivery& next, const std::string& why) {
    if (!isAway_) log_("the target is away, waiting: " + why);
    isAway_ = true;
    if (Clock::now() - lastKeep_ >= kKeepInterval) {
        lastKeep_ = Clock::now();
        consumer_.keep(current.messages);
        consumer_.keep(next.messages);
    }
    std::this_thread::sleep_for(kPause);
}

// Asked when nothing comes: also finds out that the stream or its consumer is gone for good.
bool Deliverer::isDone() {
    if (!options_.untilEmpty && Clock::now() - lastLook_ < kLookInterval) return false;
    lastLook_ = Clock::now();
    try {
        return consumer_.isAtEnd() && options_.untilEmpty;
    } catch (const LogAway& away) {
        log_(away.what());
        return false;
    }
}

}  // namespace velmora::tool
