// The collector's store: events in order of arrival, in an SQLite file that survives the end of the process at any
// moment. What a call has returned from is in the file.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

struct sqlite3;

namespace velmora::tool {

struct ReceivedEvent {
    std::string project;
    std::string guid;  // data."event.guid"; empty if it has none
    std::string text;  // the event as JSON
};

struct EventQuery {
    std::optional<std::string> project;
    std::optional<std::string> guid;
    std::optional<std::string> since;  // an arrival number, exclusive, or a UTC time in ISO form, inclusive
    std::vector<std::pair<std::string, std::string>> data;  // top-level keys of the event's data and their values
    int64_t limit = 1000;
    int64_t offset = 0;
};

struct EventStats {
    int64_t events = 0;
    int64_t distinct = 0;  // by event.guid; events without one count each
    int64_t batches = 0;
    int64_t rejected = 0;
    int64_t scripted = 0;
};

// Throws std::runtime_error if SQLite fails. Threads: any; calls follow one another.
class EventDb {
public:
    explicit EventDb(const std::string& path);
    ~EventDb();
    EventDb(const EventDb&) = delete;
    EventDb& operator=(const EventDb&) = delete;

    // One batch in one transaction.
    void addBatch(const std::vector<ReceivedEvent>& events);
    void addRejection(int status, const std::string& reason);
    void addScripted();

    // {"total":..,"events":[{"id":..,"batch":..,"project":..,"guid":..,"received":..,"event":{..}},..]}; the total
    // ignores limit and offset.
    [[nodiscard]] std::string eventsAsJson(const EventQuery& query);
    [[nodiscard]] EventStats stats();

    // How often each event.guid has arrived; events without one are left out.
    [[nodiscard]] std::unordered_map<std::string, int64_t> arrivals();

private:
    void insertBatchLocked(const std::vector<ReceivedEvent>& events);

    std::mutex mutex_;
    struct Close {
        void operator()(sqlite3* db) const;
    };
    std::unique_ptr<sqlite3, Close> db_;
};

}  // namespace velmora::tool
