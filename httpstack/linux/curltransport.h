// The transport over libcurl's multi interface: one thread, all signals blocked in it, runs every exchange.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "httpstack/linux/curlexchange.h"
#include "httpstack/transport.h"

namespace velmora::httpstack {

// Owns the multi handle, the thread, and the exchanges that run. An exchange is in one of three places: in the inbox,
// put there by any thread; running, known to the thread alone; or gone, once the table has finished it.
//
//   begun by start() -> inbox -> running -> finished
//                         |         |
//                         +---------+--- cancelled, refused, or failed
//
// Threads: start() and cancel() from any; construction, stop() and destruction by the owner.
class CurlTransport final : public Transport {
public:
    // Starts the thread, with every signal blocked in it. Throws std::runtime_error if libcurl can't be initialised,
    // and std::system_error without a thread; nothing is left behind then.
    CurlTransport(const Settings& settings, ExchangeTable& table);
    ~CurlTransport() override;
    CurlTransport(const CurlTransport&) = delete;
    CurlTransport& operator=(const CurlTransport&) = delete;

    void start(std::shared_ptr<Exchange> exchange) override;
    void cancel(uint32_t id) override;
    void stop() override;

private:
    // What other threads want of the transport's own.
    struct Inbox {
        std::vector<std::shared_ptr<Exchange>> started;
        std::vector<uint32_t> cancelled;
        bool ending = false;

        [[nodiscard]] bool isEmpty() const { return started.empty() && cancelled.empty() && !ending; }
    };

    // Changes the inbox and wakes the thread.
    template <typename Change>
    void post(Change change) VELMORA_EXCLUDES(mutex_);

    // The thread's own, down to end().
    void run();
    void waitWithoutPoll() VELMORA_EXCLUDES(mutex_);
    [[nodiscard]] bool takeInbox() VELMORA_EXCLUDES(mutex_);  // false: the end has come
    void begin(std::shared_ptr<Exchange> exchange);
    void endCancelled(uint32_t id);
    void endDone();
    void end(uint32_t id, CURLcode code);

    const Settings& settings_;
    ExchangeTable& table_;
    CURLM* const multi_;                                         // the thread's, but for wakeups
    std::map<uint32_t, std::unique_ptr<CurlExchange>> running_;  // by id; the thread's own
    Mutex mutex_;                                                // a leaf
    Condition posted_;
    Inbox inbox_ VELMORA_GUARDED_BY(mutex_);
    std::thread thread_;
};

}  // namespace velmora::httpstack
