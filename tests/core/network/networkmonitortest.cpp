#include "core/network/networkmonitor.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/capturedlog.h"
#include "tests/support/manualpools.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using test::CapturedLog;
using test::ManualPools;

constexpr NetworkState kOnline = NetworkState::online;
constexpr NetworkState kOffline = NetworkState::offline;

class ScriptedMonitor : public NetworkMonitor {
public:
    explicit ScriptedMonitor(bool notifies = false) : notifies_(notifies) {
        setCallback([this](NetworkState state) { changes.push_back(state); });
        setPollInterval(1000ms);
    }
    ~ScriptedMonitor() override { stop(); }
    NetworkState getNetworkState() override {
        ++questions;
        return platform;
    }
    bool startListening() override { return notifies_; }
    void stopListening() override { ++stops; }

    std::atomic<NetworkState> platform = kOnline;
    std::atomic<int> questions = 0;
    int stops = 0;
    std::vector<NetworkState> changes;

private:
    const bool notifies_;
};

TEST(NetworkMonitor, AsksOnlyWhileTheNetworkIsDown) {
    ManualPools pools;
    ScriptedMonitor monitor;
    monitor.poll();  // nothing to ask before the start
    EXPECT_EQ(monitor.state(), NetworkState::unknown);
    monitor.start();
    monitor.start();
    EXPECT_EQ(monitor.changes, std::vector{kOnline});
    EXPECT_EQ(pools.pendingTimers(), 0u);

    monitor.platform = kOffline;
    pools.advance(10000ms);
    EXPECT_EQ(monitor.state(), kOnline);
    monitor.poll();
    EXPECT_EQ(monitor.changes, (std::vector{kOnline, kOffline}));
    const CapturedLog log;
    monitor.poll();
    EXPECT_TRUE(log.has(LogLevel::trace, "netpoll", "Network poller timer is already running"));
    EXPECT_EQ(pools.pendingTimers(), 1u);

    pools.advance(999ms);
    monitor.platform = kOnline;
    monitor.setPollInterval(50ms);
    EXPECT_EQ(monitor.state(), kOffline);
    pools.advance(1ms);
    EXPECT_EQ(monitor.changes, (std::vector{kOnline, kOffline, kOnline}));
    EXPECT_EQ(pools.pendingTimers(), 0u);

    monitor.platform = kOffline;
    monitor.poll();
    pools.advance(50ms * 3);
    EXPECT_EQ(pools.pendingTimers(), 1u);
    EXPECT_EQ(monitor.changes.size(), 4u);
}

TEST(NetworkMonitor, StoppedItAsksNothingAndMayStartAgain) {
    ManualPools pools;
    ScriptedMonitor monitor;
    monitor.platform = kOffline;
    monitor.start();
    monitor.stop();
    monitor.stop();
    EXPECT_EQ(monitor.stops, 1);
    const int questions = monitor.questions;
    pools.advance(5000ms);
    monitor.poll();
    EXPECT_EQ(monitor.questions, questions);

    monitor.platform = kOnline;
    monitor.start();
    EXPECT_EQ(monitor.changes, (std::vector{kOffline, kOnline}));
}

TEST(NetworkMonitor, WithNotificationsNothingIsPolled) {
    EXPECT_FALSE(createNetworkMonitor()->startListening()) << "no system's own monitor has any";
    ManualPools pools;
    ScriptedMonitor monitor(true);
    monitor.platform = kOffline;
    monitor.start();
    monitor.poll();
    EXPECT_EQ(pools.pendingTimers(), 0u);
    monitor.updateNetworkState(kOnline);
    monitor.updateNetworkState(kOnline);
    EXPECT_EQ(monitor.changes, (std::vector{kOffline, kOnline}));
}

TEST(NetworkMonitor, AFailedQuestionDoesNotEndThePolling) {
    ManualPools pools;
    struct Failing : ScriptedMonitor {
        ~Failing() override { stop(); }
        NetworkState getNetworkState() override {
            if (fails) throw std::runtime_error("no answer");
            return ScriptedMonitor::getNetworkState();
        }
        bool fails = false;
    } monitor;
    monitor.platform = kOffline;
    monitor.start();
    monitor.fails = true;
    pools.advance(1000ms);
    monitor.fails = false;
    monitor.poll();
    EXPECT_EQ(pools.pendingTimers(), 1u);
}

TEST(NetworkMonitor, RealTimersRaceWithStartStopAndPoll) {
    ScriptedMonitor monitor;
    monitor.setCallback(nullptr);
    monitor.setPollInterval(1ms);
    const auto churn = [&](auto act) {
        return std::thread([act] {
            for (int i = 0; i < 300; ++i) act(i);
        });
    };
    std::thread starter = churn([&](int) { monitor.start(); });
    std::thread stopper = churn([&](int) { monitor.stop(); });
    std::thread poller = churn([&](int i) {
        monitor.platform = i % 2 == 0 ? kOffline : kOnline;
        monitor.poll();
    });
    starter.join();
    stopper.join();
    poller.join();
    monitor.stop();
    const int questions = monitor.questions;
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(monitor.questions, questions);
}

}  // namespace
}  // namespace velmora
