// The transport over libcurl's multi interface: one thread, all signals blocked in it, runs every exchange.
#pragma once

#include <curl/curl.h>

#include <map>
#include <thread>

#include "httpstack/linux/curlexchange.h"
#include "httpstack/transport.h"

namespace velmora::httpstack {

class CurlTransport final : public Transport {
public:
    CurlTransport(const Settings& settings, ExchangeTable& table);
    ~CurlTransport() override;

    void start(std::shared_ptr<Exchange> exchange) override;
    void cancel(uint32_t id) override;
    void stop() override;

private:
    struct Inbox {
        std::vector<std::shared_ptr<Exchange>> started;
        std::vector<uint32_t> cancelled;
        bool ending = false;
    };

    void run();
    bool takeInbox();
    void begin(std::shared_ptr<Exchange> exchange);
    void endCancelled(uint32_t id);
    void endDone();
    void end(uint32_t id, CURLcode code);

    const Settings& settings_;
    ExchangeTable& table_;
    CURLM* const multi_;
    std::map<uint32_t, std::unique_ptr<CurlExchange>> running_;  // the thread's own
    Mutex mutex_;
    Inbox inbox_ VELMORA_GUARDED_BY(mutex_);
    std::thread thread_;
};

}  // namespace velmora::httpstack
