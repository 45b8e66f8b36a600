// Configuration documents: no document makes a record that the library can't work with.
#include "fuzz/fuzzinput.h"
#include "service/config/ingestconfig.h"
#include "service/config/sessionconfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace config = velmora::service::config;
    const std::string json = velmora::fuzz::toText(data, size);
    config::ingest::Config ingest;
    ingest.overwriteWith(json).overwriteWith(json);
    velmora::fuzz::require(ingest.eventFileRotationSize > 0 && ingest.invalidEventFileRotationSize > 0);
    config::session::Config session;
    session.overwriteWith(json).overwriteWith(json);
    return 0;
}
