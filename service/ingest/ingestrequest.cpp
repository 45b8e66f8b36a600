#include "service/ingest/ingestrequest.h"

#include <zlib.h>

#include <numeric>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "core/types/function.h"
#include "deployment.h"

namespace velmora::service::ingest {
namespace {

constexpr size_t kLargestInput = 2000000000;
constexpr int kGzipWindowBits = 31;
constexpr int kMemoryLevel = 8;

}  // namespace

std::string makeBatchBody(const std::vector<std::string>& events) {
    constexpr std::string_view kOpening = "{\"events\":[";
    constexpr std::string_view kClosing = "\n]}";
    constexpr std::string_view kFirst = "\n";
    constexpr std::string_view kNext = ",\n";

    const size_t size =
        std::accumulate(events.begin(), events.end(), kOpening.size() + kClosing.size(),
                        [&](size_t sum, const auto& event) { return sum + kNext.size() + event.size(); });
    std::string body;
    body.reserve(size);
    body += kOpening;
    for (const std::string& event : events) {
        body += &event == &events.front() ? kFirst : kNext;
        body += event;
    }
    body += kClosing;
    return body;
}

std::string compressGzip(const void* data, size_t size, int level) {
    if (size > kLargestInput) {
        throw std::runtime_error("size may use more memory than intended when decompressing");
    }
    z_stream stream{};
    if (deflateInit2(&stream, level, Z_DEFLATED, kGzipWindowBits, kMemoryLevel, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflate init failed");
    }
    const ScopeExit release([&] { deflateEnd(&stream); });
    stream.next_in = static_cast<Bytef*>(const_cast<void*>(data));
    stream.avail_in = static_cast<uInt>(size);

    const size_t chunk = size / 2 + 1024;
    std::string output;
    size_t written = 0;
    do {
        output.resize(written + chunk);
        stream.next_out = reinterpret_cast<Bytef*>(output.data() + written);
        stream.avail_out = static_cast<uInt>(chunk);
        deflate(&stream, Z_FINISH);
        written += chunk - stream.avail_out;
    } while (stream.avail_out == 0);
    output.resize(written);
    return output;
}

http::Request makeIngestRequest(Environment environment, const std::string& apiKey, std::string body, bool compressed) {
    const bool stage = environment == Environment::stage;
    http::Request request;
    request.url = http::joinUrl(
        std::string("https://") + (stage ? VELMORA_INGEST_STAGE_HOST : VELMORA_INGEST_PROD_HOST), "ingest");
    request.verb = http::Verb::POST;
    request.headers["content-type"] = "application/json";
    if (compressed) request.headers["content-encoding"] = "gzip";
    request.headers["x-api-key"] = apiKey;
    request.body = std::move(body);
    return request;
}

}  // namespace velmora::service::ingest
