#include "ingest/event/debugcounters.h"

#include "ingest/event/eventwriter.h"

namespace velmora {
namespace {

// Each of these writes what stands below one level, and returns whether that was anything.

bool writeReasons(JsonWriter& writer, const DebugCounters::ByReason& reasons) {
    uint64_t total = 0;
    for (const auto& [reason, count] : reasons) {
        if (count != 0) writer.addUint(reasonToString(reason), count);
        total += count;
    }
    if (total != 0) writer.addUint("total", total);
    return total != 0;
}

bool writeActions(JsonWriter& writer, const DebugCounters::ByAction& actions) {
    bool any = false;
    for (const auto& [action, reasons] : actions) {
        writer.startObject(actionToString(action));
        const bool keep = writeReasons(writer, reasons);
        writer.endObject(keep);
        any = any || keep;
    }
    return any;
}

bool writeItems(JsonWriter& writer, const DebugCounters::ByItem& items) {
    bool any = false;
    for (const auto& [item, actions] : items) {
        writer.startObject(itemToString(item));
        const bool keep = writeActions(writer, actions);
        writer.endObject(keep);
        any = any || keep;
    }
    return any;
}

void writeKinds(JsonWriter& writer, const DebugCounters::ByKind& kinds) {
    for (const auto& [kind, items] : kinds) {
        writer.startObject(pipelineKindToString(kind));
        writer.endObject(writeItems(writer, items));
    }
}

}  // namespace

DebugCounters::DebugCounters(std::string name, const std::array<uint64_t, kPipelineKinds>& saved)
    : name_(std::move(name)) {
    ByKind& kinds = counts_[name_];
    for (int kind = 0; kind < kPipelineKinds; ++kind) {
        kinds[static_cast<PipelineKind>(kind)][debug::Item::event][debug::Action::saved][debug::Reason::success] =
            saved[static_cast<size_t>(kind)];
    }
}

void DebugCounters::add(const std::string& name, PipelineKind kind, debug::Item item, debug::Action action,
                        debug::Reason reason, uint64_t count) {
    const MutexLock lock(mutex_);
    counts_[name][kind][item][action][reason] += count;
}

DebugCounters::Counts DebugCounters::snapshot() const {
    const MutexLock lock(mutex_);
    return counts_;
}

void writeDebugCounts(JsonWriter& writer, const std::string& ownName, const DebugCounters::Counts& counts) {
    writer.startObject(key::kEntityDebug);
    writer.startObject("cache");
    for (const auto& [name, kinds] : counts) {
        writer.startObject(name);
        writer.addString("namespace", name == ownName ? "primary" : "secondary");
        writeKinds(writer, kinds);
        writer.endObject(true);
    }
    writer.endObject(!counts.empty());
    writer.endObject(!counts.empty());
}

}  // namespace velmora
