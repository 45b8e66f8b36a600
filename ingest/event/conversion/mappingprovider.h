// Holds the mapping table of one configuration guid.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "core/types/mutex.h"
#include "service/ingest/mapping.h"

namespace velmora {

// Any thread. Copies are handed out.
class MappingProvider {
public:
    using Fetch = std::function<service::ingest::Mapping(const std::string& configGuid)>;

    // Fetches the first mapping at once; what the fetch throws passes through. It is not called again.
    MappingProvider(std::string configGuid, const Fetch& fetch);

    // Replaces the mapping.
    void updateMapping(service::ingest::Mapping mapping);

    [[nodiscard]] service::ingest::Mapping getMapping() const;

    // Changes with each update. Asked before the mapping, it tells whether what was made from it is still current.
    [[nodiscard]] uint64_t revision() const;

private:
    const std::string configGuid_;
    mutable Mutex mutex_;  // stands alone
    service::ingest::Mapping mapping_ VELMORA_GUARDED_BY(mutex_);
    uint64_t revision_ VELMORA_GUARDED_BY(mutex_) = 0;
};

}  // namespace velmora
