#include <gtest/gtest.h>

#include <array>
#include <future>
#include <random>
#include <thread>
#include <vector>

#include "core/transfer/executor.h"
#include "core/transfer/requestcontext.h"
#include "core/transfer/transferengine.h"
#include "core/transfer/transferimpl.h"
#include "tests/core/transfer/recordingresponder.h"
#include "tests/support/barrier.h"
#include "tests/support/capturedlog.h"

namespace velmora::transfer {
namespace {

using test::CapturedLog;
using test::RecordingResponder;

constexpr const char* kSuccess = "success";
constexpr const char* kRetriable = "velmora_http_error:5";
constexpr const char* kCancelled = "velmora_http_error:4";

// Takes every request over and leaves the rest to the test.
class ScriptedEngine : public TransferEngine {
public:
    void sendRequest(std::error_code& out, http::Verb, const std::string&, std::shared_ptr<TransferResponder> responder,
                     uint32_t* requestId) override {
        ++sends;
        *requestId = acceptedId;
        out = sendResult;
        host = std::move(responder);
        if (duringSend) duringSend();
    }
    void cancelRequest(std::error_code& out, uint32_t) override {
        ++cancels;
        if (!canCancel) throw std::system_error(VelmoraError::http_callback_not_set);
        out = cancelResult;
    }
    void online() override {}
    void offline() override {}
    void setErrorCallback(std::function<void(std::error_code, const std::string&)>) override {}

    std::shared_ptr<TransferResponder> host;
    std::function<void()> duringSend;
    std::error_code sendResult;
    std::error_code cancelResult;
    uint32_t acceptedId = 7;
    bool canCancel = true;
    std::atomic<int> sends = 0;
    std::atomic<int> cancels = 0;
};

struct Exchange {
    explicit Exchange(http::Request request = {}) {
        handle = ExecutorImpl(engine).createContext(std::move(request), responder);
    }
    bool execute() {
        std::error_code error;
        return ExecutorImpl(engine).execute(handle, error);
    }
    TransferRequest& transfer() { return handle->context().transfer(); }

    std::shared_ptr<ScriptedEngine> engine = std::make_shared<ScriptedEngine>();
    std::shared_ptr<RecordingResponder> responder = std::make_shared<RecordingResponder>();
    std::shared_ptr<RequestHandle> handle;
};

enum class Step { complete, fail, confirmCancel, cancel, status, headers, body, laterBody };
constexpr std::array kSteps{Step::complete, Step::fail,    Step::confirmCancel, Step::cancel,
                            Step::status,   Step::headers, Step::body,          Step::laterBody};

void take(Step step, TransferResponder& host, TransferRequest& transfer) {
    switch (step) {
        case Step::complete:
            return host.onCompletion();
        case Step::fail:
            return host.onError(VelmoraHttpError::retriable, "reset");
        case Step::confirmCancel:
            return host.onCancellation();
        case Step::cancel:
            return transfer.cancel();
        case Step::status:
            return host.onResponseStatus("HTTP/1.1", 201, "Created");
        case Step::headers:
            return host.onResponseHeaders({{"x-request-id", "17"}});
        case Step::body:
            return host.onResponseBody(0, "hello", 5);
        case Step::laterBody:
            return host.onResponseBody(5, "world", 5);
    }
}

// What the responder has to hear of a sequence of steps on one thread.
struct Expected {
    void take(Step step, VelmoraHttpError cancelResult) {
        if (outcome != "none") return;
        if (step == Step::complete) outcome = kSuccess;
        if (step == Step::fail) outcome = kRetriable;
        if (step == Step::confirmCancel) outcome = kCancelled;
        if (step == Step::cancel && !cancelAsked && cancelResult != VelmoraHttpError::cancel_ignored) {
            outcome = kCancelled;
        }
        if (step == Step::cancel) cancelAsked = true;
        if (step == Step::status) status = 201;
        if (step == Step::headers) headers = 1;
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
    Exchange exchange;
    exchange.engine->cancelResult = cancelResult;
    if (!exchange.execute()) return "not executed";
    Expected expected;
    for (const Step step : steps) {
        take(step, *exchange.engine->host, exchange.transfer());
        expected.take(step, cancelResult);
    }
    const http::Response& response = exchange.responder->response();
    if (exchange.responder->outcome() != expected.outcome) return "outcome " + exchange.responder->outcome();
    if (response.status != expected.status) return "status";
    if (response.headers.size() != expected.headers) return "headers";
    if (response.body != expected.body()) return "body " + response.body;
    if (expected.outcome == "none") exchange.engine->host->onCompletion();
    exchange.handle.reset();
    if (expected.outcome != "none" && exchange.engine->cancels > 1) return "cancelled at the host more than once";
    exchange.engine->host.reset();
    return exchange.responder.use_count() == 1 ? "" : "leak";
}

TEST(TransferMachine, FirstOutcomeWinsInEverySequence) {
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

TEST(TransferMachine, CancellationWaitsForTheCallInProgressAndOtherOutcomesDoNot) {
    const struct {
        Step inside;
        VelmoraHttpError cancelResult;
        std::string heard;
    } rows[] = {
        {Step::confirmCancel, VelmoraHttpError::none, "( ) cancelled "},
        {Step::cancel, VelmoraHttpError::none, "( ) cancelled "},
        {Step::cancel, VelmoraHttpError::invalid_input, "( ) cancelled "},
        {Step::cancel, VelmoraHttpError::cancel_ignored, "( ) completed "},
        {Step::complete, VelmoraHttpError::none, "( completed ) "},
        {Step::fail, VelmoraHttpError::none, "( failed ) "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.heard + std::to_string(static_cast<int>(row.inside)));
        const CapturedLog log(LogLevel::warn);
        const auto engine = std::make_shared<ScriptedEngine>();
        engine->cancelResult = row.cancelResult;
        const auto transfer = std::make_shared<TransferImpl>(engine, http::Request{});
        std::string heard;
        transfer->setHeadersCallback([&](const http::Headers&) {
            heard += "( ";
            take(row.inside, *transfer, *transfer);
            heard += ") ";
        });
        transfer->setCompletionCallback([&](const TransferResponse&) { heard += "completed "; });
        transfer->setErrorCallback([&](const TransferResponse& response) {
            EXPECT_EQ(response.message, "reset");
            heard += "failed ";
        });
        transfer->setCancelCallback([&] { heard += "cancelled "; });
        std::error_code error;
        ASSERT_TRUE(transfer->perform(error));
        transfer->onResponseHeaders({});
        transfer->onCompletion();
        EXPECT_EQ(heard, row.heard);
        const bool isDeferred = row.cancelResult != VelmoraHttpError::cancel_ignored;
        EXPECT_EQ(log.contains("Deferring completion due to outstanding callbacks; isCancellation="), isDeferred);
    }
}

TEST(TransferMachine, AThrowingCallbackStillLetsTheDeferredCancelRun) {
    const auto engine = std::make_shared<ScriptedEngine>();
    const auto transfer = std::make_shared<TransferImpl>(engine, http::Request{});
    bool isCancelled = false;
    transfer->setStatusCallback([&](const std::string&, int, const std::string&) {
        transfer->onCancellation();
        EXPECT_FALSE(isCancelled);
        throw std::runtime_error("refused");
    });
    transfer->setCancelCallback([&] { isCancelled = true; });
    EXPECT_THROW(transfer->onResponseStatus("", 200, ""), std::runtime_error);
    EXPECT_TRUE(isCancelled);
}

TEST(TransferMachine, BodyPiecesReachTheResponderInOrderAndOnce) {
    const CapturedLog log(LogLevel::error);
    Exchange exchange;
    exchange.execute();
    TransferResponder& host = *exchange.engine->host;
    host.onResponseBody(5, "56789", 5);
    host.onResponseBody(5, "xxxxx", 5);  // taken by a waiting piece
    host.onResponseBody(0, "01234", 5);
    host.onResponseBody(0, "01234", 5);  // gone by already
    host.onResponseBody(10, "", 0);      // nothing, so it takes no position
    host.onResponseBody(13, "xx", 2);    // to be covered by the next one
    host.onResponseBody(10, "abcde", 5);
    host.onResponseBody(15, "f", 1);
    EXPECT_EQ(exchange.responder->response().body, "0123456789abcdef");
    EXPECT_EQ(log.messages("transfer"), (std::vector<std::string>{"Failed to add response data at position: 5",
                                                                  "Failed to add response data at position: 0",
                                                                  "Failed to add response data at position: 13"}));
    host.onCompletion();
}

TEST(TransferMachine, RequestBodyIsReadAtAnyOffset) {
    Exchange exchange({.url = "u", .verb = http::Verb::POST, .headers = {}, .body = "0123456789"});
    exchange.execute();
    TransferResponder& host = *exchange.engine->host;
    const struct {
        uint64_t offset, capacity;
        std::string expected;
    } rows[] = {{0, 4, "0123"},        {8, 4, "89"}, {10, 4, ""},
                {~uint64_t{0}, 4, ""}, {3, 0, ""},   {1, ~uint64_t{0}, "123456789"}};
    for (const auto& row : rows) {
        std::array<char, 16> buffer{};
        uint64_t written = 99;
        host.onRequestBody(row.offset, buffer.data(), &written, row.capacity);
        EXPECT_EQ(std::string(buffer.data(), written), row.expected) << row.offset;
    }
    host.onCompletion();
}

TEST(RequestHandle, DroppedOrStoppedBeforeExecutionAsksTheHostForNothing) {
    Exchange unused;
    unused.handle.reset();
    EXPECT_EQ(unused.responder->outcome(), "none");

    Exchange stopped;
    stopped.handle->context().stop();
    EXPECT_FALSE(stopped.execute());
    EXPECT_EQ(stopped.responder->outcome(), kCancelled);
    EXPECT_EQ(stopped.engine->sends, 0);

    Exchange cancelled;
    cancelled.transfer().cancel();
    EXPECT_FALSE(cancelled.execute());
    EXPECT_EQ(cancelled.responder->outcome(), kCancelled);
    EXPECT_EQ(cancelled.engine->sends, 0);
}

TEST(RequestHandle, ACancelDuringTheHandoverReachesTheHostOnceItHasTakenTheRequest) {
    const struct {
        const char* what;
        std::error_code sendResult;
        bool canCancel;
        int cancels;
    } rows[] = {
        {"taken", {}, true, 1},
        {"taken, and no way to cancel", {}, false, 1},
        {"refused", VelmoraHttpError::non_retriable, true, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Exchange exchange;
        exchange.engine->sendResult = row.sendResult;
        exchange.engine->canCancel = row.canCancel;
        exchange.engine->duringSend = [&] {
            exchange.transfer().cancel();
            EXPECT_EQ(exchange.responder->outcome(), kCancelled);
        };
        EXPECT_EQ(exchange.execute(), !row.sendResult);
        EXPECT_EQ(exchange.engine->cancels, row.cancels);
        exchange.engine->host->onCancellation();
        EXPECT_EQ(exchange.responder->outcome(), kCancelled);
    }
}

TEST(RequestHandle, TakenOverWithoutAnIdFailsOnce) {
    const CapturedLog log(LogLevel::error);
    Exchange exchange;
    exchange.engine->acceptedId = 0;
    EXPECT_FALSE(exchange.execute());
    exchange.engine->host->onCompletion();
    exchange.handle->waitForCompletion();
    exchange.handle.reset();
    exchange.engine->host.reset();
    EXPECT_EQ(exchange.responder->outcome(), "velmora_http_error:1");
    EXPECT_EQ(exchange.responder.use_count(), 1);
    EXPECT_EQ(exchange.engine->cancels, 0);
    EXPECT_EQ(log.messages("http"), std::vector<std::string>{"Request failed synchronously!"});
}

TEST(RequestHandle, FailsWhenTheEngineIsGone) {
    Exchange lone;
    lone.engine.reset();
    std::error_code error;
    EXPECT_FALSE(lone.transfer().perform(error));
    EXPECT_EQ(error, VelmoraHttpError::unknown);
}

TEST(RequestHandle, MayGoWithinItsOwnOutcome) {
    Exchange exchange;
    struct Dropping : RecordingResponder {
        void onSuccess() override { handle.reset(); }
        std::shared_ptr<RequestHandle> handle;
    };
    const auto responder = std::make_shared<Dropping>();
    responder->handle = ExecutorImpl(exchange.engine).createContext({}, responder);
    std::error_code error;
    ExecutorImpl(exchange.engine).execute(responder->handle, error);
    exchange.engine->host->onCompletion();
    EXPECT_EQ(responder->handle, nullptr);
}

// Two host threads, one that cancels and one that waits, let loose at the same moment.
TEST(TransferRace, OneOutcomeAndNothingAfterIt) {
    constexpr int kRounds = 3000;
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
    threads.push_back(contestant(1, [](int round, Exchange& e) {
        for (const Step step : {Step::status, Step::headers, Step::laterBody, Step::body}) {
            take(step, *e.engine->host, e.transfer());
        }
        take(round % 3 == 0 ? Step::confirmCancel : Step::complete, *e.engine->host, e.transfer());
    }));
    threads.push_back(contestant(2, [](int round, Exchange& e) {
        take(round % 2 == 0 ? Step::headers : Step::body, *e.engine->host, e.transfer());
        take(round % 5 == 0 ? Step::fail : Step::status, *e.engine->host, e.transfer());
    }));
    threads.push_back(contestant(3, [](int, Exchange& e) { e.handle->context().stop(); }));
    threads.push_back(contestant(4, [](int, Exchange& e) { e.handle->waitForCompletion(); }));

    constexpr std::array kCancelResults{VelmoraHttpError::none, VelmoraHttpError::invalid_input,
                                        VelmoraHttpError::cancel_ignored, VelmoraHttpError::non_retriable};
    for (int round = 0; round < kRounds; ++round) {
        exchange = std::make_unique<Exchange>();
        exchange->engine->cancelResult = kCancelResults[static_cast<size_t>(round) % kCancelResults.size()];
        EXPECT_TRUE(exchange->execute());
        begin.arriveAndWait();
        end.arriveAndWait();
        const std::string& outcome = exchange->responder->outcome();
        EXPECT_TRUE(outcome == kSuccess || outcome == kRetriable || outcome == kCancelled) << round << " " << outcome;
        exchange->handle.reset();
        exchange->engine->host.reset();
        EXPECT_EQ(exchange->responder.use_count(), 1) << round;
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace velmora::transfer
