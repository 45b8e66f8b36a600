#include "ingest/event/conversion/mappingprovider.h"

#include "core/types/logger.h"

namespace velmora {

MappingProvider::MappingProvider(std::string configGuid, const Fetch& fetch)
    : configGuid_(std::move(configGuid)), mapping_(fetch(configGuid_)) {}

void MappingProvider::updateMapping(service::ingest::Mapping mapping) {
    VELMORA_LOG(trace, "mappingprovider") << "Update mapping for configGuid=" << configGuid_;
    const MutexLock lock(mutex_);
    mapping_.rules.swap(mapping.rules);
    mapping_.inKeys.swap(mapping.inKeys);
    mapping_.outKeys.swap(mapping.outKeys);
    ++revision_;
}

service::ingest::Mapping MappingProvider::getMapping() const {
    const MutexLock lock(mutex_);
    return mapping_;
}

uint64_t MappingProvider::revision() const {
    const MutexLock lock(mutex_);
    return revision_;
}

}  // namespace velmora
