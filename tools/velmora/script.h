// Misbehaviour of the collector on request: what the next ingest requests meet instead of a plain answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "core/types/mutex.h"

namespace velmora::tool {

struct ScriptStep {
    int status = 0;                      // 0: the request is handled as usual
    std::optional<uint32_t> retryAfter;  // seconds, sent as Retry-After
    std::chrono::milliseconds delay{0};  // before anything else, or before a late answer
    bool drop = false;                   // the connection is cut in the middle of the answer, nothing is stored
    bool lateAnswer = false;             // the events are stored; the answer comes after the delay
};

// Reads {"fail":N,"status":503,"retryAfter":1,"delayMs":100,"drop":true,"lateAnswer":true}: N steps of that kind, 1 if
// it is not given. A step that does nothing else fails with 503. Throws std::invalid_argument for anything else.
struct ScriptOrder {
    ScriptStep step;
    uint64_t count = 1;
};
[[nodiscard]] ScriptOrder parseScript(const std::string& json);

// The steps that are still to be played. Threads: any.
class Script {
public:
    // Replaces what is left of an earlier order; a count of 0 ends the misbehaviour.
    void play(const ScriptOrder& order);
    [[nodiscard]] std::optional<ScriptStep> next();

private:
    Mutex mutex_;
    ScriptOrder order_ VELMORA_GUARDED_BY(mutex_){{}, 0};
};

}  // namespace velmora::tool
