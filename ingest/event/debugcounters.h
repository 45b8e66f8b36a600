// Counts what an instance has done with events and requests, by the name of the instance folder they belong to, kind,
// item, action and reason. Threads: any.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "core/json/jsonwriter.h"
#include "core/types/mutex.h"
#include "ingest/event/eventmodel.h"

namespace velmora {

class DebugCounters {
public:
    using ByReason = std::map<debug::Reason, uint64_t>;
    using ByAction = std::map<debug::Action, ByReason>;
    using ByItem = std::map<debug::Item, ByAction>;
    using ByKind = std::map<PipelineKind, ByItem>;
    using Counts = std::map<std::string, ByKind>;

    // `saved`, per kind, is what the own name's lines begin with as saved events.
    DebugCounters(std::string name, const std::array<uint64_t, kPipelineKinds>& saved);

    void add(const std::string& name, PipelineKind kind, debug::Item item, debug::Action action, debug::Reason reason,
             uint64_t count);

    [[nodiscard]] Counts snapshot() const;
    [[nodiscard]] const std::string& name() const { return name_; }

private:
    const std::string name_;
    mutable Mutex mutex_;
    Counts counts_ VELMORA_GUARDED_BY(mutex_);
};

// Appends the object "entity.debug" with all counts that are not 0; what is empty below is left out.
void writeDebugCounts(JsonWriter& writer, const std::string& ownName, const DebugCounters::Counts& counts);

}  // namespace velmora
