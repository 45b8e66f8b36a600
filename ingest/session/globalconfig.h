// The session configuration that the host has set, kept from before the session exists. Threads: any.
#pragma once

#include <string>

#include "service/config/sessionconfig.h"

namespace velmora {

// A JSON document that sets one value: "reserved.log.level" and "debug" give {"reserved":{"log":{"level":"debug"}}}.
// The value is taken as JSON if it is JSON, else as a string, without escaping. Quotes in the path, single or double,
// keep the dots of a key together; an unterminated quote runs to the end of the path.
[[nodiscard]] std::string jsonFromPath(const std::string& path, const std::string& value);

// A copy of the configuration. The environment variable VELMORA_CONFIG_RESERVED_LOG_LEVEL overrides the level at each
// call.
[[nodiscard]] service::config::session::Config getGlobalConfig();

void overwriteGlobalConfig(const std::string& json);

}  // namespace velmora
