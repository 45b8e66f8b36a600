// The system's own events about itself: a flat JSON object of keys in submitted form.
#pragma once

#include <cstdint>
#include <string>
#include <system_error>

#include "core/types/types.h"
#include "ingest/event/debugcounters.h"

namespace velmora {

class MetaEvent {
public:
    static MetaEvent makeInit(SourceType sourceType, const std::string& configGuid, const DebugCounters& counters);
    static MetaEvent makeExit(SourceType sourceType, const std::string& configGuid, const DebugCounters& counters);
    static MetaEvent makeHeartbeat(const DebugCounters& counters);

    // A store ("main", "orphan") or the log ("log") has dropped files; `reason` is why, `folderSize` is bytes.
    static MetaEvent makeSizeWarning(const std::string& errorType, const std::string& reason, uint64_t count,
                                     uint64_t folderSize);

    // A service request has ended. An empty description stands for the error's own message.
    static MetaEvent makeApiResult(const std::string& subcategory, const std::error_code& error,
                                   const std::string& description);

    static MetaEvent makeLifecycle(SourceType sourceType, const std::string& type, const std::string& subtype,
                                   uint64_t count);

    [[nodiscard]] const std::string& json() const& { return json_; }
    [[nodiscard]] std::string&& json() && { return std::move(json_); }

private:
    explicit MetaEvent(std::string json) : json_(std::move(json)) {}
    std::string json_;
};

}  // namespace velmora
