// What waits in the queues of a data root.
#pragma once

#include <cstdint>
#include <string>

namespace velmora::tool {

// The number of events of signed-in and anonymous users that the queues of one configuration hold, over all instance
// folders. Exact while no instance runs. Reads only. Queues that can't be read count as empty.
[[nodiscard]] uint64_t countEventsOnDisk(const std::string& configGuid);

}  // namespace velmora::tool
