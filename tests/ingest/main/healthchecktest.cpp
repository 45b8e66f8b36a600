#include "ingest/main/healthcheck.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/manualpools.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

TEST(HealthCheck, BeatsAtTheIntervalOfTheLastBeatWhateverBecomesOfItAndOnceAtTheEnd) {
    test::ManualPools pools;
    service::config::ingest::Config config;
    config.heartbeatInterval = 1000;
    IngestConfigProvider provider(
        "guid", [&](const std::string&) { return config; }, nullptr);
    const DebugCounters counters("0", {});
    HealthCheck check(provider, counters);
    int beats = 0;
    bool fails = false;
    check.setSink([&](const MetaEvent&) {
        ++beats;
        if (fails) throw std::runtime_error("not taken");
    });
    const auto expectNextAfter = [&](std::chrono::milliseconds distance) {
        const int before = beats;
        pools.advance(distance - 1ms);
        EXPECT_EQ(beats, before) << distance.count();
        pools.advance(1ms);
        EXPECT_EQ(beats, before + 1) << distance.count();
    };
    check.start();
    expectNextAfter(1000ms);
    config.heartbeatInterval = 5000;
    provider.refresh();
    expectNextAfter(1000ms);  // armed before
    expectNextAfter(5000ms);
    fails = true;
    expectNextAfter(5000ms);
    fails = false;
    expectNextAfter(5000ms);
    check.stop();
    EXPECT_EQ(beats, 6);
    pools.advance(100000ms);
    EXPECT_EQ(beats, 6);
}

}  // namespace
}  // namespace velmora
