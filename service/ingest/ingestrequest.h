// The one request that leaves the system with events in it: a POST of a batch to the ingest service.
#pragma once

#include <string>
#include <vector>

#include "core/http/message.h"
#include "core/types/types.h"

namespace velmora::service::ingest {

// Joins event texts, taken as they are, into {"events":[ ... \n]}.
[[nodiscard]] std::string makeBatchBody(const std::vector<std::string>& events);

// Throws std::runtime_error for more than 2000000000 bytes, and if zlib can't start. Level -1 is zlib's default.
[[nodiscard]] std::string compressGzip(const void* data, size_t size, int level);

// `body` is taken as it is; `compressed` says that it is gzip.
[[nodiscard]] http::Request makeIngestRequest(Environment environment, const std::string& apiKey, std::string body,
                                              bool compressed);

}  // namespace velmora::service::ingest
