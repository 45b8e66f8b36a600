// The edge to the system's HTTP client: what moves the bytes of exchanges.
#pragma once

#include <memory>

#include "httpstack/exchange.h"
#include "httpstack/settings.h"

namespace velmora::httpstack {

// Runs exchanges, all at the same time, and ends each one with ExchangeTable::finish: with "ok" once a complete
// response has been reported, "retriable" for trouble on the way, "non-retriable" for a request that can never be sent
// (no such URL, a header that would smuggle in another). An exchange that the table calls cancelled is ended as soon as
// the transport sees it.
//
// Owns its threads, from construction to stop(); they alone report progress to the library.
class Transport {
public:
    virtual ~Transport() = default;

    // Takes an exchange over and returns at once. Any thread. Throws std::bad_alloc, and has not taken it over then.
    virtual void start(std::shared_ptr<Exchange> exchange) = 0;

    // Wakes the transport to end an exchange that the table has marked. An unknown id is ignored. Any thread. After
    // std::bad_alloc the exchange runs to its own end, which the table then reports as cancelled.
    virtual void cancel(uint32_t id) = 0;

    // Ends the transport's threads and waits for them. All exchanges have finished, and none is started afterwards.
    // A second call does nothing.
    virtual void stop() = 0;
};

// `settings` and `table` outlive the transport. Throws std::runtime_error or std::system_error if the system refuses,
// and std::invalid_argument for a setting that the system's client can't honour.
[[nodiscard]] std::unique_ptr<Transport> makeTransport(const Settings& settings, ExchangeTable& table);

// Whether the transport's threads are not there any more, so that nothing may wait for them: killed by the process's
// end already, or left to the parent by a fork.
[[nodiscard]] bool threadsAreGone() noexcept;

}  // namespace velmora::httpstack
