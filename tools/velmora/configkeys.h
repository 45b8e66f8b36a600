// The names under which the command line sets configuration values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora::tool {

// The velmora_config_key of a name: "batchSize" for VELMORA_CONFIG_BATCH_SIZE and so on; nothing if there is none.
[[nodiscard]] std::optional<int32_t> configKeyOf(const std::string& name);

// All names in the order of their keys.
[[nodiscard]] std::vector<std::string> configKeyNames();

}  // namespace velmora::tool
