#include "tests/crash/ledger.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <utility>

namespace velmora::test {
namespace {

constexpr size_t kNever = std::numeric_limits<size_t>::max();
constexpr size_t kMaxViolations = 20;

// Positions in the ledger between which a process may give up what it holds.
struct Absence {
    size_t from;
    size_t to;
};

// The last delivery of anything of a stream.
struct Carried {
    int holder;            // the process that delivered; the stream's own before the first delivery
    bool started = false;  // there was one
    size_t batch = 0;      // its position
    std::set<int64_t> events = {};
};

// How far a stream's delivery has come.
struct Progress {
    Carried last;
    Carried before;
    int64_t highest = -1;
};

class Judge {
public:
    explicit Judge(const std::vector<LedgerEntry>& ledger) : ledger_(ledger) {}

    Verdict run(const std::vector<StoredLine>& disk) {
        noteAbsences();
        for (size_t at = 0; at < ledger_.size(); ++at) visit(at);
        for (const StoredLine& line : disk) visit(line);
        balance();
        return std::move(verdict_);
    }

private:
    template <typename... Parts>
    void violation(const Parts&... parts) {
        if (verdict_.violations.size() >= kMaxViolations) return;
        std::ostringstream text;
        (text << ... << parts);
        verdict_.violations.push_back(text.str());
    }

    void noteAbsences() {
        for (size_t at = 0; at < ledger_.size(); ++at) {
            auto& absences = absences_[ledger_[at].process];
            const bool isAway = !absences.empty() && absences.back().to == kNever;
            if (ledger_[at].deed == Deed::leaving && !isAway) absences.push_back({at, kNever});
            if (ledger_[at].deed == Deed::returning && isAway) absences.back().to = at;
        }
    }

    // Whether the holder was away at any moment since then and before `to`.
    bool leftBetween(const Carried& carried, size_t to) {
        const auto& absences = absences_[carried.holder];
        return std::any_of(absences.begin(), absences.end(), [&](const Absence& absence) {
            return absence.from < to && (!carried.started || absence.to > carried.batch);
        });
    }

    void visit(size_t at) {
        const LedgerEntry& entry = ledger_[at];
        if (entry.deed == Deed::accepted) {
            for (const EventId& id : entry.events) noteAccepted(id);
        } else if (entry.deed == Deed::delivered && isLateReport(entry, at)) {
            verdict_.repeats += entry.events.size();
        } else if (entry.deed == Deed::delivered) {
            for (const EventId& id : entry.events) noteDelivered(id, entry.process, at);
        }
    }

    // A process that goes gives its exchange up, but cannot call it back: the service may see that batch when others
    // have long delivered it, and more. Nothing in it is new then, or this is no such report.
    bool isLateReport(const LedgerEntry& entry, size_t at) {
        const auto& absences = absences_[entry.process];
        const bool hasLeft = !absences.empty() && absences.front().from < at;
        return hasLeft && std::all_of(entry.events.begin(), entry.events.end(), [&](const EventId& id) {
                   const auto progress = progress_.find(id.stream);
                   return delivered_.contains(id) && !progress->second.last.events.contains(id.sequence);
               });
    }

    void noteAccepted(const EventId& id) {
        ++verdict_.accepted;
        int64_t& next = accepted_[id.stream];
        if (id.sequence != next) violation("the journal has a gap before ", toString(id));
        next = id.sequence + 1;
    }

    Progress& progressOf(const EventId& id, int process, size_t at) {
        const Carried none{.holder = id.stream.process};
        Progress& progress = progress_.try_emplace(id.stream, Progress{none, none}).first->second;
        if (progress.last.started && progress.last.batch == at) return progress;
        progress.before = std::exchange(progress.last, Carried{process, true, at});
        return progress;
    }

    void noteDelivered(const EventId& id, int process, size_t at) {
        Progress& progress = progressOf(id, process, at);
        std::set<int64_t>& batch = progress.last.events;
        const bool repeated = id.sequence <= progress.highest;
        if ((repeated || progress.before.holder != process) && !leftBetween(progress.before, at))
            violation(toString(id), " is delivered by process ", process, " while process ", progress.before.holder,
                      " is at it", repeated ? ", and not for the first time" : "");
        if (!batch.empty() && *batch.rbegin() >= id.sequence) violation(toString(id), " is out of order in its batch");
        if (repeated) {
            ++verdict_.repeats;
            if (!progress.before.events.contains(id.sequence))
                violation(toString(id), " comes late, or again although its batch was not the last one");
        }
        progress.highest = std::max(progress.highest, id.sequence);
        batch.insert(id.sequence);
        delivered_.insert(id);
    }

    void visit(const StoredLine& line) {
        std::map<Stream, int64_t> last;
        for (const EventId& id : line.events) {
            if (!stored_.insert(id).second) violation(toString(id), " is stored twice, also in ", line.path);
            const auto [before, isFirst] = last.try_emplace(id.stream, id.sequence);
            if (!isFirst && id.sequence <= before->second) violation(toString(id), " is out of order in ", line.path);
            before->second = id.sequence;
            checkStoredThoughDelivered(id);
        }
    }

    void checkStoredThoughDelivered(const EventId& id) {
        const auto progress = progress_.find(id.stream);
        if (progress == progress_.end() || id.sequence > progress->second.highest) return;
        if (!progress->second.last.events.contains(id.sequence))
            violation(toString(id), " is stored although it was delivered before the last batch");
    }

    void balance() {
        std::set<EventId> known = stored_;
        known.insert(delivered_.begin(), delivered_.end());
        for (const auto& [stream, count] : accepted_) {
            for (int64_t sequence = 0; sequence < count; ++sequence) {
                if (!known.contains({stream, sequence})) violation(toString({stream, sequence}), " is lost");
            }
        }
        for (const EventId& id : known) {
            if (id.sequence < accepted_[id.stream]) continue;
            ++verdict_.unreported;
            if (id.sequence > accepted_[id.stream])
                violation(toString(id), " is there, but its submit can't have begun");
        }
        verdict_.delivered = delivered_.size();
        verdict_.stored = stored_.size();
    }

    const std::vector<LedgerEntry>& ledger_;
    std::map<int, std::vector<Absence>> absences_;
    std::map<Stream, int64_t> accepted_;  // number of events
    std::map<Stream, Progress> progress_;
    std::set<EventId> delivered_;
    std::set<EventId> stored_;
    Verdict verdict_;
};

bool parseRecord(const std::string& line, LedgerEntry& entry) {
    if (line.size() < 3 || line.back() != ';') return false;
    std::istringstream text(line.substr(0, line.size() - 1));
    char deed = 0;
    if (!(text >> deed >> entry.process)) return false;
    entry.deed = static_cast<Deed>(deed);
    std::string word;
    while (text >> word) {
        const auto id = parseEventId(word);
        if (!id) return false;
        entry.events.push_back(*id);
    }
    return true;
}

}  // namespace

std::string toRecord(const LedgerEntry& entry) {
    std::string record = "\n";
    record += static_cast<char>(entry.deed);
    record += ' ' + std::to_string(entry.process);
    for (const EventId& id : entry.events) record += ' ' + toString(id);
    return record += ";\n";
}

std::vector<LedgerEntry> readLedger(const std::string& path) {
    std::vector<LedgerEntry> entries;
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line);) {
        LedgerEntry entry;
        if (parseRecord(line, entry)) entries.push_back(std::move(entry));
    }
    return entries;
}

Verdict judge(const std::vector<LedgerEntry>& ledger, const std::vector<StoredLine>& disk) {
    return Judge(ledger).run(disk);
}

}  // namespace velmora::test
