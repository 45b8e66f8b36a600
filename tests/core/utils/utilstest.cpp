#include "core/utils/strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "core/platform/pool.h"
#include "core/platform/process.h"
#include "core/utils/gate.h"
#include "core/utils/taskengine.h"
#include "core/utils/timestamps.h"
#include "tests/support/capturedlog.h"
#include "tests/support/manualpools.h"

namespace velmora {
namespace {

TEST(Strings, StoiReadsTheNumberAtTheStart) {
    const struct {
        const char* text;
        int value;
    } rows[] = {
        {"abc", -1},         {"", -1},
        {"  ", -1},          {"-", -1},
        {"+-3", -1},         {"12abc", 12},
        {" \t7", 7},         {"+5", 5},
        {"-8", -8},          {"007", 7},
        {"- 3", -1},         {"0x10", 0},
        {"99999999999", -1}, {"2147483647", 2147483647},
        {"-2147483649", -1},
    };
    for (const auto& row : rows) EXPECT_EQ(stoi(row.text), row.value) << row.text;
}

TEST(Strings, TokenizeSplitsUnlessEscaped) {
    using Tokens = std::vector<std::string>;
    const struct {
        const char* text;
        Tokens tokens;
    } rows[] = {
        {"a,b", {"a", "b"}},  {"a\\,b,c", {"a,b", "c"}}, {"", {""}},     {"a,", {"a", ""}},
        {",,", {"", "", ""}}, {"a\\\\,b", {"a\\", "b"}}, {"\\x", {"x"}}, {"\\", {""}},
    };
    for (const auto& row : rows) EXPECT_EQ(tokenize(row.text, ',', '\\'), row.tokens) << row.text;
    const test::CapturedLog log;
    EXPECT_EQ(tokenize("a\\", ',', '\\'), Tokens{"a"});
    EXPECT_TRUE(log.has(LogLevel::warn, "string.utils", "Invalid terminal escape"));
}

TEST(Strings, CaseIsFoldedForAsciiOnly) {
    EXPECT_TRUE(equalsIgnoringCase("Content-TYPE", "content-type"));
    EXPECT_FALSE(equalsIgnoringCase("content", "content-type"));
    EXPECT_FALSE(equalsIgnoringCase("@", "`"));
    EXPECT_FALSE(equalsIgnoringCase("\xC3\x84", "\xC3\xA4"));
}

TEST(Strings, GuidsAreLowerCaseAndUniqueAcrossThreads) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::vector<std::vector<std::string>> made(4, std::vector<std::string>(1000));
    std::vector<std::thread> threads;
    for (auto& mine : made) threads.emplace_back([&mine] { std::generate(mine.begin(), mine.end(), makeGuid); });
    for (auto& thread : threads) thread.join();
    std::set<std::string> all;
    for (const auto& mine : made) all.insert(mine.begin(), mine.end());
    EXPECT_EQ(all.size(), 4000U);
    for (const std::string& guid : all) EXPECT_TRUE(std::regex_match(guid, form)) << guid;
}

constexpr int64_t kTicks = 10'000'000;

TEST(Timestamps, FormatsEveryDayOfTheCalendar) {
    const struct {
        const char* what;
        int64_t ticks;
        const char* text;
    } rows[] = {
        {"epoch", 0, "1970-01-01T00:00:00Z"},
        {"fractions are cut off", 1678788930 * kTicks + 9'999'999, "2023-03-14T10:15:30Z"},
        {"leap day", 951782400 * kTicks, "2000-02-29T00:00:00Z"},
        {"end of a year", 1703980799 * kTicks, "2023-12-30T23:59:59Z"},
        {"before the epoch", -1, "1969-12-31T23:59:59Z"},
        {"no year of four digits", INT64_MAX, ""},
        {"before the year 0", INT64_MIN, ""},
    };
    for (const auto& row : rows) EXPECT_EQ(formatTimeUtc(row.ticks), row.text) << row.what;
}

TEST(Timestamps, ShowTheClockInTheThreeForms) {
    const int64_t before = currentTicks();
    const std::string utc = currentTimeUtcMicros();
    const std::string local = currentTimeLocalMillis();
    uint32_t micros = 0;
    const int64_t seconds = currentSeconds(&micros);
    const int64_t after = currentTicks();
    EXPECT_LE(before / kTicks, seconds);
    EXPECT_LE(seconds, after / kTicks);
    EXPECT_LT(micros, 1'000'000U);
    EXPECT_TRUE(std::regex_match(utc, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)"))) << utc;
    EXPECT_TRUE(std::regex_match(local, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4})"))) << local;
    EXPECT_GE(utc.substr(0, 19) + "Z", formatTimeUtc(before));
    EXPECT_LE(utc.substr(0, 19) + "Z", formatTimeUtc(after));
}

TEST(Timestamps, LocalTimeIsAheadOfUtcByTheOffsetShown) {
    const int64_t before = currentSeconds();
    const std::string local = currentTimeLocalMillis();
    std::chrono::seconds offset{};
    ASSERT_TRUE(platform::localOffset(before, offset));
    const int64_t shown = (std::stoi(local.substr(24, 2)) * 60 + std::stoi(local.substr(26, 2))) * 60;
    EXPECT_EQ(local[23] == '-' ? -shown : shown, offset.count());
    EXPECT_GE(local.substr(0, 19) + "Z", formatTimeUtc((before + offset.count()) * kTicks));
    EXPECT_EQ(currentTimeLocalMillis().substr(23), local.substr(23)) << "the kept offset is the asked one";
}

using namespace std::chrono_literals;
using test::ManualPools;

TEST(TaskEngineGenerations, RestartMakesPendingTimersAndTasksVoid) {
    ManualPools pools;
    SerialTaskEngine engine;
    std::string ran;
    engine.schedule(1000ms, Task([&] { ran += "old timer "; }));
    engine.schedule(Task([&] { ran += "old task "; }));
    engine.stop();
    engine.schedule(Task([&] { ran += "refused "; }));
    engine.start();
    engine.schedule(2000ms, Task([&] { ran += "new timer "; }));
    engine.schedule(Task([&] { ran += "new task "; }));
    pools.advance(1500ms);
    EXPECT_EQ(ran, "new task ");
    pools.advance(500ms);
    EXPECT_EQ(ran, "new task new timer ");
    engine.start();  // running already: no new generation
    engine.schedule(Task([&] { ran += "last"; }));
    engine.start();
    pools.runAll();
    EXPECT_EQ(ran, "new task new timer last");
}

TEST(TaskEngineGenerations, AreToldInTheLog) {
    const test::CapturedLog log;
    ManualPools pools;
    SerialTaskEngine engine;
    pools.runAll();
    engine.schedule(Task([] {}));
    engine.schedule(1000ms, Task([] {}));
    engine.stop();
    engine.stop();
    engine.schedule(Task([] {}));
    engine.start();
    std::ostringstream address;
    address << static_cast<TaskEngine*>(&engine);
    const std::string name = "this=" + address.str();
    EXPECT_EQ(log.messages("taskengine"),
              (std::vector<std::string>{"creating " + name, "schedule task " + name, "perform task " + name,
                                        "schedule task " + name, "schedule task " + name,
                                        "stopped " + name + " index=0ignored 2 pending tasks",
                                        "engine stopped; skip schedule " + name, "started " + name + " index=1"}));
}

TEST(WaitFor, TellsOnceAMinuteWhatItWaitsForAndGivesUpInTime) {
    const test::CapturedLog log;
    EXPECT_FALSE(waitFor([] { return false; }, "never", 1, 3));
    EXPECT_TRUE(waitFor([] { return true; }, "at once", 1, 3));
    std::vector<Gate::Clock::time_point> deadlines;
    const auto fourth = [&](Gate::Clock::time_point deadline) {
        return deadlines.push_back(deadline), deadlines.size() > 3;
    };
    EXPECT_TRUE(waitFor(fourth, "the fourth"));
    EXPECT_EQ(deadlines.back() - deadlines.front(), 3min);
    EXPECT_EQ(
        log.messages("utils"),
        (std::vector<std::string>{"Begin wait for never to be complete", "waiting for never to be complete",
                                  "End wait for never to be complete", "Begin wait for at once to be complete",
                                  "End wait for at once to be complete", "Begin wait for the fourth to be complete",
                                  "waiting for the fourth to be complete", "waiting for the fourth to be complete",
                                  "waiting for the fourth to be complete", "End wait for the fourth to be complete"}));
}

TEST(TaskEngineEnd, StopDestroysWhatWaitsForItsTime) {
    const auto held = std::make_shared<int>();
    TaskEngine stopped;
    TaskEngine other;
    for (int i = 0; i < 3; ++i) stopped.schedule(1h, [held] { std::abort(); });
    other.schedule(1h, [held] { std::abort(); });
    stopped.stop();
    EXPECT_EQ(held.use_count(), 2) << "the other engine's";
    other.stop();
    EXPECT_EQ(held.use_count(), 1);
}

TEST(TaskEngineEnd, TasksOfADestroyedEngineVanish) {
    ManualPools pools;
    bool ran = false;
    future<std::error_code> result;
    {
        SerialTaskEngine engine;
        engine.schedule(Task([&] { ran = true; }));
        engine.schedule(10ms, Task([&] { ran = true; }));
        result = engine.schedule(std::error_code(), [&] {
            ran = true;
            return std::error_code();
        });
    }
    pools.advance(100ms);
    EXPECT_FALSE(ran);
    ASSERT_TRUE(result.isReady());
    EXPECT_THROW((void)result.get_try(), future_error) << "an unrun package breaks its promise";
}

TEST(TaskEngineFutures, CarryResultExceptionOrTheDefaultOfAStoppedEngine) {
    SerialTaskEngine engine;
    const auto value = engine.schedule(std::error_code(), [] { return std::make_error_code(std::errc::io_error); });
    EXPECT_EQ(waitForFuture(value, std::error_code(), "value", 10000), std::errc::io_error);
    const auto thrown =
        engine.schedule(std::error_code(), []() -> std::error_code { throw std::runtime_error("broken"); });
    EXPECT_THROW(waitForFuture(thrown, std::error_code(), "thrown", 10000), std::runtime_error);
    engine.stop();
    const auto refused = engine.schedule(std::make_error_code(std::errc::timed_out), [] { return std::error_code(); });
    ASSERT_TRUE(refused.isReady());
    EXPECT_EQ(*refused.get_try(), std::errc::timed_out);
    const future<std::error_code> never(std::make_shared<FutureState<std::error_code>>());
    EXPECT_EQ(waitForFuture(never, std::make_error_code(std::errc::timed_out), "never", 3), std::errc::timed_out);
}

TEST(SerialQueueOrder, TasksNeverOverlapAndKeepTheirOrderPerThread) {
    const auto queue = std::make_shared<SerialQueue>([](Task task) { platform::defaultPool().run(std::move(task)); });
    constexpr int kThreads = 4;
    constexpr int kTasks = 500;
    std::vector<int> seen[kThreads];
    std::atomic<int> inside = 0;
    std::atomic<int> done = 0;
    std::atomic<bool> overlapped = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kTasks; ++i) {
                queue->enqueue(Task([&, t, i] {
                    if (++inside != 1) overlapped = true;
                    seen[t].push_back(i);
                    --inside;
                    ++done;
                }));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(waitFor([&] { return done == kThreads * kTasks; }, "tasks", 1, 60000));
    EXPECT_FALSE(overlapped);
    for (const auto& order : seen) EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(SerialQueueRefusal, LosesNoTakenTaskAndGoesOnAfterIt) {
    std::deque<Task> turns;
    int refusals = 0;
    const auto executor = [&](Task turn) {
        if (refusals > 0 && refusals-- > 0) throw std::bad_alloc();
        turns.push_back(std::move(turn));
    };
    const auto runTurns = [&] {
        for (; !turns.empty(); turns.pop_front()) turns.front()();
    };
    const auto queue = std::make_shared<SerialQueue>(executor);
    std::string ran;
    refusals = 1;
    const auto held = std::make_shared<int>();
    EXPECT_THROW(queue->enqueue([&ran, held] { ran += "refused "; }), std::bad_alloc);
    EXPECT_EQ(held.use_count(), 1) << "the queue has kept nothing";
    for (const char* const name : {"a ", "b ", "c "}) queue->enqueue([&ran, name] { ran += name; });
    refusals = 1;
    EXPECT_NO_THROW(runTurns());
    EXPECT_EQ(ran, "a b c ");
    queue->enqueue([&] { ran += "d"; });
    runTurns();
    EXPECT_EQ(ran, "a b c d");
}

TEST(TaskEngineStop, NoBodyRunsAfterStopHasReturnedAndAThrowEndsOnlyItsTask) {
    for (int round = 0; round < 200; ++round) {
        SerialTaskEngine engine;
        TaskEngine timer;
        std::atomic<bool> stopped = false;
        std::atomic<bool> late = false;
        const auto body = [&] {
            if (stopped) late = true;
            std::this_thread::yield();
            if (stopped) late = true;
            throw std::runtime_error("ends this task only");
        };
        std::thread feeder([&] {
            for (int i = 0; i < 20; ++i) {
                engine.schedule(Task(body));
                timer.schedule(0ms, Task(body));
            }
        });
        engine.stop();
        timer.stop();
        stopped = true;
        feeder.join();
        EXPECT_FALSE(late);
    }
}

TEST(Pool, DoesNotDeadlockWhenEveryThreadWaitsForWorkOfTheSamePool) {
    constexpr int kDepth = 60;
    std::atomic<int> reached = 0;
    std::function<void(int)> nest = [&](int depth) {
        ++reached;
        if (depth == 0) return;
        std::atomic<bool> inner = false;
        platform::defaultPool().run([&] {
            nest(depth - 1);
            inner = true;
        });
        waitFor([&] { return inner.load(); }, "inner", 1, 60000);
    };
    std::atomic<bool> done = false;
    platform::defaultPool().run([&] {
        nest(kDepth);
        done = true;
    });
    ASSERT_TRUE(waitFor([&] { return done.load(); }, "outer", 1, 60000));
    EXPECT_EQ(reached, kDepth + 1);
}

TEST(Timer, FiresInOrderOfDueTimeAndNotBefore) {
    std::mutex mutex;
    std::vector<int> order;
    const auto begin = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration first{};
    for (const int ms : {120, 40, 80}) {
        platform::defaultTimer().runAfter(std::chrono::milliseconds(ms), nullptr, [&, ms] {
            const std::lock_guard<std::mutex> lock(mutex);
            if (order.empty()) first = std::chrono::steady_clock::now() - begin;
            order.push_back(ms);
        });
    }
    platform::defaultTimer().runAfter(std::chrono::milliseconds::max(), nullptr, [] { std::abort(); });
    ASSERT_TRUE(waitFor(
        [&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return order.size() == 3;
        },
        "timers", 1, 60000));
    EXPECT_EQ(order, (std::vector<int>{40, 80, 120}));
    EXPECT_GE(first, 39ms);
}

TEST(Gate, OnceClosedAndWaitedForNobodyIsInsideAndItMayGo) {
    for (int round = 0; round < 200; ++round) {
        auto guarded = std::make_unique<std::atomic<int>>(0);
        auto gate = std::make_unique<Gate>();
        Gate* const shared = gate.get();
        std::atomic<int> seen = 0;
        std::vector<std::jthread> visitors;
        for (int i = 0; i < 3; ++i) {
            visitors.emplace_back([&, data = guarded.get()](const std::stop_token& stop) {
                while (!stop.stop_requested() && shared->enter()) {
                    ++*data;
                    ++seen;
                    shared->leave();
                }
            });
        }
        while (seen < 50) std::this_thread::yield();
        ASSERT_TRUE(gate->enter());
        gate->close();
        EXPECT_FALSE(gate->enter());
        EXPECT_FALSE(gate->waitUntil(Gate::Clock::now()));
        gate->wait(1);
        EXPECT_EQ(gate->inside(), 1U);
        std::thread last([&] { shared->leave(); });
        gate->wait();
        guarded.reset();
        last.join();
        visitors.clear();
    }
}

TEST(Pools, EndTheirThreadsOnDemandAndServeOn) {
    const auto soon = [] { return std::chrono::steady_clock::now() + 20s; };
    const auto held = std::make_shared<int>();
    std::atomic<int> ran = 0;
    std::atomic<bool> free = false;
    platform::defaultTimer().runAfter(1h, nullptr, [held] { std::abort(); });
    platform::defaultPool().run([&] {
        while (!free) std::this_thread::yield();
        platform::defaultPool().run([&] { ++ran; });
        platform::defaultTimer().runAfter(1h, nullptr, [held] { std::abort(); });
    });
    EXPECT_FALSE(platform::awaitIdlePools(std::chrono::steady_clock::now() + 5ms)) << "a task goes on";
    free = true;
    ASSERT_TRUE(platform::awaitIdlePools(soon()));
    EXPECT_EQ(held.use_count(), 1) << "timers that are not due are dropped";
    EXPECT_EQ(ran, 1);
    platform::defaultPool().run([&] { ++ran; });
    platform::defaultTimer().runAfter(0ms, nullptr, [&] { ++ran; });
    ASSERT_TRUE(waitFor([&] { return ran == 3; }, "tasks", 1, 20000));
    std::atomic<bool> onPool = true;
    platform::defaultPool().run([&] { onPool = platform::awaitIdlePools(soon()); });
    EXPECT_TRUE(waitFor([&] { return !onPool; }, "a thread that can't wait for itself", 1, 20000));
}

}  // namespace
}  // namespace velmora
