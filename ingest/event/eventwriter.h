// The keys that the system itself writes into events, and the writer that appends them to an event's text.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/json/jsonwriter.h"

namespace velmora {

namespace key {

inline constexpr char kEntityConfig[] = "entity.config";
inline constexpr char kEntityDatasdk[] = "entity.datasdk";
inline constexpr char kEntityDebug[] = "entity.debug";
inline constexpr char kEntityDevice[] = "entity.device";
inline constexpr char kEntityEnv[] = "entity.env";
inline constexpr char kEntityLorne[] = "entity.lorne";
inline constexpr char kEntityOswin[] = "entity.oswin";
inline constexpr char kEntitySource[] = "entity.source";
inline constexpr char kEventCategory[] = "event.category";
inline constexpr char kEventConnection[] = "event.connection";
inline constexpr char kEventCount[] = "event.count";
inline constexpr char kEventDeviceGuid[] = "event.device_guid";
inline constexpr char kEventDtsEnd[] = "event.dts_end";
inline constexpr char kEventErrorCode[] = "event.error_code";
inline constexpr char kEventErrorDesc[] = "event.error_desc";
inline constexpr char kEventErrorType[] = "event.error_type";
inline constexpr char kEventGuid[] = "event.guid";
inline constexpr char kEventLanguage[] = "event.language";
inline constexpr char kEventOffline[] = "event.offline";
inline constexpr char kEventSessionGuid[] = "event.session_guid";
inline constexpr char kEventSubcategory[] = "event.subcategory";
inline constexpr char kEventSubtype[] = "event.subtype";
inline constexpr char kEventType[] = "event.type";
inline constexpr char kEventUserAgent[] = "event.user_agent";
inline constexpr char kEventUserGuid[] = "event.user_guid";
inline constexpr char kEventValue[] = "event.value";
inline constexpr char kEventWorkflow[] = "event.workflow";
inline constexpr char kSourceDevice[] = "source.device";
inline constexpr char kSourceOsVersion[] = "source.os_version";
inline constexpr char kSourcePlatform[] = "source.platform";
inline constexpr char kUserServiceCode[] = "user.service_code";
inline constexpr char kUserServiceLevel[] = "user.service_level";
inline constexpr char kUserServiceStatus[] = "user.service_status";

// Of the envelope around an event.
inline constexpr char kProject[] = "project";
inline constexpr char kEnvironment[] = "environment";
inline constexpr char kIngestType[] = "ingesttype";
inline constexpr char kTime[] = "time";
inline constexpr char kData[] = "data";

}  // namespace key

// Appends to the object in a string; a member of the same name that is already there is not looked for. The string
// receives the result at finish() and has to outlive the writer.
class EventWriter {
public:
    using Pairs = std::vector<std::pair<std::string, std::string>>;

    explicit EventWriter(std::string* event) : json_(event) {}

    // Nothing is written for an empty value.
    EventWriter& set(const char* name, const std::string& value) {
        if (!value.empty()) json_.addString(name, value);
        return *this;
    }

    // An object of strings, empty ones included; nothing is written if there is no pair.
    EventWriter& set(const char* name, const Pairs& pairs);

    // For what the setters do not cover.
    [[nodiscard]] JsonWriter& json() { return json_; }

    void finish() { json_.finish(); }

private:
    JsonWriter json_;
};

}  // namespace velmora
