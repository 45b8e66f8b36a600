// What the system's threads and the callers tell the transport's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "httpstack/exchange.h"

namespace velmora::httpstack {

// A step that the system has finished for one hop of an exchange.
struct Progress {
    enum class Kind { Connected, Sent, Written, Headers, Available, Read, Failed };

    uint64_t hop;
    Kind kind;
    uint32_t value;  // bytes of Available and Read, the system's code of Failed
};

// Threads: any. A leaf: calls nothing under its mutex. It outlives the transport as long as a handle of the system may
// still report to it.
class Mailbox {
public:
    struct Contents {
        std::vector<std::shared_ptr<Exchange>> started;
        std::vector<uint32_t> cancelled;
        std::vector<Progress> progress;
        bool ending = false;
    };

    void postStart(std::shared_ptr<Exchange> exchange);
    void postCancel(uint32_t id);
    void postEnd();

    // Never throws: a report that can't be kept is lost, and the exchange's time limit ends it.
    void postProgress(const Progress& progress) noexcept;

    // Waits for something to take, at most until `deadline`, and takes all of it.
    [[nodiscard]] Contents take(std::optional<std::chrono::steady_clock::time_point> deadline);

    // Handles that the system has not given up yet.
    void handleOpened();
    void handleClosed() noexcept;
    [[nodiscard]] bool waitUntilClosed(std::chrono::milliseconds limit);

private:
    [[nodiscard]] bool isEmptyLocked() const VELMORA_REQUIRES(mutex_);

    Mutex mutex_;
    Condition changed_;
    Contents contents_ VELMORA_GUARDED_BY(mutex_);
    size_t openHandles_ VELMORA_GUARDED_BY(mutex_) = 0;
};

}  // namespace velmora::httpstack
