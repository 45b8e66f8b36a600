// Who may post to the collector, and how much.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/types/mutex.h"
#include "tools/velmora/batch.h"

namespace velmora::tool {

struct KeyRule {
    std::string project;                    // events of others are refused; empty: any project
    double rate = 0;                        // events per second, over ten seconds; 0: no limit
    std::vector<std::string> environments;  // empty: any
};

// Reads {"keys":[{"key":"..","project":"..","rate":100,"environments":["prod"]},..]}. Throws std::invalid_argument
// with the place of what is wrong.
[[nodiscard]] std::map<std::string, KeyRule> parseKeys(const std::string& json);

// The keys in force and what each has used of its rate. Threads: any.
class KeyRing {
public:
    using Clock = std::chrono::steady_clock;

    enum class Verdict { accepted, unknown, exhausted };

    // What was used so far stays used for keys that are kept.
    void replace(std::map<std::string, KeyRule> rules);
    // Whether a batch of that key may come now. Without any rules every key will do.
    [[nodiscard]] Verdict admit(const std::string& key, Clock::time_point now);
    // Takes the batch's events from the rate, also beyond it. The reason if the key may not post such events.
    [[nodiscard]] std::optional<std::string> charge(const std::string& key, const Batch& batch);

private:
    struct Entry {
        KeyRule rule;
        double credit = 0;  // events
        Clock::time_point at;
    };

    Mutex mutex_;
    bool isOpen_ VELMORA_GUARDED_BY(mutex_) = true;
    std::map<std::string, Entry> entries_ VELMORA_GUARDED_BY(mutex_);
};

}  // namespace velmora::tool
