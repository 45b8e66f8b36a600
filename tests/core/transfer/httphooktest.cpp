#include <gtest/gtest.h>

#include <future>
#include <random>
#include <thread>
#include <vector>

#include "core/transfer/executor.h"
#include "core/transfer/transferengine.h"
#include "core/transfer/transferresponder.h"
#include "tests/core/transfer/recordingresponder.h"
#include "tests/support/capturedlog.h"
#include "tests/support/fakehost.h"

namespace velmora::transfer {
namespace {

using test::Answer;
using test::CapturedLog;
using test::FakeHost;
using test::HostRequest;
using test::OnCancel;
using test::RecordingResponder;

constexpr const char* kSuccess = "success";
constexpr const char* kCancelled = "velmora_http_error:4";

struct Sent {
    bool execute(http::Request request = {}) {
        handle = ExecutorImpl(engine).createContext(std::move(request), responder);
        return ExecutorImpl(engine).execute(handle, error);
    }
    std::string outcome() {
        handle->waitForCompletion();
        return responder->outcome();
    }

    std::shared_ptr<TransferEngine> engine;
    std::shared_ptr<RecordingResponder> responder = std::make_shared<RecordingResponder>();
    std::shared_ptr<RequestHandle> handle = nullptr;
    std::error_code error = {};
};

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
    Sent sent{engine};
    ASSERT_TRUE(sent.execute(request));
    EXPECT_EQ(sent.outcome(), kSuccess);
    EXPECT_EQ(sent.responder->response().status, 201);
    EXPECT_EQ(sent.responder->response().body, "helloworld");
    EXPECT_EQ(sent.responder->response().headers.at("x-REQUEST-id"), "18");

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
    const auto engine = makeTransferEngine();
    std::string hint;
    engine->setErrorCallback(
        [&](std::error_code error, const std::string& message) { hint = toString(error) + " " + message; });
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        hint.clear();
        host.answer(row.answer);
        Sent sent{engine};
        EXPECT_EQ(sent.execute(), row.isTaken);
        EXPECT_EQ(sent.outcome(), row.outcome);
        const size_t id = host.sends();
        EXPECT_TRUE(!row.isTaken || host.waitUntil([&] { return host.requests()[id - 1].completed; }));
        EXPECT_EQ(hint, row.hint);
        sent.handle.reset();
        EXPECT_EQ(sent.responder->outcome(), row.outcome);
        EXPECT_EQ(sent.responder.use_count(), 1);
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
        Sent sent{engine};
        ASSERT_TRUE(sent.execute());
        std::thread late([&] {
            host.waitUntil([&] { return host.cancels() == 1; });
            host.release();
        });
        sent.handle.reset();
        late.join();
        EXPECT_EQ(sent.responder->outcome(), row.outcome);
        if (row.isCompletedByHost) {
            EXPECT_TRUE(host.waitForCompletions(1));
        }
        EXPECT_TRUE(row.behaviour != OnCancel::unknown || sent.responder.use_count() == 1);
        engine.reset();
        sent.engine.reset();
        EXPECT_EQ(host.deletedSessions(), 1u);
        EXPECT_EQ(sent.responder->outcome(), row.outcome);
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
    Sent sent{makeTransferEngine()};
    host.hold();
    Sent pending{sent.engine};
    ASSERT_TRUE(pending.execute());
    velmora_http_setSendRequestCallback(nullptr);
    velmora_http_setCancelRequestCallback(nullptr);
    velmora_http_setDeleteSessionCallback(nullptr);
    EXPECT_EQ(codeOf([&] { sent.execute(); }),
              "velmora_error:7 http send request callback not set: http_callback_not_set");
    sent.handle.reset();
    EXPECT_EQ(sent.responder->outcome(), "none");
    EXPECT_EQ(sent.responder.use_count(), 1);
    sent.engine->offline();  // returns: the failed send is not under way any more
    pending.handle.reset();
    EXPECT_EQ(pending.responder->outcome(), kCancelled);
    const CapturedLog log(LogLevel::warn);
    pending.engine.reset();
    sent.engine.reset();
    EXPECT_TRUE(log.has(LogLevel::warn, "transfer", "http delete session callback not set"));
    EXPECT_EQ(host.deletedSessions(), 0u);
}

TEST(HttpHook, OfflineKeepsRequestsHereAndWaitsForSendsUnderWay) {
    FakeHost host;
    Sent refused{makeTransferEngine()};
    TransferEngine& engine = *refused.engine;
    engine.offline();
    EXPECT_FALSE(refused.execute());
    EXPECT_EQ(refused.responder->outcome(), "velmora_http_error:7");
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
    Sent reentrant{refused.engine};
    EXPECT_TRUE(reentrant.execute({.url = "reentrant", .verb = http::Verb::GET, .headers = {}, .body = {}}));
    Sent slow{refused.engine};
    std::thread sender([&] { slow.execute(); });
    inSend.get_future().wait();
    engine.offline();
    EXPECT_TRUE(isReturning);
    sender.join();
    EXPECT_EQ(slow.outcome(), kSuccess);
}

// The notifications one by one, under a host that keeps each context.
struct ContextHost {
    std::vector<void*> contexts;
    uint32_t id = 1;  // the same for every request
    int session = 0;
};

class Notifications : public ::testing::Test {
protected:
    Notifications() {
        host_ = {};
        velmora_http_setNewSessionCallback([]() -> void* { return &host_.session; });
        velmora_http_setDeleteSessionCallback([](void*) {});
        velmora_http_setSendRequestCallback([](void*, int32_t, const char*, int32_t, void* context, uint32_t* id) {
            host_.contexts.push_back(context);
            *id = host_.id;
            return int32_t{0};
        });
        velmora_http_setCancelRequestCallback([](void*, uint32_t) { return int32_t{VELMORA_HTTP_INVALID_INPUT}; });
        engine_ = makeTransferEngine();
    }

    static int32_t complete(void* context, uint32_t result = VELMORA_HTTP_OK) {
        return velmora_http_onCompletion(&host_.session, result, nullptr, context);
    }

    static inline ContextHost host_;
    std::shared_ptr<TransferEngine> engine_;
};

TEST_F(Notifications, ContextsThatAreNotValidAreRefused) {
    const CapturedLog log(LogLevel::error);
    Sent sent{engine_};
    sent.execute({.url = "u", .verb = http::Verb::POST, .headers = {}, .body = "body"});
    uint64_t length = 99;
    int otherSession = 0;
    void* const context = host_.contexts.at(0);
    EXPECT_EQ(velmora_http_onRequestBodyLength(&host_.session, &length, nullptr), 0);
    EXPECT_EQ(velmora_http_onRequestBodyLength(&otherSession, &length, context), 0);
    EXPECT_EQ(length, 99u);
    EXPECT_EQ(velmora_http_onRequestBodyLength(&host_.session, &length, context), 0);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(complete(context), 0);
    EXPECT_EQ(complete(context, VELMORA_HTTP_RETRIABLE), 0);
    EXPECT_EQ(sent.outcome(), kSuccess);
    EXPECT_EQ(log.messages("transfer"),
              (std::vector<std::string>{"No context!", "Mismatch in session", "No context!"}));
}

TEST_F(Notifications, HeadersAreCopiedIfTheyFit) {
    Sent sent{engine_};
    sent.execute({.url = "u",
                  .verb = http::Verb::GET,
                  .headers = {{"a", std::string(8191, 'v')},
                              {"b", std::string(8192, 'v')},
                              {std::string(1023, 'k'), "1"},
                              {std::string(1024, 'l'), "2"}},
                  .body = {}});
    std::vector<velmora_http_header> buffer(4);
    uint32_t count = 99;
    EXPECT_EQ(velmora_http_onRequestHeaders(&host_.session, buffer.data(), 3, &count, host_.contexts.at(0)), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(velmora_http_onRequestHeaders(&host_.session, buffer.data(), 4, &count, host_.contexts.at(0)), 0);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(std::string(buffer[0].value), std::string(8191, 'v'));
    EXPECT_EQ(std::string(buffer[1].key), std::string(1023, 'k'));
    complete(host_.contexts.at(0));
}

TEST_F(Notifications, RequestsThatShareAnIdAreCompletedEachByItsOwnContext) {
    Sent first{engine_};
    Sent second{engine_};
    first.execute();
    second.execute();
    complete(host_.contexts.at(1));
    EXPECT_EQ(second.outcome(), kSuccess);
    EXPECT_EQ(first.responder->outcome(), "none");
    complete(host_.contexts.at(0));
    EXPECT_EQ(first.outcome(), kSuccess);
}

TEST_F(Notifications, TheEngineEndsOnItsOwnersThreadOnceTheHostHasLeft) {
    struct Slow : RecordingResponder {
        void setStatus(int) override {
            isInside.set_value();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));  // for the engine's end to come first
            isLeaving = true;
        }
        std::promise<void> isInside;
        std::atomic<bool> isLeaving = false;
    };
    const auto responder = std::make_shared<Slow>();
    const auto handle = ExecutorImpl(engine_).createContext({}, responder);
    std::error_code error;
    ASSERT_TRUE(ExecutorImpl(engine_).execute(handle, error));
    static std::thread::id ender;
    velmora_http_setDeleteSessionCallback([](void*) { ender = std::this_thread::get_id(); });
    std::thread notifier(
        [] { velmora_http_onResponseStatus(&host_.session, nullptr, 200, nullptr, host_.contexts.at(0)); });
    responder->isInside.get_future().wait();
    engine_.reset();
    EXPECT_TRUE(responder->isLeaving);
    EXPECT_EQ(ender, std::this_thread::get_id());
    notifier.join();
    EXPECT_EQ(responder->outcome(), kCancelled);
}

TEST_F(Notifications, AnErrorCallbackRunsNoMoreOnceItHasBeenExchanged) {
    std::promise<void> isInside;
    std::atomic<bool> isLeaving = false;
    engine_->setErrorCallback([&](std::error_code, const std::string&) {
        isInside.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        isLeaving = true;
    });
    Sent sent{engine_};
    sent.execute();
    std::thread notifier([] { complete(host_.contexts.at(0), VELMORA_HTTP_RETRIABLE); });
    isInside.get_future().wait();
    engine_->setErrorCallback(nullptr);
    EXPECT_TRUE(isLeaving);
    notifier.join();
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
            Sent sent{engine};
            sent.execute();
            if (random() % 3 == 0) sent.handle->waitForCompletion();
            for (auto spin = random() % 3000; spin > 0; --spin) std::atomic_signal_fence(std::memory_order_seq_cst);
            sent.handle.reset();
            EXPECT_TRUE(sent.responder->outcome() == kSuccess || sent.responder->outcome() == kCancelled ||
                        sent.responder->outcome() == "velmora_http_error:5" ||
                        sent.responder->outcome() == "velmora_http_error:6")
                << sent.responder->outcome();
        }
    };
    std::thread other(send, 1);
    send(2);
    other.join();
}

}  // namespace
}  // namespace velmora::transfer
