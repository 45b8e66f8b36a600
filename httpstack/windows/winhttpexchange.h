// One exchange over WinHTTP, with all the redirects on its way.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "httpstack/exchange.h"
#include "httpstack/settings.h"
#include "httpstack/windows/winhttphop.h"

namespace velmora::httpstack {

// How an exchange has ended: one of the results of http.h, and what the host's log says about it.
struct Outcome {
    int32_t result;
    std::string message;
};

// Streams the request's body from the library and the response to it. Of a chain of interim and redirected responses
// only the last one is reported. A redirect keeps the verb and the body, and never leaves the request's origin.
//
//   connecting -> sending <-> reading the request's body -> waiting for a head -> reading the response -> ended
//       ^                                                        |   ^
//       +---------------- redirect, on a new hop ----------------+   +-- interim response
//
// Each step is begun here and goes on in advance() when the system reports its end; what it reports for a hop that was
// left is ignored. Owns the hop in use. Threads: the transport's only.
class WinHttpExchange {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // Asks the library for headers and body length. Throws std::invalid_argument for a header that must not be sent.
    // `settings` and `session` outlive the exchange.
    WinHttpExchange(std::shared_ptr<Exchange> exchange, const Settings& settings, HINTERNET session,
                    std::shared_ptr<Mailbox> mailbox);
    WinHttpExchange(const WinHttpExchange&) = delete;
    WinHttpExchange& operator=(const WinHttpExchange&) = delete;

    [[nodiscard]] const Exchange& exchange() const { return *exchange_; }

    // Each gives the outcome if that was the end; nothing is called on the exchange afterwards. Both throw
    // std::bad_alloc or std::system_error, which are an end, too.
    [[nodiscard]] std::optional<Outcome> begin();
    [[nodiscard]] std::optional<Outcome> advance(const Progress& progress);

    // When the next of the time limits (to connect, without progress, total) runs out; nothing if there is none.
    [[nodiscard]] std::optional<TimePoint> deadline() const;
    [[nodiscard]] Outcome timedOut() const;

private:
    // The steps, each with the outcome if it was the last one.
    std::optional<Outcome> beginHop();
    std::optional<Outcome> sendMore();
    std::optional<Outcome> takeHead();
    std::optional<Outcome> followTo(const std::string& location);
    std::optional<Outcome> takeBody(uint32_t length);
    [[nodiscard]] Outcome end() const;
    [[nodiscard]] bool isRedirect(uint32_t status) const;
    void readLength(uint32_t status);

    const std::shared_ptr<Exchange> exchange_;
    const Settings& settings_;
    const HINTERNET session_;
    const std::shared_ptr<Mailbox> mailbox_;
    std::string url_;
    Target target_;
    std::vector<Header> headers_;
    uint64_t requestLength_ = 0;
    uint64_t requestOffset_ = 0;
    std::optional<uint64_t> responseLength_;  // as the head says: the system passes a short body off as complete
    uint64_t responseOffset_ = 0;
    uint64_t hopNumber_;  // see Progress
    uint32_t redirects_ = 0;
    bool connected_ = false;
    const TimePoint begun_ = std::chrono::steady_clock::now();
    TimePoint progressed_ = begun_;  // the system's last report
    uint32_t status_ = 0;            // of the response that was reported
    std::unique_ptr<WinHttpHop> hop_;
};

}  // namespace velmora::httpstack
