#include <gtest/gtest.h>

#include <future>
#include <random>
#include <thread>
#include <vector>

#include "tests/core/transfer/exchange.h"
#include "tests/core/transfer/scriptedhost.h"
#include "tests/support/capturedlog.h"
#include "tests/support/fakehost.h"

namespace velmora::transfer {
namespace {

using test::Answer;
using test::CapturedLog;
using test::Exchange;
using test::FakeHost;
using test::HostRequest;
using test::kCancelled;
using test::kSuccess;
using test::OnCancel;
using test::ScriptedHost;

TEST(HttpHook, CarriesARequestOutAndItsAnswerBack) {
    FakeHost host;
    host.answer({.status = 201,
                 .headers = {{"X-Request-Id", "17"}, {"x-request-id", "18"}},
                 .chunks = {{5, "world"}, {0, "hello"}}});
    const auto engine = makeTransferEngine();
    const http::Request request{.url = "https://ingest.example/v1",
                                .verb = http::Verb::POST,
                                .headers = {{"content-type", "text"}, {"b", "2"}},
                                .body = std::string(10000, 'x') + '\0'};
    Exchange sent(engine, request);
    ASSERT_TRUE(sent.execute());
    EXPECT_EQ(sent.outcome(), kSuccess);
    EXPECT_EQ(sent.heard->response.status, 201);
    EXPECT_EQ(sent.heard->response.body, "helloworld");
    EXPECT_EQ(sent.heard->response.headers.at("x-REQUEST-id"), "18");

    const std::vector<HostRequest> seen = host.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].url, request.url);
    EXPECT_EQ(seen[0].body, request.body);
    EXPECT_EQ(seen[0].headers, (std::map<std::string, std::string>{{"content-type", "text"}, {"b", "2"}}));
    EXPECT_EQ(seen[0].version, 2);
    EXPECT_EQ(seen[0].verb, VELMORA_HTTP_POST);
}

TEST(HttpHook, EveryKindOfAnswerGivesOneOutcomeAndLeavesNothingBehind) {
    const auto within = [](Answer answer) {
        answer.where = Answer::Where::withinSend;
        return answer;
    };
    const auto twice = [](Answer answer) {
        answer.completions = 2;
        return answer;
    };
    const Answer reset = Answer::failure(VELMORA_HTTP_RETRIABLE, "reset");
    const struct {
        const char* what;
        Answer answer;
        bool isTaken;
        const char* outcome;
        std::string hint;  // what the engine's error callback hears
    } rows[] = {
        {"later", {}, true, kSuccess, ""},
        {"within send", within({.body = "body"}), true, kSuccess, ""},
        {"twice", twice({}), true, kSuccess, ""},
        {"transport error", reset, true, "velmora_http_error:5", "velmora_http_error:5 reset"},
        {"transport error within send", within(reset), true, "velmora_http_error:5", "velmora_http_error:5 reset"},
        {"cancelled by the host", Answer::failure(VELMORA_HTTP_CANCELLED), true, kCancelled, ""},
        {"refused", Answer::refusal(6), false, "velmora_http_error:6", "velmora_http_error:6 failed to send request"},
    };
    FakeHost host;
    std::string hint;
    const auto engine = makeTransferEngine(
        [&](std::error_code error, const std::string& message) { hint = toString(error) + " " + message; });
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        hint.clear();
        host.answer(row.answer);
        Exchange sent(engine);
        EXPECT_EQ(sent.execute(), row.isTaken);
        EXPECT_EQ(sent.outcome(), row.outcome);
        const size_t id = host.sends();
        EXPECT_TRUE(!row.isTaken || host.waitUntil([&] { return host.requests()[id - 1].completed; }));
        EXPECT_EQ(hint, row.hint);
        sent.handle.reset();
        EXPECT_EQ(sent.heard->outcome, row.outcome);
        EXPECT_EQ(sent.heard.use_count(), 1);
    }
    EXPECT_EQ(host.cancels(), 0u);
}

TEST(HttpHook, DroppingAHandleEndsTheRequestWhateverTheHostSaysToTheCancel) {
    const struct {
        OnCancel behaviour;
        const char* outcome;
        bool isCompletedByHost;
    } rows[] = {
        {OnCancel::complete, kCancelled, true},
        {OnCancel::silent, kCancelled, false},
        {OnCancel::unknown, kCancelled, false},
        {OnCancel::ignored, kSuccess, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.behaviour));
        FakeHost host;
        host.onCancel(row.behaviour);
        host.hold();
        auto engine = makeTransferEngine();
        Exchange sent(engine);
        ASSERT_TRUE(sent.execute());
        std::thread late([&] {
            host.waitUntil([&] { return host.cancels() == 1; });
            host.release();
        });
        sent.handle.reset();
        late.join();
        EXPECT_EQ(sent.heard->outcome, row.outcome);
        if (row.isCompletedByHost) {
            EXPECT_TRUE(host.waitForCompletions(1));
        }
        EXPECT_TRUE(row.behaviour != OnCancel::unknown || sent.heard.use_count() == 1);
        engine.reset();
        sent.engine.reset();
        EXPECT_EQ(host.deletedSessions(), 1u);
        EXPECT_EQ(sent.heard->outcome, row.outcome);
    }
}

TEST(HttpHook, MissingCallbacksAndSessionsAreReportedByCode) {
    const auto codeOf = [](auto call) -> std::string {
        try {
            call();
        } catch (const std::system_error& e) {
            return toString(e.code()) + " " + e.what();
        }
        return "";
    };
    EXPECT_EQ(codeOf([] { (void)makeTransferEngine(); }),
              "velmora_error:7 http new session callback not set: http_callback_not_set");
    FakeHost host;
    host.failNewSessions(true);
    EXPECT_EQ(codeOf([] { (void)makeTransferEngine(); }),
              "velmora_error:8 failed to create http session: http_session_creation_failed");
    host.failNewSessions(false);
    Exchange sent(makeTransferEngine());
    host.hold();
    Exchange pending(sent.engine);
    ASSERT_TRUE(pending.execute());
    velmora_http_setSendRequestCallback(nullptr);
    velmora_http_setCancelRequestCallback(nullptr);
    velmora_http_setDeleteSessionCallback(nullptr);
    EXPECT_EQ(codeOf([&] { sent.execute(); }),
              "velmora_error:7 http send request callback not set: http_callback_not_set");
    sent.handle.reset();
    EXPECT_EQ(sent.heard->outcome, "none");
    EXPECT_EQ(sent.heard.use_count(), 1);
    sent.engine->offline();  // returns: the failed send is not under way any more
    pending.handle.reset();
    EXPECT_EQ(pending.heard->outcome, kCancelled);
    const CapturedLog log(LogLevel::warn);
    pending.engine.reset();
    sent.engine.reset();
    EXPECT_TRUE(log.has(LogLevel::warn, "transfer", "http delete session callback not set"));
    EXPECT_EQ(host.deletedSessions(), 0u);
}

TEST(HttpHook, OfflineKeepsRequestsHereAndWaitsForSendsUnderWay) {
    FakeHost host;
    Exchange refused(makeTransferEngine());
    TransferEngine& engine = *refused.engine;
    engine.offline();
    EXPECT_FALSE(refused.execute());
    EXPECT_EQ(refused.heard->outcome, "velmora_http_error:7");
    EXPECT_EQ(host.sends(), 0u);

    engine.online();
    std::promise<void> inSend;
    std::atomic<bool> isReturning = false;
    host.answerBy([&](const HostRequest& request) {
        if (request.url == "reentrant") {
            engine.offline();  // does not wait for the very call that it is in
            engine.online();
            return Answer{};
        }
        inSend.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        isReturning = true;
        return Answer{};
    });
    Exchange reentrant(refused.engine, {.url = "reentrant", .verb = http::Verb::GET, .headers = {}, .body = {}});
    EXPECT_TRUE(reentrant.execute());
    Exchange slow(refused.engine);
    std::thread sender([&] { slow.execute(); });
    inSend.get_future().wait();
    engine.offline();
    EXPECT_TRUE(isReturning);
    sender.join();
    EXPECT_EQ(slow.outcome(), kSuccess);
}

TEST(Notifications, ContextsThatAreNotValidAreRefused) {
    const CapturedLog log(LogLevel::error);
    ScriptedHost host;
    Exchange sent(makeTransferEngine(), {.url = "u", .verb = http::Verb::POST, .headers = {}, .body = "body"});
    sent.execute();
    uint64_t length = 99;
    int otherSession = 0;
    void* const context = host.contexts.at(0);
    EXPECT_EQ(velmora_http_onRequestBodyLength(&host, &length, nullptr), 0);
    EXPECT_EQ(velmora_http_onRequestBodyLength(&otherSession, &length, context), 0);
    EXPECT_EQ(length, 99u);
    EXPECT_EQ(velmora_http_onRequestBodyLength(&host, &length, context), 0);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(host.status(200), 0);
    EXPECT_EQ(host.complete(), 0);
    EXPECT_EQ(host.complete(VELMORA_HTTP_RETRIABLE), 0);
    EXPECT_EQ(sent.outcome(), kSuccess);
    EXPECT_EQ(log.messages("transfer"),
              (std::vector<std::string>{"No context!", "Mismatch in session", "No context!"}));
}

TEST(Notifications, HeadersAreCopiedIfTheyFit) {
    ScriptedHost host;
    Exchange sent(makeTransferEngine(), {.url = "u",
                                         .verb = http::Verb::GET,
                                         .headers = {{"a", std::string(8191, 'v')},
                                                     {"b", std::string(8192, 'v')},
                                                     {std::string(1023, 'k'), "1"},
                                                     {std::string(1024, 'l'), "2"}},
                                         .body = {}});
    sent.execute();
    std::vector<velmora_http_header> buffer(4);
    uint32_t count = 99;
    EXPECT_EQ(velmora_http_onRequestHeaders(&host, buffer.data(), 3, &count, host.contexts.at(0)), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(velmora_http_onRequestHeaders(&host, buffer.data(), 4, &count, host.contexts.at(0)), 0);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(std::string(buffer[0].value), std::string(8191, 'v'));
    EXPECT_EQ(std::string(buffer[1].key), std::string(1023, 'k'));
    host.complete();
}

TEST(Notifications, RequestsThatShareAnIdAreCompletedEachByItsOwnContext) {
    ScriptedHost host;
    const auto engine = makeTransferEngine();
    Exchange first(engine);
    Exchange second(engine);
    first.execute();
    second.execute();
    host.status(200, 1);
    host.complete(VELMORA_HTTP_OK, 1);
    EXPECT_EQ(second.outcome(), kSuccess);
    EXPECT_EQ(first.heard->outcome, "none");
    host.status(200, 0);
    host.complete(VELMORA_HTTP_OK, 0);
    EXPECT_EQ(first.outcome(), kSuccess);
}

// The outcome is told within a notification, so a responder that takes its time holds the engine's end back.
TEST(Notifications, AnEngineEndsOnceTheHostHasLeftAndCancelsWhatIsStillWithIt) {
    ScriptedHost host;
    auto engine = makeTransferEngine();
    std::promise<void> isInside;
    std::atomic<bool> isLeaving = false;
    const auto slow = std::make_unique<RequestHandle>(engine, http::Request{}, [&](const http::Response&) {
        isInside.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // for the engine's end to come first
        isLeaving = true;
    });
    std::error_code error;
    ASSERT_TRUE(slow->execute(error));
    Exchange pending(engine);
    ASSERT_TRUE(pending.execute());
    static std::atomic<bool> isDeleted = false;
    velmora_http_setDeleteSessionCallback([](void*) { isDeleted = true; });
    std::thread notifier([&] { host.complete(); });
    isInside.get_future().wait();
    pending.engine.reset();
    EXPECT_FALSE(isDeleted);
    engine.reset();
    EXPECT_TRUE(isLeaving);
    EXPECT_TRUE(isDeleted);
    notifier.join();
    EXPECT_EQ(pending.outcome(), kCancelled);
    EXPECT_EQ(host.complete(VELMORA_HTTP_OK, 1), 0);
    EXPECT_EQ(pending.outcome(), kCancelled);
}

// Several host threads answer while handles are waited for or dropped.
TEST(HttpHookRace, EveryRequestHasItsOutcomeWhenItsHandleHasGone) {
    constexpr int kRounds = 600;
    FakeHost host(2);
    std::atomic<unsigned> counter = 0;
    host.answerBy([&](const HostRequest&) {
        const unsigned n = ++counter;
        Answer answer = n % 5 == 0 ? Answer::failure(VELMORA_HTTP_RETRIABLE) : Answer{.body = "body"};
        if (n % 7 == 0) answer.where = Answer::Where::withinSend;
        if (n % 11 == 0) answer.completions = 2;
        if (n % 13 == 0) answer.sendResult = VELMORA_HTTP_NON_RETRIABLE;
        return answer;
    });
    constexpr OnCancel kBehaviours[] = {OnCancel::complete, OnCancel::silent, OnCancel::unknown, OnCancel::ignored};
    const auto engine = makeTransferEngine();
    const auto send = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int round = 0; round < kRounds; ++round) {
            host.onCancel(kBehaviours[random() % 4]);
            Exchange sent(engine);
            sent.execute();
            if (random() % 3 == 0) sent.handle->waitForCompletion();
            for (auto spin = random() % 3000; spin > 0; --spin) std::atomic_signal_fence(std::memory_order_seq_cst);
            sent.handle.reset();
            EXPECT_TRUE(sent.heard->outcome == kSuccess || sent.heard->outcome == kCancelled ||
                        sent.heard->outcome == "velmora_http_error:5" || sent.heard->outcome == "velmora_http_error:6")
                << sent.heard->outcome;
        }
    };
    std::thread other(send, 1);
    send(2);
    other.join();
}

}  // namespace
}  // namespace velmora::transfer
