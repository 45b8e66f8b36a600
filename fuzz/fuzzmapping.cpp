// Mapping tables of hosts: a table that is refused leaves nothing behind.
#include <exception>

#include "fuzz/fuzzinput.h"
#include "service/ingest/mapping.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using velmora::service::ingest::Mapping;
    Mapping mapping;
    try {
        velmora::service::ingest::loadFromText(velmora::fuzz::toText(data, size), "fuzz", mapping);
    } catch (const std::exception&) {
        velmora::fuzz::require(mapping.rules.empty());
    }
    return 0;
}
