#include "ingest/event/eventwriter.h"

namespace velmora {

EventWriter& EventWriter::set(const char* name, const Pairs& pairs) {
    if (pairs.empty()) return *this;
    json_.startObject(name);
    for (const auto& [key, value] : pairs) json_.addString(key, value);
    json_.endObject(true);
    return *this;
}

}  // namespace velmora
