// Where the collector puts what it has received. A store takes whole batches and answers for each of them later; the
// collector tells a client "accepted" only after that answer. Some stores can also be looked into: see StoreView.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/velmora/batch.h"

namespace velmora::tool {

enum class AppendOutcome {
    stored,  // every event of the batch is as safe as the store makes it
    away,    // the store does not answer, or not in time: some of the events may have been stored nevertheless
    full,    // nothing was begun: the store's bounds on memory or space are reached
    refused  // the store will never take this batch, for its size
};

struct AppendResult {
    AppendOutcome outcome = AppendOutcome::stored;
    std::string reason;  // for the client's answer and the log; empty if stored
};

// What a store tells of itself; the names are those of metrics, without the program's prefix.
using StoreFigures = std::vector<std::pair<std::string, uint64_t>>;

struct RejectionRecord {
    int status = 0;  // HTTP status of the answer; 0: answered as a script said
    std::string reason;
    std::string remote;
    uint64_t bytes = 0;  // of the body as sent
};

struct EventQuery {
    std::optional<std::string> project;
    std::optional<std::string> guid;
    std::optional<int64_t> batch;
    std::optional<std::string> since;  // an arrival number, exclusive, or a UTC time in ISO form, inclusive
    std::optional<int64_t> before;     // an arrival number, exclusive
    std::optional<int64_t> after;      // the same
    std::optional<bool> signedIn;
    std::optional<std::string> text;  // somewhere in the event's JSON, ASCII letters in either case
    std::vector<std::pair<std::string, std::string>> data;  // keys of the event's data and their values; * for any
    bool newestFirst = false;
    int64_t offset = 0;
};

struct EventStats {
    int64_t events = 0;
    int64_t distinct = 0;  // by event.guid; events without one count each
    int64_t batches = 0;
    int64_t rejected = 0;
    int64_t scripted = 0;
    int64_t lastEvent = 0;      // arrival number; 0: none
    int64_t lastRejection = 0;  // the same for rejections
};

// The readable side of a store. Threads: any; a call may wait for the disk, so never on a thread that serves
// connections. Throws std::runtime_error if the store fails.
class StoreView {
public:
    virtual ~StoreView() = default;

    // Calls `sink` with one JSON object for each event that the query finds, in order, at most `limit` of them:
    // {"id":..,"batch":..,"project":..,"guid":..,"received":..,"event":{..}}. The arrival number of the last one; 0 if
    // there was none.
    virtual int64_t readEvents(const EventQuery& query, int64_t limit,
                               const std::function<void(std::string_view)>& sink) = 0;
    [[nodiscard]] virtual int64_t countEvents(const EventQuery& query) = 0;  // offset and order do not matter
    // The rejections after that number, as {"id":..,"received":..,"status":..,"reason":..,"remote":..,"bytes":..}.
    virtual int64_t readRejections(int64_t since, int64_t limit, const std::function<void(std::string_view)>& sink) = 0;
    [[nodiscard]] virtual EventStats stats() = 0;

    // Keeps it when there is time; dropped, but counted, if they come faster than they can be kept. Never waits.
    virtual void addRejection(RejectionRecord rejection) = 0;
    virtual void clear() = 0;  // forgets events, batches and rejections; arrival numbers go on
};

// Threads: append, ready and figures may be called from any thread, at the same time.
class Store {
public:
    using Completion = std::function<void(AppendResult)>;

    virtual ~Store() = default;

    // Takes the batch over and calls `done` exactly once: on any thread, perhaps before append returns, and within a
    // time limit of the store's own, with `away` if it can't know by then. Never waits: at its bounds it answers
    // `full`. Batches are independent of each other; no order between them is promised. The batch stays alive until
    // `done` has been called, and its bytes count as the collector's memory until then. Does not throw.
    virtual void append(std::shared_ptr<const Batch> batch, Completion done) noexcept = 0;

    // Whether an append has a chance now; if not, `why` says what is missing. Cheap.
    [[nodiscard]] virtual bool ready(std::string& why) const = 0;
    [[nodiscard]] virtual StoreFigures figures() const { return {}; }

    // Null if this store can't be read back here. Lives as long as the store.
    [[nodiscard]] virtual StoreView* view() noexcept { return nullptr; }

    // Brings what was taken to an end, or gives it up as `away`; no completion is called after it has returned, and
    // later appends are answered `away` on the spot. Once.
    virtual void stop() noexcept = 0;
};

struct StoreOptions {
    // A file for SQLite, or "jetstream:nats://HOST:PORT[,nats://HOST:PORT...]/STREAM".
    std::string target;
    std::chrono::milliseconds timeout{5000};  // for an acknowledgement
    uint64_t maxPendingBytes = 64u << 20;     // of batches that are not yet acknowledged
    std::string credentials;                  // file; empty: none
    // Of a stream: what is not given is left as it is, or is the store's own choice if the stream has to be made. One
    // that is given and differs from the stream that is there is an error.
    std::optional<int> replicas;
    std::optional<std::chrono::seconds> retention;  // 0: until delivered
    std::optional<std::chrono::seconds> duplicateWindow;
    std::optional<int64_t> maxStreamBytes;
};

// Throws std::runtime_error, with what to do about it, if the store can't be had.
[[nodiscard]] std::unique_ptr<Store> openStore(const StoreOptions& options);

// The half of openStore for "jetstream:"; where there is none, it throws and says so.
[[nodiscard]] std::unique_ptr<Store> openJetStreamStore(const StoreOptions& options);

}  // namespace velmora::tool
