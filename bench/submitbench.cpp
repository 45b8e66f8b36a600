// What the two stages of an event's envelope cost beside the least that any implementation has to do: parse the host's
// text, lay it over ready attributes, render the result.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include "bench/byhand.h"
#include "core/json/mergejson.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"
#include "ingest/event/eventpreset.h"

namespace velmora {
namespace {

constexpr char kHostEvent[] =
    R"({"event.workflow":"Export","event.category":"DESKTOP","event.subcategory":"Document","event.type":"click",)"
    R"("event.subtype":"save-as","event.value":"1048576","event.count":"3","event.url":"https://host.example/a/b",)"
    R"("context.guid":"0d1f8a52-6a0e-4b6e-9b8e-3f1c2d4e5f60","context.params":"format=pdf;pages=12;quality=high"})";

EventPreset& preset() {
    static IngestConfigProvider provider(
        "guid",
        [](const std::string&) {
            service::config::ingest::Config config;
            config.project = "bench-project";
            return config;
        },
        nullptr);
    static EventPreset instance(provider);
    return instance;
}

// Common attributes until the stored event has about 2 KB.
void fillPreset() {
    preset().setSessionGuid("5b0c7f1e-94a7-4c53-8d1a-6f3c1a2b3c4d");
    for (int i = 0; preset().getEventPayload(kHostEvent, 1, "{}").size() < 2000; ++i) {
        preset().setCommonAttribute("source.attribute_" + std::to_string(i), std::string(70, 'x'));
    }
}

// The data object of an event without the host's attributes.
std::string readyAttributes() {
    rapidjson::Document envelope;
    envelope.Parse(preset().getEventPayload("{}", 0, "{}").c_str());
    return bench::renderByHand(envelope["data"]);
}

void BM_PayloadFloor(benchmark::State& state) {
    fillPreset();
    rapidjson::Document ready;
    ready.Parse(readyAttributes().c_str());
    for (auto _ : state) {
        rapidjson::Document host;
        host.Parse(kHostEvent);
        rapidjson::Document event;
        event.CopyFrom(ready, event.GetAllocator());
        bench::mergeByHand(event, host, event.GetAllocator());
        benchmark::DoNotOptimize(makeGuid());
        benchmark::DoNotOptimize(currentTimeLocalMillis());
        benchmark::DoNotOptimize(bench::renderByHand(event));
    }
}
BENCHMARK(BM_PayloadFloor);

void BM_GetEventPayload(benchmark::State& state) {
    fillPreset();
    const std::string event = kHostEvent;
    size_t size = 0;
    for (auto _ : state) {
        const std::string payload = preset().getEventPayload(event, static_cast<uint32_t>(state.range(0)), "{}");
        benchmark::DoNotOptimize(payload.data());
        size = payload.size();
    }
    state.counters["bytes"] = static_cast<double>(size);
}
BENCHMARK(BM_GetEventPayload)->ArgName("level")->Arg(0)->Arg(1);

service::oswin::Profile exampleProfile() {
    return {"type1", {"en"}, {{"id", "code", "level", "active"}}, "7F3A5C9D1B2E4F60@Id", "true", "false"};
}

void BM_BatchAttributesFloor(benchmark::State& state) {
    fillPreset();
    preset().setProfile(exampleProfile());
    const std::string stored = preset().getEventPayload(kHostEvent, 1, "{}");
    rapidjson::Document ready;
    ready.Parse(preset().applyBatchAttributes("{}", true).c_str());
    for (auto _ : state) {
        rapidjson::Document event;
        event.Parse(stored.c_str());
        bench::mergeByHand(event["data"], ready["data"], event.GetAllocator());
        benchmark::DoNotOptimize(bench::renderByHand(event));
    }
}
BENCHMARK(BM_BatchAttributesFloor);

void BM_BatchAttributes(benchmark::State& state) {
    fillPreset();
    preset().setProfile(exampleProfile());
    const std::string stored = preset().getEventPayload(kHostEvent, 1, "{}");
    for (auto _ : state) {
        std::string event = stored;
        benchmark::DoNotOptimize(preset().tryApplyBatchAttributes(event, true));
        benchmark::DoNotOptimize(event.data());
    }
}
BENCHMARK(BM_BatchAttributes);

void BM_MergeFloor(benchmark::State& state) {
    fillPreset();
    const std::string attributes = readyAttributes();
    for (auto _ : state) {
        rapidjson::Document event;
        event.Parse(attributes.c_str());
        rapidjson::Document host;
        host.Parse(kHostEvent);
        bench::mergeByHand(event, host, event.GetAllocator());
        benchmark::DoNotOptimize(bench::renderByHand(event));
    }
}
BENCHMARK(BM_MergeFloor);

void BM_MergeJSON(benchmark::State& state) {
    fillPreset();
    const std::string attributes = readyAttributes();
    for (auto _ : state) {
        std::string event = attributes;
        mergeJSON(event, kHostEvent);
        benchmark::DoNotOptimize(event.data());
    }
}
BENCHMARK(BM_MergeJSON);

}  // namespace
}  // namespace velmora
