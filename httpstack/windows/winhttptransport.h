// The transport over WinHTTP in its asynchronous form.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <thread>

#include "httpstack/transport.h"
#include "httpstack/windows/mailbox.h"
#include "httpstack/windows/winhttpexchange.h"

namespace velmora::httpstack {

// One thread runs all exchanges. The system's threads do no more than drop a line into the mailbox, and time limits and
// cancels are kept here: an exchange ends in time even if the system does not let go of its handle.
//
// Owns the system's session, the thread and the exchanges that run; shares the mailbox with the system's handles. If
// the system keeps a handle beyond the end, this module stays loaded for as long as the process lives.
//
// Threads: start() and cancel() from any; construction, stop() and destruction by the owner.
class WinHttpTransport final : public Transport {
public:
    // Throws std::system_error if the system refuses, and std::invalid_argument for what it can't honour.
    WinHttpTransport(const Settings& settings, ExchangeTable& table);
    ~WinHttpTransport() override;
    WinHttpTransport(const WinHttpTransport&) = delete;
    WinHttpTransport& operator=(const WinHttpTransport&) = delete;

    void start(std::shared_ptr<Exchange> exchange) override;
    void cancel(uint32_t id) override;
    void stop() override;

private:
    // The thread's own. begin, advance and endExpired end what has come to its end.
    void run();
    void begin(const std::shared_ptr<Exchange>& exchange);
    void advance(const Progress& progress);
    void endExpired();
    void end(uint32_t id, const Outcome& outcome);
    [[nodiscard]] std::optional<WinHttpExchange::TimePoint> nextDeadline() const;

    // The step's outcome; what it throws is the outcome, too.
    template <typename Step>
    [[nodiscard]] static std::optional<Outcome> guarded(Step step);

    const Settings& settings_;
    ExchangeTable& table_;
    WinHttpHandle session_;
    const std::shared_ptr<Mailbox> mailbox_ = std::make_shared<Mailbox>();
    std::map<uint32_t, std::unique_ptr<WinHttpExchange>> running_;  // the thread's only
    std::thread thread_;
};

}  // namespace velmora::httpstack
