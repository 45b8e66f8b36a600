// The JSON work of one event: is it an object, and lay 20 attributes over it. Floors do the same by hand on RapidJSON.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"
#include "service/config/ingestconfig.h"
#include "service/ingest/ingestrequest.h"

namespace {

std::string members(const std::string& prefix, int count, size_t size) {
    std::string text = "{";
    for (int i = 0; i < count; ++i) {
        text += (i > 0 ? ",\"" : "\"") + prefix + std::to_string(i) + "\":\"" + std::string(size, 'v') + "\"";
    }
    return text + "}";
}

const std::string kEvent = members("event.key", 10, 16);
const std::string kAttributes = members("attribute", 20, 64);

void validFloor(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        rapidjson::Document document;
        document.Parse(kEvent);
        benchmark::DoNotOptimize(!document.HasParseError() && document.IsObject());
    }
}
BENCHMARK(validFloor);

void valid(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(velmora::validJSON(kEvent));
}
BENCHMARK(valid);

void mergeFloor(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        rapidjson::Document data;
        data.Parse(kEvent);
        rapidjson::Document extra(&data.GetAllocator());
        extra.Parse(kAttributes);
        for (auto& member : extra.GetObject()) {
            const auto present = data.FindMember(member.name);
            if (present == data.MemberEnd()) {
                data.AddMember(member.name, member.value, data.GetAllocator());
            } else {
                present->value = member.value;
            }
        }
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        data.Accept(writer);
        benchmark::DoNotOptimize(std::string(buffer.GetString(), buffer.GetSize()));
    }
}
BENCHMARK(mergeFloor);

void merge(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) {
        std::string data = kEvent;
        velmora::mergeJSON(data, kAttributes);
        benchmark::DoNotOptimize(data);
    }
}
BENCHMARK(merge);

void newConfig(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(velmora::service::config::ingest::Config());
}
BENCHMARK(newConfig);

void compressBatch(benchmark::State& state) {
    const std::string body = velmora::service::ingest::makeBatchBody(std::vector<std::string>(50, kAttributes));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(velmora::service::ingest::compressGzip(body.data(), body.size(), -1));
    }
}
BENCHMARK(compressBatch);

}  // namespace
