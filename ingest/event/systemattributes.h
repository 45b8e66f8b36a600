// The fragments of events that are the same for many of them: JSON objects, written once and kept. What the system does
// not tell is left out.
#pragma once

#include <string>
#include <unordered_map>

#include "core/types/types.h"
#include "service/config/ingestconfig.h"
#include "service/oswin/profile.h"

namespace velmora {

// "project" if there is one, "environment" and "ingesttype", which are always there.
[[nodiscard]] std::string makeEnvelopeFragment(const service::config::ingest::Config& config);

// The library, the machine in short, and the category.
[[nodiscard]] std::string makeEventFragment(SourceCategory category);

[[nodiscard]] std::string makeDeviceFragment();     // "entity.device"
[[nodiscard]] std::string makeSourceFragment();     // "entity.source"
[[nodiscard]] std::string makeUserAgentFragment();  // "event.user_agent"

[[nodiscard]] std::string makeIdentityFragment(const service::oswin::Profile& profile);
[[nodiscard]] std::string makeLorneFragment(const std::unordered_map<std::string, std::string>& profile);

}  // namespace velmora
