// Whether the machine is connected to a network.
#pragma once

namespace velmora::platform {

// Asks the system now. True as well if it can't be asked: not knowing must not hold anything back.
[[nodiscard]] bool isNetworkAlive() noexcept;

}  // namespace velmora::platform
