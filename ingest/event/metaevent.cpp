#include "ingest/event/metaevent.h"

#include "ingest/event/eventwriter.h"

namespace velmora {
namespace {

std::string subcategoryOf(SourceType sourceType) { return sourceType == SourceType::host ? "Host" : "Component"; }

// Begins every event: the four levels of its classification.
EventWriter& classify(EventWriter& writer, const std::string& workflow, const std::string& subcategory,
                      const std::string& type, const std::string& subtype) {
    return writer.set(key::kEventWorkflow, workflow)
        .set(key::kEventSubcategory, subcategory)
        .set(key::kEventType, type)
        .set(key::kEventSubtype, subtype);
}

std::string makeStartOrEnd(SourceType sourceType, const std::string& subtype, const std::string& configGuid,
                           const DebugCounters& counters) {
    std::string json;
    EventWriter writer(&json);
    classify(writer, "Lifecycle", subcategoryOf(sourceType), "success", subtype)
        .set(key::kEntityConfig, EventWriter::Pairs{{"guid", configGuid}});
    writeDebugCounts(writer.json(), counters.name(), counters.snapshot());
    writer.finish();
    return json;
}

}  // namespace

MetaEvent MetaEvent::makeInit(SourceType sourceType, const std::string& configGuid, const DebugCounters& counters) {
    return MetaEvent(makeStartOrEnd(sourceType, "init", configGuid, counters));
}

MetaEvent MetaEvent::makeExit(SourceType sourceType, const std::string& configGuid, const DebugCounters& counters) {
    return MetaEvent(makeStartOrEnd(sourceType, "exit", configGuid, counters));
}

MetaEvent MetaEvent::makeHeartbeat(const DebugCounters& counters) {
    std::string json;
    EventWriter writer(&json);
    classify(writer, "Velmora", "SDK", "heartbeat", "app");
    writeDebugCounts(writer.json(), counters.name(), counters.snapshot());
    writer.finish();
    return MetaEvent(std::move(json));
}

MetaEvent MetaEvent::makeSizeWarning(const std::string& errorType, const std::string& reason, uint64_t count,
                                     uint64_t folderSize) {
    std::string json;
    EventWriter writer(&json);
    classify(writer, "Velmora", "SDK", "warn", "size")
        .set(key::kEventErrorCode, reason)
        .set(key::kEventErrorType, errorType)
        .set(key::kEventErrorDesc, "disk")
        .set(key::kEventCount, std::to_string(count))
        .set(key::kEventValue, std::to_string(folderSize))
        .finish();
    return MetaEvent(std::move(json));
}

MetaEvent MetaEvent::makeApiResult(const std::string& subcategory, const std::error_code& error,
                                   const std::string& description) {
    std::string json;
    EventWriter writer(&json);
    classify(writer, "Velmora", subcategory, "api", error.value() != 0 ? "error" : "success")
        .set(key::kEventErrorCode, error.value() != 0 ? std::to_string(error.value()) : std::string())
        .set(key::kEventErrorDesc, description.empty() ? error.message() : description)
        .finish();
    return MetaEvent(std::move(json));
}

MetaEvent MetaEvent::makeLifecycle(SourceType sourceType, const std::string& type, const std::string& subtype,
                                   uint64_t count) {
    std::string json;
    EventWriter writer(&json);
    classify(writer, "Lifecycle", subcategoryOf(sourceType), type, subtype)
        .set(key::kEventCount, std::to_string(count))
        .finish();
    return MetaEvent(std::move(json));
}

}  // namespace velmora
