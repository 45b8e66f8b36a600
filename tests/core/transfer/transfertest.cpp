#include "core/transfer/transfer.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <thread>
#include <vector>

#include "tests/core/transfer/exchange.h"
#include "tests/core/transfer/scriptedhost.h"
#include "tests/support/barrier.h"
#include "tests/support/capturedlog.h"

namespace velmora::transfer {
namespace {

using test::CapturedLog;
using test::Exchange;
using test::kCancelled;
using test::kRetriable;
using test::kSuccess;
using test::ScriptedHost;
using Clock = Transfer::Clock;

enum class Step { complete, fail, confirmCancel, cancel, status, header, body, laterBody };
constexpr std::array kSteps{Step::complete, Step::fail,   Step::confirmCancel, Step::cancel,
                            Step::status,   Step::header, Step::body,          Step::laterBody};

void take(Step step, ScriptedHost& host, RequestHandle& handle) {
    switch (step) {
        case Step::complete:
            return static_cast<void>(host.complete());
        case Step::fail:
            return static_cast<void>(host.complete(VELMORA_HTTP_RETRIABLE));
        case Step::confirmCancel:
            return static_cast<void>(host.complete(VELMORA_HTTP_CANCELLED));
        case Step::cancel:
            return handle.cancel();
        case Step::status:
            return static_cast<void>(host.status(201));
        case Step::header:
            return static_cast<void>(host.header("x-request-id", "17"));
        case Step::body:
            return static_cast<void>(host.body(0, "hello"));
        case Step::laterBody:
            return static_cast<void>(host.body(5, "world"));
    }
}

// What the responder has to hear of a sequence of steps on one thread.
struct Expected {
    void take(Step step, VelmoraHttpError cancelResult) {
        if (outcome != "none") return;
        if (step == Step::complete) outcome = status == 201 ? kSuccess : kRetriable;
        if (step == Step::fail) outcome = kRetriable;
        if (step == Step::confirmCancel) outcome = kCancelled;
        if (step == Step::cancel && !cancelAsked && cancelResult != VelmoraHttpError::cancel_ignored) {
            outcome = kCancelled;
        }
        if (step == Step::cancel) cancelAsked = true;
        if (step == Step::status) status = 201;
        if (step == Step::header) headers = 1;
        if (step == Step::body) first = true;
        if (step == Step::laterBody) second = true;
    }
    [[nodiscard]] std::string body() const { return !first ? "" : second ? "helloworld" : "hello"; }

    std::string outcome = "none";
    int status = 0;
    size_t headers = 0;
    bool first = false;
    bool second = false;
    bool cancelAsked = false;
};

std::string expectOneOutcome(const std::vector<Step>& steps, VelmoraHttpError cancelResult) {
    ScriptedHost host;
    host.cancelResult = cancelResult;
    Exchange exchange(makeTransferEngine());
    if (!exchange.execute()) return "not executed";
    Expected expected;
    for (const Step step : steps) {
        take(step, host, *exchange.handle);
        expected.take(step, cancelResult);
    }
    const http::Response& response = exchange.heard->response;
    if (exchange.heard->outcome != expected.outcome) return "outcome " + exchange.heard->outcome;
    if (expected.outcome == "none") {
        host.status(200);
        host.complete();
    } else {
        if (response.status != expected.status) return "status";
        if (response.headers.size() != expected.headers) return "headers";
        if (response.body != expected.body()) return "body " + response.body;
    }
    if (host.cancels > 1) return "cancelled at the host more than once";
    exchange.handle.reset();
    return exchange.isResponderGone() ? "" : "leak";
}

TEST(TransferMachine, FirstOutcomeWinsInEverySequence) {
    const CapturedLog quiet(LogLevel::off);
    constexpr size_t kLength = 4;
    constexpr size_t kSequences = kSteps.size() * kSteps.size() * kSteps.size() * kSteps.size();
    for (const auto cancelResult : {VelmoraHttpError::none, VelmoraHttpError::unknown, VelmoraHttpError::invalid_input,
                                    VelmoraHttpError::cancel_ignored}) {
        for (size_t sequence = 0; sequence < kSequences; ++sequence) {
            std::vector<Step> steps;
            std::string name = "cancel result " + std::to_string(static_cast<int>(cancelResult)) + ", steps";
            for (size_t rest = sequence; steps.size() < kLength; rest /= kSteps.size()) {
                steps.push_back(kSteps[rest % kSteps.size()]);
                name += " " + std::to_string(static_cast<int>(steps.back()));
            }
            ASSERT_EQ(expectOneOutcome(steps, cancelResult), "") << name;
        }
    }
}

TEST(TransferMachine, BodyPiecesArePutInOrderAndEachPlaceIsTakenOnce) {
    const CapturedLog log(LogLevel::error);
    ScriptedHost host;
    Exchange exchange(makeTransferEngine());
    exchange.execute();
    const std::pair<uint64_t, const char*> pieces[] = {
        {5, "56789"},  {5, "xxxxx"},  // taken by a waiting piece
        {0, "01234"},  {0, "01234"},  // gone by already
        {10, ""},                     // nothing, so it takes no place
        {13, "xx"},                   // to be covered by the next one
        {10, "abcde"}, {15, "f"},    {99, "behind a gap that never closes"},
    };
    for (const auto& [offset, piece] : pieces) host.body(offset, piece);
    host.status(200);
    host.complete();
    EXPECT_EQ(exchange.heard->response.body, "0123456789abcdef");
    EXPECT_EQ(log.messages("transfer"), (std::vector<std::string>{"Failed to add response data at position: 5",
                                                                  "Failed to add response data at position: 0",
                                                                  "Failed to add response data at position: 13"}));
}

TEST(TransferMachine, OnlyA2xxIsAnAnswer) {
    const struct {
        int status;  // -1: none is reported
        const char* outcome;
    } rows[] = {
        {200, kSuccess},   {299, kSuccess},   {400, "http_error:400"}, {599, "http_error:599"}, {-1, kRetriable},
        {100, kRetriable}, {302, kRetriable}, {600, kRetriable},       {0, kRetriable},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        const CapturedLog log(LogLevel::warn);
        ScriptedHost host;
        Exchange exchange(makeTransferEngine());
        exchange.execute();
        if (row.status >= 0) host.status(static_cast<uint32_t>(row.status));
        host.complete();
        EXPECT_EQ(exchange.outcome(), row.outcome);
        EXPECT_EQ(log.contains(" was neither success nor failure. "), row.outcome == kRetriable);
    }
}

TEST(RequestHandle, StoppedOrCancelledBeforeExecutionAsksTheHostForNothing) {
    ScriptedHost host;
    const auto engine = makeTransferEngine();
    Exchange unused(engine);
    unused.handle.reset();
    EXPECT_EQ(unused.heard->outcome, "none");

    Exchange stopped(engine);
    stopped.handle->stop(Clock::now());
    EXPECT_FALSE(stopped.execute());
    EXPECT_EQ(stopped.error, VelmoraHttpError::cancelled);
    EXPECT_EQ(stopped.outcome(), "none");
    EXPECT_TRUE(stopped.isResponderGone());

    Exchange cancelled(engine);
    cancelled.handle->cancel();
    EXPECT_FALSE(cancelled.execute());
    EXPECT_EQ(cancelled.outcome(), kCancelled);

    Exchange orphan(makeTransferEngine());
    orphan.engine.reset();
    EXPECT_FALSE(orphan.execute());
    EXPECT_EQ(orphan.outcome(), "velmora_http_error:1");
    EXPECT_EQ(host.contexts.size(), 0u);
}

TEST(RequestHandle, ACancelDuringTheHandoverReachesTheHostOnceItHasTakenTheRequest) {
    const struct {
        const char* what;
        VelmoraHttpError sendResult;
        bool canCancel;
        int cancels;
    } rows[] = {
        {"taken", VelmoraHttpError::none, true, 1},
        {"taken, and no way to cancel", VelmoraHttpError::none, false, 0},
        {"refused", VelmoraHttpError::non_retriable, true, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ScriptedHost host;
        Exchange exchange(makeTransferEngine());
        host.sendResult = row.sendResult;
        host.setCancellable(row.canCancel);
        host.duringSend = [&] {
            exchange.handle->cancel();
            EXPECT_EQ(exchange.heard->outcome, kCancelled);
        };
        EXPECT_EQ(exchange.execute(), row.sendResult == VelmoraHttpError::none);
        EXPECT_EQ(host.cancels, row.cancels);
        host.complete(VELMORA_HTTP_CANCELLED);
        EXPECT_EQ(exchange.heard->outcome, kCancelled);
    }
}

TEST(RequestHandle, TakenOverWithoutAnIdFailsOnce) {
    const CapturedLog log(LogLevel::error);
    ScriptedHost host;
    host.id = 0;
    Exchange exchange(makeTransferEngine());
    EXPECT_FALSE(exchange.execute());
    host.complete();
    EXPECT_EQ(exchange.outcome(), "velmora_http_error:1");
    EXPECT_TRUE(exchange.isResponderGone());
    EXPECT_EQ(log.messages("http"), std::vector<std::string>{"Request failed synchronously!"});
    EXPECT_EQ(log.messages("transfer"), std::vector<std::string>{"No context!"});
}

TEST(RequestHandle, AHostThatIgnoresTheCancelIsGivenUpAtTheDeadline) {
    ScriptedHost host;
    host.cancelResult = VelmoraHttpError::cancel_ignored;
    Exchange exchange(makeTransferEngine());
    exchange.execute();
    const auto deadline = Clock::now() + std::chrono::milliseconds(30);
    exchange.handle->stop(deadline);
    EXPECT_GE(Clock::now(), deadline);
    EXPECT_EQ(exchange.heard->outcome, kCancelled);
    EXPECT_TRUE(exchange.isResponderGone());
    exchange.handle.reset();
    uint64_t length = 1;
    EXPECT_EQ(velmora_http_onRequestBodyLength(&host, &length, host.contexts.at(0)), 0);
    EXPECT_EQ(host.complete(), 0);
    EXPECT_EQ(exchange.heard->outcome, kCancelled);
}

TEST(RequestHandle, MayGoWithinItsOwnOutcome) {
    ScriptedHost host;
    std::shared_ptr<RequestHandle> handle;
    const auto engine = makeTransferEngine();
    handle = std::make_shared<RequestHandle>(engine, http::Request{}, [&](const http::Response&) { handle.reset(); });
    std::error_code error;
    handle->execute(error);
    host.complete();
    EXPECT_EQ(handle, nullptr);
}

// Two host threads, one that cancels and one that waits, let loose at the same moment.
TEST(TransferRace, OneOutcomeAndNothingAfterIt) {
    const CapturedLog quiet(LogLevel::off);
    constexpr int kRounds = 3000;
    ScriptedHost host;
    const auto engine = makeTransferEngine();
    std::unique_ptr<Exchange> exchange;
    test::Barrier begin(5);
    test::Barrier end(5);
    const auto contestant = [&](unsigned seed, auto act) {
        return std::thread([&, act, random = std::minstd_rand(seed)]() mutable {
            for (int round = 0; round < kRounds; ++round) {
                begin.arriveAndWait();
                for (auto spin = random() % 400; spin > 0; --spin) std::atomic_signal_fence(std::memory_order_seq_cst);
                act(round, *exchange);
                end.arriveAndWait();
            }
        });
    };
    std::vector<std::thread> threads;
    threads.push_back(contestant(1, [&](int round, Exchange& e) {
        for (const Step step : {Step::status, Step::header, Step::laterBody, Step::body}) take(step, host, *e.handle);
        take(round % 3 == 0 ? Step::confirmCancel : Step::complete, host, *e.handle);
    }));
    threads.push_back(contestant(2, [&](int round, Exchange& e) {
        take(round % 2 == 0 ? Step::header : Step::body, host, *e.handle);
        take(round % 5 == 0 ? Step::fail : Step::status, host, *e.handle);
    }));
    threads.push_back(contestant(3, [](int, Exchange& e) { e.handle->stop(Clock::now() + kCancelPatience); }));
    threads.push_back(contestant(4, [](int, Exchange& e) { e.handle->waitForCompletion(); }));

    constexpr std::array kCancelResults{VelmoraHttpError::none, VelmoraHttpError::invalid_input,
                                        VelmoraHttpError::cancel_ignored, VelmoraHttpError::non_retriable};
    for (int round = 0; round < kRounds; ++round) {
        host.contexts.clear();
        exchange = std::make_unique<Exchange>(engine);
        host.cancelResult = kCancelResults[static_cast<size_t>(round) % kCancelResults.size()];
        EXPECT_TRUE(exchange->execute());
        begin.arriveAndWait();
        end.arriveAndWait();
        const std::string& outcome = exchange->heard->outcome;
        EXPECT_TRUE(outcome == kSuccess || outcome == kRetriable || outcome == kCancelled) << round << " " << outcome;
        exchange->handle.reset();
        EXPECT_TRUE(exchange->isResponderGone()) << round;
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace velmora::transfer
