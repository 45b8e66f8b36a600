// The transformation as it is defined, step by step and without any preparation: every expression is compiled for every
// event, every key of the event gets an expression of its own, and every format runs over one joint expression.
#pragma once

#include <string>

#include "service/ingest/mapping.h"

namespace velmora::test {

// The converted event, "unmatched", or "failed" if an expression raised an exception. The event must be an object.
std::string transformNaively(const service::ingest::Mapping& mapping, const std::string& event);

}  // namespace velmora::test
