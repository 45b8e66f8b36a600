// What the system's threads and the callers tell the transport's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "httpstack/exchange.h"

namespace velmora::httpstack {

// A step that the system has finished for one hop of an exchange. A hop is one request to one server; a redirect begins
// the next one.
struct Progress {
    enum class Kind { Connected, Sent, Written, Headers, Available, Read, Failed };

    uint64_t hop;  // the exchange's id in the upper half, a count of its hops in the lower
    Kind kind;
    uint32_t value;  // bytes of Available and Read, the system's code of Failed
};

// Owns what has not been taken yet, in the order of its coming within each kind. Shared by the transport and by every
// handle that the system may still report for, so it outlives the transport where the system is late.
//
// Threads: any; one alone takes. A leaf: calls nothing under its mutex.
class Mailbox {
public:
    // `ending` stays set once it is; the rest is handed over.
    struct Contents {
        std::vector<std::shared_ptr<Exchange>> started;
        std::vector<uint32_t> cancelled;
        std::vector<Progress> progress;
        bool ending = false;
    };

    // Wishes of other threads; see Transport. Both throw std::bad_alloc, and have posted nothing then.
    void postStart(std::shared_ptr<Exchange> exchange);
    void postCancel(uint32_t id);

    // Every take() returns at once from now on.
    void postEnd();

    // Never throws: a report that can't be kept is lost, and the exchange's time limit ends it.
    void postProgress(const Progress& progress) noexcept;

    // Waits for something to take, at most until `deadline`, and takes all of it.
    [[nodiscard]] Contents take(std::optional<std::chrono::steady_clock::time_point> deadline);

    // Handles that the system has not given up yet: until then it may call in, and use their buffers.
    void handleOpened();
    void handleClosed() noexcept;

    // Whether all have been given up within the limit.
    [[nodiscard]] bool waitUntilClosed(std::chrono::milliseconds limit);

private:
    [[nodiscard]] bool isEmptyLocked() const VELMORA_REQUIRES(mutex_);

    Mutex mutex_;
    Condition changed_;
    Contents contents_ VELMORA_GUARDED_BY(mutex_);
    size_t openHandles_ VELMORA_GUARDED_BY(mutex_) = 0;
};

}  // namespace velmora::httpstack
