// One request that the stack has accepted from the library, and the table of all of them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/types/mutex.h"

namespace velmora::httpstack {

using Header = std::pair<std::string, std::string>;

// What the library wants to have sent, and the way to report progress: each operation is one notification of http.h.
// All of them belong to whoever runs the exchange, one at a time, and none comes after ExchangeTable::finish.
//
// Owns the URL; `session` and `context` are the library's names for it and are handed back as they came. It holds
// nothing of the request's body, which is read from the library as it is sent.
class Exchange {
public:
    // `id` is the table's and not 0; `verb` is one of velmora_http_verb; `url` is where to send, with routes applied.
    Exchange(uint32_t id, int32_t verb, std::string url, void* session, void* context);

    [[nodiscard]] uint32_t id() const { return id_; }
    [[nodiscard]] bool isPost() const;
    [[nodiscard]] const std::string& url() const { return url_; }

    // The request's headers, at most 64; none if the library fails. Throws std::invalid_argument for one with a line
    // break, which would begin another header.
    [[nodiscard]] std::vector<Header> requestHeaders() const;

    // In bytes; 0 if the library fails.
    [[nodiscard]] uint64_t requestBodyLength() const;

    // Copies at most `capacity` bytes of the body from `offset` on. Nothing if the library fails.
    [[nodiscard]] std::optional<uint64_t> readRequestBody(uint64_t offset, char* buffer, uint64_t capacity) const;

    // Status first, headers next, then the body in pieces, `offset` counting their bytes from 0. False if the library
    // could not take the report: the exchange is then to be ended. All texts are copied by the library.
    [[nodiscard]] bool reportStatus(const std::string& protocol, uint32_t status, const std::string& reason) const;
    [[nodiscard]] bool reportHeaders(const std::vector<Header>& headers) const;
    [[nodiscard]] bool reportBody(uint64_t offset, const char* data, uint64_t length) const;

private:
    friend class ExchangeTable;
    void complete(int32_t result, const std::string& message) const;

    const uint32_t id_;
    const int32_t verb_;
    const std::string url_;
    void* const session_;
    void* const context_;
};

// What became of the wish to cancel: Accepted means that the exchange's result is "cancelled", whatever it comes to.
enum class CancelAnswer { Unknown, TooLate, Accepted };

// All exchanges that are under way. It hands out their ids and decides the race between a cancel and an end, so that
// each exchange is completed exactly once: with the result "cancelled" if a cancel was accepted, else with its own.
//
//              cancel()                 finish()                the library knows
//   Running -------------> Cancelled -------------> Finishing --------------------> forgotten
//      |                                                ^
//      +------------------------------------------------+
//                         finish()
//
// Owns the exchanges, together with the transport. Threads: any. The library is never called under the table's lock.
class ExchangeTable {
public:
    // A new exchange under an id that no other one has. Null when the table is closed.
    [[nodiscard]] std::shared_ptr<Exchange> open(int32_t verb, std::string url, void* session, void* context);

    // Decides the race with the end; the caller wakes the transport after Accepted. A repeated cancel is accepted
    // again.
    [[nodiscard]] CancelAnswer cancel(uint32_t id);

    // For a transport that is about to begin: whether there is any point in it.
    [[nodiscard]] bool isCancelled(uint32_t id) const;

    // Forgets an exchange that could not be started, without a word.
    void discard(const Exchange& exchange);

    // Completes the exchange with a velmora_http_result and a text for the host's log. A second call for the same one
    // does nothing. When it returns, the library has heard and the id is free.
    void finish(const Exchange& exchange, int32_t result, const std::string& message);

    // Refuses new exchanges and cancels the others; gives the ids of those that are still to be ended.
    [[nodiscard]] std::vector<uint32_t> close();

    // Returns when the last completion has been reported. Not from within a completion, which it would wait for.
    void waitUntilEmpty();

private:
    enum class State { Running, Cancelled, Finishing };
    struct Entry {
        std::shared_ptr<Exchange> exchange;
        State state;
    };

    uint32_t unusedIdLocked() VELMORA_REQUIRES(mutex_);

    mutable Mutex mutex_;  // a leaf: nothing is called while it is held
    Condition emptied_;
    std::map<uint32_t, Entry> entries_ VELMORA_GUARDED_BY(mutex_);
    uint32_t lastId_ VELMORA_GUARDED_BY(mutex_) = 0;
    bool closed_ VELMORA_GUARDED_BY(mutex_) = false;
};

}  // namespace velmora::httpstack
