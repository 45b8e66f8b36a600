// Events in a table of PostgreSQL, each of them once. Tables that are missing are made:
//
//   velmora_events     day, time, project, environment, user, guid, event (jsonb); unique by day, guid and project, and
//                      partitioned by the day of the event's own time. Events whose time is more than a year off, or
//                      can't be read, are in velmora_events_default; the others in velmora_events_YYYYMMDD. A partition
//                      may be detached or dropped at any time.
//   velmora_set_aside  what PostgreSQL can't hold as an event, as bytes, with the reason
//   velmora_forgotten  the SHA-256 of each forgotten user and when
//
// jsonb has no U+0000: in an event, U+FFFD takes its place.
#pragma once

#include <set>
#include <string>

#include "tools/velmora/deliver/postgres.h"
#include "tools/velmora/deliver/target.h"

namespace velmora::tool {

// Any number of them, and of deliverers, may work on one database.
class PostgresTarget : public Target {
public:
    // Connects, and makes what is missing. Throws as openTarget does.
    PostgresTarget(const std::string& uri, std::chrono::milliseconds patience);

    void begin(const Delivery& delivery) override;
    DeliveryCounts finish() override;

    // Deletes the user's events, and has those that the log has taken until now dropped when they arrive. How many
    // were deleted.
    uint64_t forget(const std::string& user);

private:
    using Rows = std::vector<const EventRow*>;

    void makePartitions(const Rows& rows);
    void send(const Rows& rows);
    DeliveryCounts results(const Rows& rows);
    DeliveryCounts storeInParts(const Rows& rows);
    DeliveryCounts setAside(const EventRow& row, const std::string& reason);

    Postgres database_;
    std::set<int32_t> partitions_;  // days that are known to have one
    Rows rows_;                     // of the delivery that has begun
};

}  // namespace velmora::tool
