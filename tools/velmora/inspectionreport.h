// An inspection as text for people and as JSON for scripts.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "tools/velmora/inspection.h"

namespace velmora::tool {

// An indented tree; lines of damage begin with "!". `now` is in seconds since 1970.
void writeText(const Inspected& root, int64_t now, std::ostream& out);

// One document on one line: {"healthy":...,"damaged":...,"events":...,"root":{...}}. Each thing is an object with
// "kind", "name", "path", "hold", "bytes", "events" ("names" in a manifest), "lastWrite", "ageSeconds", "header",
// "records", "damage", "notes" and "children", as far as it has them.
void writeJson(const Inspected& root, int64_t now, std::ostream& out);

}  // namespace velmora::tool
