#include "ingest/main/delivery/pipeline.h"

#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "core/json/jsontext.h"
#include "core/platform/randomaccessfile.h"
#include "core/queue/circularqueueheader.h"
#include "core/types/errors.h"
#include "core/utils/gate.h"
#include "tests/support/capturedlog.h"
#include "tests/support/codeof.h"
#include "tests/support/fakehost.h"
#include "tests/support/fakesession.h"
#include "tests/support/manualpools.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using debug::Action;
using debug::Item;
using debug::Reason;
using test::Answer;
using test::FakeHost;

std::string event(int i) { return "{\"data\":{\"n\":" + std::to_string(i) + "}}"; }

std::string batchOf(int from, int to) {
    std::string body = "{\"events\":[";
    for (int i = from; i < to; ++i) body += (i == from ? "\n" : ",\n") + event(i);
    return body + "\n]}";
}

class PipelineTest : public testing::Test {
protected:
    using Report = std::tuple<PipelineKind, Item, Action, Reason>;

    PipelineTest() {
        session_.config.batchSize = 3;
        session_.config.batchInterval = 30000;
        provider_ = std::make_unique<IngestConfigProvider>(
            "guid", [this](const std::string&) { return session_.config; }, nullptr);
    }

    ~PipelineTest() override {
        host_.release();
        close();
    }

    void reconfigure(const std::function<void(service::config::ingest::Config&)>& change) {
        change(session_.config);
        provider_->refresh();
    }

    Pipeline& open(PipelineKind kind = PipelineKind::anon, bool adopted = false) {
        pipeline_.reset();
        const Path folder = Path(folder_.path()) / "7" / storeFolderName(kind);
        pipeline_ = std::make_unique<Pipeline>(session_, *provider_, folder, DropCallback(), "main", kind, adopted);
        pipeline_->setBatchAttributes([](std::string& text, bool) { return validJSON(text); });
        pipeline_->setDebugCallback(
            [this](const std::string& name, PipelineKind k, Item i, Action a, Reason r, uint64_t count) {
                EXPECT_EQ(name, "7");
                counts_[{k, i, a, r}] += count;
            });
        pipeline_->setBatchErrorCallback([this](const std::error_code& error, const auto& events) {
            GivenUp given{error, {}, {}};
            for (const auto& event : events) {
                if (!event.readable) given.invalid.push_back(event.text);
                if (event.readable && error) given.valid.push_back(event.text);
            }
            givenUp_.push_back(given);
            storedAtCall_ = pipeline_->size();
            return std::min<uint64_t>(taken_, events.size());
        });
        return *pipeline_;
    }

    void close() { pipeline_.reset(); }

    void submit(int from, int to) {
        for (int i = from; i < to; ++i) pipeline_->submitEvent(event(i), true);
    }

    // Runs tasks until the condition holds; answers of the host come from its own threads meanwhile.
    bool drive(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + test::kPatience;
        while (std::chrono::steady_clock::now() < deadline) {
            pools_.runAll();
            if (condition()) return true;
            std::this_thread::sleep_for(1ms);
        }
        return false;
    }

    bool driveToSends(size_t count) {
        return drive([=, this] { return host_.sends() >= count; }) && host_.waitForRequests(count);
    }

    bool driveToCompletions(size_t count) {
        const bool completed = drive([=, this] { return host_.waitForCompletions(count, 0ms); });
        pools_.runAll();
        return completed;
    }

    std::string sent(size_t index) { return host_.requests().at(index).text(); }
    uint64_t counted(Item item, Action action, Reason reason, PipelineKind kind = PipelineKind::anon) {
        return counts_[{kind, item, action, reason}];
    }

    struct GivenUp {
        std::error_code error;
        std::vector<std::string> valid;
        std::vector<std::string> invalid;
    };

    // Makes the first record of every stored part unreadable.
    void damageStore() {
        for (const auto& entry : boost::filesystem::recursive_directory_iterator(folder_.path())) {
            if (!is_regular_file(entry.path()) || entry.path().filename() == "manifest") continue;
            const uint32_t length = 0xFFFFFFFF;
            ASSERT_TRUE(platform::openSystemFile(entry.path(), false)->write(kQueueHeaderSize, &length, sizeof length));
        }
    }

    std::error_code flush() {
        const auto flushed = pipeline_->flush();
        pools_.runAll();
        return *flushed.get_try();
    }

    test::CapturedLog log_;
    test::TempFolder folder_;
    test::ManualPools pools_;
    FakeHost host_;
    test::FakeSession session_;
    std::unique_ptr<IngestConfigProvider> provider_;
    std::map<Report, uint64_t> counts_;
    std::vector<GivenUp> givenUp_;
    uint64_t taken_ = 1000;  // of what is given up, at most
    uint64_t storedAtCall_ = 0;
    std::unique_ptr<Pipeline> pipeline_;
};

using PipelineBatches = PipelineTest;

TEST_F(PipelineBatches, GoOutWhenFullOrAtTheIntervalAndLeaveTheStoreAfterTheAnswer) {
    open().changeState(PipelineState::On);
    host_.hold();
    submit(0, 2);
    pools_.runAll();
    EXPECT_EQ(host_.sends(), 0U) << "not full yet";
    submit(2, 4);
    ASSERT_TRUE(driveToSends(1));
    EXPECT_EQ(sent(0), batchOf(0, 3));
    const test::HostRequest request = host_.requests().at(0);
    EXPECT_EQ(request.verb, VELMORA_HTTP_POST);
    EXPECT_EQ(request.headers.at("x-api-key"), "unknown-api-key");
    EXPECT_EQ(pipeline_->size(), 4U) << "not before the answer";
    host_.release();
    ASSERT_TRUE(drive([&] { return pipeline_->size() == 1; }));
    pools_.advance(30000ms);
    ASSERT_TRUE(driveToCompletions(2));
    EXPECT_EQ(sent(1), batchOf(3, 4));
    EXPECT_EQ(pipeline_->size(), 0U);
    EXPECT_EQ(counted(Item::event, Action::sent, Reason::success), 4U);
    EXPECT_EQ(counted(Item::http, Action::request, Reason::success), 2U);
}

TEST_F(PipelineBatches, EndAtTheBoundaryOfAPartFile) {
    reconfigure([](auto& config) {
        config.batchSize = 50;
        config.encryptionEnabled = false;
        config.eventFileRotationSize = 40 * (event(10).size() + 4);
    });
    open();
    submit(10, 70);
    pipeline_->changeState(PipelineState::On);
    ASSERT_TRUE(driveToCompletions(1));
    EXPECT_EQ(sent(0), batchOf(10, 50));
    pools_.advance(30000ms);
    ASSERT_TRUE(driveToCompletions(2));
    EXPECT_EQ(sent(1), batchOf(50, 70));
}

TEST_F(PipelineBatches, LieEncipheredOnDiskAndPassOverRecordsThatCannotBeDeciphered) {
    reconfigure([](auto& config) { config.encryptionPassphrase = "another"; });
    open();
    submit(0, 2);
    close();
    reconfigure([](auto& config) {
        config.encryptionPassphrase = "cobalt";
        config.batchSize = 4;
    });
    open();
    EXPECT_EQ(pipeline_->size(), 2U) << "survives the line";
    submit(2, 4);
    pipeline_->changeState(PipelineState::On);
    ASSERT_TRUE(driveToCompletions(1));
    EXPECT_EQ(sent(0), batchOf(2, 4));
    ASSERT_EQ(givenUp_.size(), 1U);
    EXPECT_FALSE(givenUp_[0].error);
    EXPECT_TRUE(givenUp_[0].valid.empty());
    ASSERT_EQ(givenUp_[0].invalid.size(), 2U);
    EXPECT_EQ(givenUp_[0].invalid[0], Crypt("another").encrypt(event(0))) << "in stored form";
    EXPECT_EQ(pipeline_->size(), 0U);
    EXPECT_EQ(counted(Item::event, Action::sent, Reason::success), 2U);
}

// A batch that fails is popped as a whole, so it has to be handed over as a whole.
TEST_F(PipelineBatches, ThatCannotBeFormedAreHandedOverComplete) {
    const std::string undecipherable = Crypt("another").encrypt("x");
    open(PipelineKind::anon_invalid);
    pipeline_->setBatchAttributes(nullptr);
    for (const auto& record : {undecipherable, event(1), undecipherable}) pipeline_->submitEvent(record, true);
    pipeline_->changeState(PipelineState::On);
    pools_.runAll();
    ASSERT_EQ(givenUp_.size(), 1U);
    EXPECT_EQ(givenUp_[0].error, VelmoraError::unknown);
    EXPECT_EQ(givenUp_[0].valid, std::vector{event(1)});
    EXPECT_EQ(givenUp_[0].invalid, std::vector(2, undecipherable));
    EXPECT_EQ(storedAtCall_, 3U) << "nothing is popped before";
    EXPECT_EQ(pipeline_->size(), 0U);
    EXPECT_EQ(host_.sends(), 0U);
}

using PipelineStates = PipelineTest;

TEST_F(PipelineStates, SaveOnlyStoresOffRefusesAndOptOutDiscardsTheLinesOfTheUser) {
    for (const auto& [kind, discards] : {std::pair(PipelineKind::meta, false),
                                         {PipelineKind::auth_invalid, true},
                                         {PipelineKind::auth, true},
                                         {PipelineKind::anon_invalid, false},
                                         {PipelineKind::anon, false}}) {
        SCOPED_TRACE(pipelineKindToString(kind));
        open(kind);
        submit(0, 5);
        pipeline_->submitEvent("", true);
        EXPECT_EQ(pipeline_->size(), 5U);
        pipeline_->changeState(PipelineState::Off);
        pools_.runAll();
        EXPECT_EQ(pipeline_->size(), discards ? 0U : 5U);
        EXPECT_EQ(counted(Item::event, Action::discarded, Reason::opt_out, kind), discards ? 5U : 0U);
        EXPECT_EQ(test::codeOf([&] { pipeline_->submitEvent(event(9), true); }), VelmoraError::opt_out);
        pipeline_->changeState(PipelineState::SaveOnly);
        pipeline_->submitEvent(event(9), false);
        EXPECT_EQ(pipeline_->size(), discards ? 1U : 6U);
        EXPECT_EQ(host_.sends(), 0U);
    }
}

TEST_F(PipelineStates, LeavingOnForgetsTheBatchOnTheWireAndItsLateAnswerPopsNothing) {
    open().changeState(PipelineState::On);
    host_.hold();
    host_.onCancel(test::OnCancel::ignored);
    submit(0, 3);
    ASSERT_TRUE(driveToSends(1));
    pipeline_->changeState(PipelineState::SaveOnly);
    host_.release(1);
    ASSERT_TRUE(driveToCompletions(1));
    EXPECT_EQ(pipeline_->size(), 3U) << "the answer comes too late";
    submit(3, 4);
    pipeline_->changeState(PipelineState::On);
    ASSERT_TRUE(driveToSends(2));
    host_.release();
    ASSERT_TRUE(drive([&] { return pipeline_->size() == 1; }));
    EXPECT_EQ(sent(1), batchOf(0, 3)) << "sent again, since nobody knows";
}

TEST_F(PipelineStates, AnAnswerOfAnEarlierBatchDoesNotCountForTheNext) {
    open().changeState(PipelineState::On);
    host_.hold();
    submit(0, 3);
    ASSERT_TRUE(driveToSends(1));
    // The state comes back before anything has noticed that it was gone; the new batch cancels the old exchange.
    pipeline_->changeState(PipelineState::SaveOnly);
    pipeline_->changeState(PipelineState::On);
    ASSERT_TRUE(driveToSends(2));
    ASSERT_TRUE(drive([&] { return host_.cancels() == 1; }));
    pools_.runAll();
    EXPECT_EQ(pipeline_->size(), 3U);
    EXPECT_TRUE(givenUp_.empty());
    EXPECT_EQ(counted(Item::http, Action::request, Reason::error), 0U);
    host_.release();
    ASSERT_TRUE(drive([&] { return pipeline_->size() == 0; }));
}

TEST_F(PipelineStates, NoEventOfTheUserOutlivesAnOptOutThatRacesItsSubmit) {
    open(PipelineKind::auth);
    for (int round = 0; round < 300; ++round) {
        std::thread submitter([&] {
            while (!test::codeOf([&] { pipeline_->submitEvent(event(round), true); })) continue;
        });
        while (pipeline_->size() < 2) std::this_thread::yield();
        pipeline_->changeState(PipelineState::Off);
        pools_.runAll();
        submitter.join();
        ASSERT_EQ(pipeline_->size(), 0U) << round;
        pipeline_->changeState(PipelineState::SaveOnly);
    }
}

TEST_F(PipelineStates, ALineOfAnAdoptedFolderWaitsForNoFullBatch) {
    open();
    submit(0, 4);
    open(PipelineKind::anon, true).changeState(PipelineState::On);
    ASSERT_TRUE(drive([&] { return pipeline_->size() == 0; }));
    EXPECT_EQ(sent(1), batchOf(3, 4)) << "no full batch, and no interval";
}

using PipelineOutcomes = PipelineTest;

TEST_F(PipelineOutcomes, DecideByStatusWhetherABatchIsPoppedRetriedOrGivenUp) {
    enum class Fate { popped, retried, givenUp };
    const struct {
        const char* what;
        Answer answer;
        Fate fate;
    } rows[] = {
        {"ok", {.status = 200}, Fate::popped},
        {"no content", {.status = 204}, Fate::popped},
        {"bad request", {.status = 400}, Fate::givenUp},
        {"request timeout", {.status = 408}, Fate::retried},
        {"too many requests", {.status = 429}, Fate::retried},
        {"internal server error", {.status = 500}, Fate::retried},
        {"status 501, which is final", {.status = 501}, Fate::givenUp},
        {"bad gateway", {.status = 502}, Fate::retried},
        {"service unavailable", {.status = 503}, Fate::retried},
        {"gateway timeout", {.status = 504}, Fate::retried},
        {"insufficient storage", {.status = 507}, Fate::givenUp},
        {"transport, retriable", Answer::failure(VELMORA_HTTP_RETRIABLE), Fate::retried},
        {"transport, not retriable", Answer::failure(VELMORA_HTTP_NON_RETRIABLE), Fate::retried},
        {"cancelled by the host", Answer::failure(VELMORA_HTTP_CANCELLED), Fate::retried},
        {"refused by send", Answer::refusal(VELMORA_HTTP_UNKNOWN), Fate::retried},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        open();
        submit(0, 3);
        givenUp_.clear();
        const size_t before = host_.sends();
        const size_t timers = pools_.pendingTimers();
        host_.answer(row.answer);
        pipeline_->changeState(PipelineState::On);
        ASSERT_TRUE(drive([&] {
            return pipeline_->size() == 0 || pools_.pendingTimers() > timers + 1;  // beside the batch timer
        }));
        EXPECT_EQ(host_.sends(), before + 1);
        EXPECT_EQ(pipeline_->size(), row.fate == Fate::retried ? 3U : 0U);
        EXPECT_EQ(givenUp_.size(), row.fate == Fate::givenUp ? 1U : 0U);
        if (!givenUp_.empty()) {
            EXPECT_EQ(givenUp_[0].error.value(), static_cast<int>(row.answer.status));
            EXPECT_EQ(givenUp_[0].valid, (std::vector<std::string>{event(0), event(1), event(2)}));
        }
        pools_.advance(1000ms);
        const size_t expected = before + (row.fate == Fate::retried ? 2 : 1);
        ASSERT_TRUE(drive([&] { return host_.sends() == expected && pipeline_->size() == 0; }));
        close();
    }
}

TEST_F(PipelineOutcomes, RetriesWaitByTheListAndByRetryAfterAndSendTheSameBytes) {
    open().changeState(PipelineState::On);
    host_.answer({.status = 503});
    host_.answer({.status = 503, .headers = {{"Retry-After", "5"}}});
    host_.answer({.status = 503, .headers = {{"Retry-After", "1"}}});
    host_.answer({.status = 503});
    host_.answer({.status = 503, .headers = {{"Retry-After", "4"}}, .result = VELMORA_HTTP_RETRIABLE});  // broke then
    submit(0, 3);
    size_t sends = 1;
    ASSERT_TRUE(driveToCompletions(sends));
    submit(3, 7);  // neither joins nor goes ahead, though it fills a batch of its own
    for (const auto wait : {1000ms, 5000ms, 2000ms, 2000ms, 4000ms}) {
        SCOPED_TRACE(wait.count());
        pools_.advance(wait - 1ms);
        EXPECT_EQ(host_.sends(), sends);
        pools_.advance(1ms);
        ASSERT_TRUE(driveToCompletions(++sends));
    }
    ASSERT_TRUE(drive([&] { return pipeline_->size() == 1; }));
    for (size_t i = 1; i < sends; ++i) EXPECT_EQ(host_.requests()[i].body, host_.requests()[0].body);
    EXPECT_EQ(sent(sends), batchOf(3, 6));
    EXPECT_EQ(counted(Item::http, Action::request, Reason::error), 5U);
}

TEST_F(PipelineOutcomes, MissingCallbacksAreRetriedAndAnEmptyListOfWaitsStillWaits) {
    session_.retryIntervals.clear();
    open();
    velmora_http_setSendRequestCallback(nullptr);
    submit(0, 3);
    const size_t timers = pools_.pendingTimers();
    pipeline_->changeState(PipelineState::On);
    ASSERT_TRUE(drive([&] { return pools_.pendingTimers() > timers + 1; }));
    EXPECT_EQ(pipeline_->size(), 3U);
    EXPECT_TRUE(givenUp_.empty());
    EXPECT_EQ(flush(), VelmoraError::precondition_failed) << "a retry waits";
    EXPECT_EQ(pipeline_->size(), 3U);
    pipeline_->changeState(PipelineState::SaveOnly);
    pools_.advance(100000ms);
    EXPECT_EQ(host_.sends(), 0U) << "the retry went with the state";
}

TEST_F(PipelineOutcomes, ABatchThatFailsWhileTheLineIsStillBeingSwitchedOnIsRetried) {
    open().changeState(PipelineState::On);
    pipeline_->changeState(PipelineState::SaveOnly);
    submit(0, 3);
    velmora_http_setSendRequestCallback(nullptr);
    pools_.runAll();
    const size_t timers = pools_.pendingTimers();
    pools_.runAtOnce(true);
    pipeline_->changeState(PipelineState::On);
    pools_.runAtOnce(false);
    EXPECT_EQ(pools_.pendingTimers(), timers + 2) << "the batch timer and the retry";
}

TEST_F(PipelineOutcomes, ABatchFormedAnewAfterARetryWasCancelledTakesLaterEventsAlong) {
    open().changeState(PipelineState::On);
    host_.answer({.status = 503});
    submit(0, 2);
    pools_.advance(30000ms);
    ASSERT_TRUE(driveToCompletions(1));
    pipeline_->changeState(PipelineState::SaveOnly);
    submit(2, 3);
    pipeline_->changeState(PipelineState::On);
    ASSERT_TRUE(driveToCompletions(2));
    EXPECT_EQ(sent(1), batchOf(0, 3));
    EXPECT_EQ(pipeline_->size(), 0U);
}

TEST_F(PipelineOutcomes, DamageThatLeavesNothingToReadIsNotPosted) {
    open();
    submit(0, 3);
    damageStore();
    pipeline_->changeState(PipelineState::On);
    pools_.runAll();
    EXPECT_EQ(pipeline_->size(), 0U);
    EXPECT_EQ(host_.sends(), 0U);
    submit(3, 5);
    damageStore();
    EXPECT_FALSE(flush());
    EXPECT_EQ(host_.sends(), 0U);
    submit(5, 8);  // the line is free for them
    ASSERT_TRUE(driveToCompletions(1));
    EXPECT_EQ(sent(0), batchOf(5, 8));
    reconfigure([](auto& config) { config.batchSize = 0; });
    submit(8, 9);
    pools_.runAll();
    EXPECT_FALSE(flush()) << "ends, though it can read nothing";
}

// As on a full disk: what is not taken over keeps its place, and does not keep the line busy.
TEST_F(PipelineOutcomes, OnlyWhatTheOwnerTakesOverLeavesTheStoreAndTheRestWaitsForTheInterval) {
    open().changeState(PipelineState::On);
    host_.answerAll({.status = 400});
    taken_ = 1;
    submit(0, 6);
    ASSERT_TRUE(driveToCompletions(1));
    submit(6, 9);
    pools_.runAll();
    EXPECT_EQ(pipeline_->size(), 8U);
    EXPECT_EQ(host_.sends(), 1U) << "no batch before the interval";
    host_.answerAll({.status = 200});
    pools_.advance(30000ms);
    ASSERT_TRUE(drive([&] { return pipeline_->size() == 2; }));
    EXPECT_EQ(sent(1), batchOf(1, 4)) << "in their place";
    ASSERT_EQ(givenUp_.size(), 1U);
}

TEST_F(PipelineOutcomes, AreToldInTheLog) {
    open().changeState(PipelineState::On);
    host_.answer({.status = 400, .headers = {{"X-Request-Id", "r7"}}, .body = "no"});
    host_.answer(Answer::failure(VELMORA_HTTP_CANCELLED));
    host_.answer({.status = 200});
    host_.answer({.status = 500});
    pipeline_->submitEvent("", true);
    submit(0, 3);
    ASSERT_TRUE(driveToCompletions(1));
    submit(3, 6);
    ASSERT_TRUE(driveToCompletions(2));
    pools_.advance(1000ms);
    ASSERT_TRUE(driveToCompletions(3));
    submit(6, 7);
    EXPECT_EQ(flush().value(), 500);
    pipeline_->changeState(PipelineState::SaveOnly);
    close();
    std::vector<std::string> told;
    for (const test::LogLine& line : log_.lines()) {
        if (line.channel == "pipeline" && line.level <= LogLevel::info) told.push_back(line.message);
    }
    const std::vector<std::string> expected{
        "Open pipeline: num_events=0 name=main",
        "Change state: name=main state=On",
        "Skip empty event: name=main",
        "Http request: name=main",
        "Http response: name=main x-request-id=r7 status=400 BadRequest error=http_error:400 body=no",
        "name=main err=BadRequest",
        "Http request: name=main",
        "Http response: name=main x-request-id= status=0 None error=velmora_http_error:4 body=",
        "add retriable error=velmora_http_error:4",
        "Will retry request after 1000 milliseconds",
        "Http request: name=main",
        "Http response: name=main x-request-id= status=200 Ok",
        "flush iteration: name=main",
        "Http response: name=main x-request-id= status=500 InternalServerError error=http_error:500 body=",
        "flush failed for name=mainwith code=500 error=InternalServerError",
        "Change state: name=main state=SaveOnly",
        "Close pipeline: num_events=1 name=main",
    };
    EXPECT_EQ(told, expected);
    EXPECT_TRUE(log_.has(LogLevel::debug, "pipeline", "Submit event: name=main batch=1 payload=" + event(0)));
    EXPECT_TRUE(log_.has(LogLevel::debug, "pipeline", "Push: name=main"));
    EXPECT_TRUE(log_.has(LogLevel::debug, "pipeline", "Start batch-task: name=main"));
    EXPECT_TRUE(log_.has(LogLevel::debug, "pipeline", "Decrypted payload=" + event(0)));
    EXPECT_TRUE(log_.has(LogLevel::trace, "pipeline", "Reset state: name=main batchsize=3"));
    EXPECT_TRUE(log_.has(LogLevel::trace, "pipeline", "Network response: name=main"));
    EXPECT_TRUE(log_.has(LogLevel::trace, "pipeline", "Http request (sync): name=main"));
    EXPECT_TRUE(log_.has(LogLevel::trace, "pipeline", "Time to retry"));
}

using PipelineFlush = PipelineTest;

TEST_F(PipelineFlush, SendsAllBatchesAndReportsWhatStopsIt) {
    open();
    EXPECT_FALSE(flush()) << "nothing stored, nothing to complain about";
    submit(0, 8);
    EXPECT_EQ(flush(), VelmoraError::precondition_failed);

    reconfigure([](auto& config) { config.batchSize = 100; });
    pipeline_->changeState(PipelineState::On);
    reconfigure([](auto& config) { config.batchSize = 3; });
    host_.answer({.status = 200});
    host_.answer({.status = 500});
    EXPECT_EQ(flush().value(), 500);
    EXPECT_EQ(pipeline_->size(), 5U) << "the failed batch stays";
    EXPECT_TRUE(givenUp_.empty());

    EXPECT_FALSE(flush());
    EXPECT_EQ(pipeline_->size(), 0U);
    EXPECT_EQ(sent(3), batchOf(6, 8));
    EXPECT_EQ(counted(Item::event, Action::sent, Reason::success), 8U);

    submit(0, 2);
    velmora_http_setSendRequestCallback(nullptr);
    EXPECT_EQ(flush(), VelmoraError::http_callback_not_set);
    EXPECT_EQ(pipeline_->size(), 2U);
}

TEST_F(PipelineFlush, HandsOverWhatItCannotDecipherWithoutAnError) {
    reconfigure([](auto& config) {
        config.encryptionEnabled = false;
        config.batchSize = 100;
    });
    open();
    submit(0, 1);
    pipeline_->submitEvent("undecipherable", true);
    submit(1, 2);
    pipeline_->changeState(PipelineState::On);
    reconfigure([](auto& config) { config.batchSize = 2; });
    EXPECT_FALSE(flush());
    ASSERT_EQ(givenUp_.size(), 1U);
    EXPECT_FALSE(givenUp_[0].error);
    EXPECT_TRUE(givenUp_[0].valid.empty());
    EXPECT_EQ(givenUp_[0].invalid, std::vector<std::string>{"undecipherable"});
    EXPECT_EQ(counted(Item::event, Action::sent, Reason::success), 2U);
}

TEST_F(PipelineFlush, IsRefusedAfterABatchWasGivenUpUntilTheNextOneStarts) {
    open().changeState(PipelineState::On);
    host_.answer({.status = 400});
    submit(0, 3);
    ASSERT_TRUE(driveToCompletions(1));
    ASSERT_EQ(givenUp_.size(), 1U);
    EXPECT_EQ(flush(), VelmoraError::precondition_failed);
    submit(3, 6);
    ASSERT_TRUE(driveToCompletions(2));
    EXPECT_FALSE(flush());
}

TEST_F(PipelineFlush, DoesNotWaitForABatchThatFoundTheStoreEmptied) {
    open(PipelineKind::auth).changeState(PipelineState::On);
    submit(0, 3);
    pipeline_->changeState(PipelineState::Off);  // empties the store between the decisions and the batches
    pipeline_->changeState(PipelineState::On);
    pools_.runAll();
    submit(3, 7);
    pools_.runAll();
    EXPECT_EQ(pipeline_->size(), 4U) << "such a batch keeps others from starting";
    auto flushed = std::async(std::launch::async, [this] { return pipeline_->flush(); });
    EXPECT_EQ(flushed.wait_for(test::kPatience), std::future_status::ready);
    if (flushed.wait_for(0ms) != std::future_status::ready) pipeline_->changeState(PipelineState::SaveOnly);
    const auto result = flushed.get();
    pools_.runAll();
    EXPECT_FALSE(*result.get_try());
    EXPECT_EQ(pipeline_->size(), 0U);
    EXPECT_EQ(counted(Item::event, Action::discarded, Reason::opt_out, PipelineKind::auth), 3U);
}

using PipelineDirectPosts = PipelineTest;

TEST_F(PipelineDirectPosts, PassTheStoreUnlessTheyFail) {
    open().changeState(PipelineState::On);
    pipeline_->submitEvent(event(1), false);
    ASSERT_TRUE(driveToCompletions(1));
    EXPECT_EQ(sent(0), batchOf(1, 2));
    EXPECT_EQ(pipeline_->size(), 0U);
    EXPECT_EQ(counted(Item::event, Action::sent, Reason::success), 1U);
    host_.answer({.status = 400});
    pipeline_->submitEvent(event(2), false);
    ASSERT_TRUE(driveToCompletions(2));
    EXPECT_EQ(pipeline_->size(), 1U);
    EXPECT_EQ(counted(Item::event, Action::saved, Reason::success), 1U);
    velmora_http_setSendRequestCallback(nullptr);
    pipeline_->submitEvent(event(3), false);
    pools_.runAll();
    EXPECT_EQ(pipeline_->size(), 2U) << "an event that can't be handed over is kept";
}

TEST_F(PipelineDirectPosts, AreLimitedInNumberAndThoseThatCannotBeStoredAreCounted) {
    open().changeState(PipelineState::On);
    host_.hold();
    pipeline_->submitEvent(event(0), false);
    ASSERT_TRUE(driveToSends(1));
    boost::filesystem::remove_all(folder_.path());
    std::ofstream(folder_.path().string()) << "in the way";
    close();
    boost::filesystem::remove(folder_.path());
    EXPECT_EQ(counted(Item::event, Action::discarded, Reason::error), 1U);
    open().changeState(PipelineState::On);
    for (int i = 0; i < 66; ++i) pipeline_->submitEvent(event(i), false);
    ASSERT_TRUE(driveToSends(65));
    EXPECT_EQ(pipeline_->size(), 2U) << "beyond the limit";
}

TEST_F(PipelineDirectPosts, AreStoredWhenTheLineEndsBeforeTheAnswer) {
    open().changeState(PipelineState::On);
    host_.hold();
    pipeline_->submitEvent(event(1), false);
    ASSERT_TRUE(driveToSends(1));
    pipeline_->submitEvent(event(2), false);  // its task never runs
    close();
    open();
    EXPECT_EQ(pipeline_->size(), 2U);
}

TEST_F(PipelineDirectPosts, AreNeitherSentNorStoredOnceTheirUserHasOptedOut) {
    open(PipelineKind::auth).changeState(PipelineState::On);
    host_.hold();
    pipeline_->submitEvent(event(1), false);
    pipeline_->submitEvent(event(2), false);
    ASSERT_TRUE(driveToSends(2));
    pipeline_->submitEvent(event(3), false);  // waits for its turn
    pipeline_->changeState(PipelineState::Off);
    pools_.runAll();
    EXPECT_EQ(host_.sends(), 2U);
    EXPECT_EQ(counted(Item::event, Action::discarded, Reason::opt_out, PipelineKind::auth), 1U);
    pipeline_->changeState(PipelineState::SaveOnly);
    host_.answer({.status = 500});
    ASSERT_TRUE(host_.waitForRequests(2));
    host_.release(1);
    ASSERT_TRUE(driveToCompletions(1));
    close();
    open(PipelineKind::auth);
    EXPECT_EQ(pipeline_->size(), 0U);
}

}  // namespace
}  // namespace velmora
