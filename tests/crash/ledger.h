// What the processes of a crash test have seen, in one order for all: each appends its records to one file, by one
// write each, before or after the deed as told below. A record begins with a line end and closes with a semicolon, so
// that the half record of a killed process spoils no other.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/crash/eventid.h"

namespace velmora::test {

enum class Deed : char {
    accepted = 'A',   // the process's submit of the event has returned success
    delivered = 'D',  // the process's HTTP stack has a batch with these events, and has not answered yet
    leaving = 'O',    // the process is about to go offline, to stop or to be killed: it may give up its folders
    returning = 'N',  // it has stopped and holds nothing; it is about to start again
};

struct LedgerEntry {
    Deed deed = Deed::accepted;
    int process = 0;
    std::vector<EventId> events;
};

[[nodiscard]] std::string toRecord(const LedgerEntry& entry);

// All whole records of the file; none if there is no file.
[[nodiscard]] std::vector<LedgerEntry> readLedger(const std::string& path);

// One line of one instance folder, as it lies on disk, oldest event first.
struct StoredLine {
    std::string path;
    std::vector<EventId> events;
};

// The outcome of judging a ledger together with what is left on disk.
struct Verdict {
    std::vector<std::string> violations;  // empty: both laws hold
    uint64_t accepted = 0;
    uint64_t delivered = 0;  // different events
    uint64_t repeats = 0;    // events delivered once more
    uint64_t stored = 0;
    uint64_t unreported = 0;  // stored or delivered, but killed before that was on record
};

// Conservation: what is accepted is delivered or stored, and beyond that there is at most one event per stream, its
// next one. Order: within a stream first deliveries ascend, and so do stored events. One owner: events of a process are
// delivered by it until it leaves, and by one process at a time after that; events come again, or are stored though
// delivered, only if the batch that carried them was the last one of its stream when its owner left; the
// exchange that an owner gave up in leaving may be reported later still.
[[nodiscard]] Verdict judge(const std::vector<LedgerEntry>& ledger, const std::vector<StoredLine>& disk);

}  // namespace velmora::test
