#include "core/utils/waitfor.h"

#include <chrono>
#include <thread>

#include "core/platform/process.h"
#include "core/types/log.h"

namespace velmora {

bool waitFor(const std::function<bool()>& predicate, const std::string& what, int64_t intervalMs, int64_t timeoutMs) {
    if (platform::isTerminating()) return true;
    const int64_t logEvery = 60000 / intervalMs + 1;
    int64_t counter = 0;
    int64_t remaining = timeoutMs;
    VELMORA_LOG_SCOPE_AT(info, "utils", "velmora::waitFor", "wait for " << what << " to be complete");
    while (true) {
        const bool holds = predicate();
        if (holds || remaining < 1) return holds;
        if (counter == 0) {
            VELMORA_LOGF_AT(info, "utils", "velmora::waitFor", "waiting for %s to be complete", what.c_str());
        }
        counter = (counter + 1) % logEvery;
        std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
        remaining -= intervalMs;
    }
}

}  // namespace velmora
