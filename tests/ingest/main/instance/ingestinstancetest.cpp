#include "ingest/main/instance/ingestinstance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "core/crypt/crypt.h"
#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/store/eventstore.h"
#include "ingest/main/instance/healthcheck.h"
#include "tests/support/capturedlog.h"
#include "tests/support/codeof.h"
#include "tests/support/fakehost.h"
#include "tests/support/fakesession.h"
#include "tests/support/manualpools.h"
#include "tests/support/tempfolder.h"

namespace velmora {
namespace {

class InstanceTest : public testing::Test {
protected:
    InstanceTest() { Filesystem::setRootPath(Path(root_.path())); }

    void start() { instance_ = makeIngestInstance(session_, nullptr, "guid", "{}", nullptr); }

    // Of one subtype for each of the three lines that are sent.
    void submitOneOfEach() {
        instance_->submitMetaEvent(R"({"event.subtype":"of-meta"})");
        instance_->submitEvent(R"({"event.subtype":"of-anon"})", true, false, VELMORA_VALIDATE_NONE, "{}");
        instance_->submitEvent(R"({"event.subtype":"of-auth"})", true, true, VELMORA_VALIDATE_NONE, "{}");
    }

    int flush() {
        return test::codeOf([this] { instance_->flush(nullptr, nullptr); }).value();
    }

    uint64_t stored(PipelineKind kind) {
        const Path folder = Filesystem::getDataFolder(false) / "guid" / "v1" / "0" / storeFolderName(kind);
        return EventStore(folder, nullptr, {"main", 10485760, 104857600, 31536000000}).size();
    }

    const Crypt first_{""};  // the cipher's library comes up before the pools, to end after their threads
    test::CapturedLog log_{LogLevel::error};
    test::TempFolder root_;
    test::FakeHost host_;
    test::FakeSession session_;
    std::shared_ptr<IngestInstance> instance_;
};

using InstanceFlush = InstanceTest;

TEST_F(InstanceFlush, ReportsTheAuthLineBeforeTheAnonLineBeforeTheMetaLine) {
    start();
    ASSERT_TRUE(host_.waitUntil([&] { return flush() == 0; })) << "once its lines are on";
    const struct {
        std::vector<std::string> failing;
        int result;
    } rows[] = {
        {{"of-meta"}, 400},
        {{"of-meta", "of-anon"}, 401},
        {{"of-meta", "of-auth"}, 404},
        {{"of-anon", "of-auth"}, 404},
        {{}, 0},
    };
    for (const auto& row : rows) {
        submitOneOfEach();
        host_.answerBy([&row](const test::HostRequest& request) -> test::Answer {
            const std::pair<const char*, uint32_t> statuses[] = {{"of-meta", 400}, {"of-anon", 401}, {"of-auth", 404}};
            for (const auto& [subtype, status] : statuses) {
                const bool fails = std::count(row.failing.begin(), row.failing.end(), subtype) != 0;
                if (fails && request.text().find(subtype) != std::string::npos) return {.status = status};
            }
            return {};
        });
        EXPECT_EQ(flush(), row.result);
    }
}

TEST_F(InstanceTest, ARefreshActsBeforeItReturns) {
    start();
    submitOneOfEach();
    session_.authState = PipelineState::Off;
    instance_->refresh();
    EXPECT_EQ(test::codeOf([&] { instance_->submitEvent("{}", true, true, VELMORA_VALIDATE_NONE, "{}"); }),
              VelmoraError::opt_out);
}

using InstanceStop = InstanceTest;

TEST_F(InstanceStop, AFlushThatCannotBeDoneIsLoggedAndKeepsEverything) {
    session_.config.flushOnStopEnabled = true;
    start();
    ASSERT_TRUE(host_.waitUntil([&] { return flush() == 0; }));
    submitOneOfEach();
    const size_t sends = host_.sends();
    log_.clear();
    instance_.reset();
    EXPECT_EQ(host_.sends(), sends);
    EXPECT_EQ(log_.count("flush failed for name=mainwith code=18 error="), 3U);
    EXPECT_EQ(stored(PipelineKind::meta), 3U) << "the event, the last heartbeat and the exit event";
    EXPECT_EQ(stored(PipelineKind::anon), 1U);
    EXPECT_EQ(stored(PipelineKind::auth), 1U);
}

TEST_F(InstanceStop, EndsTheFlushUnderWayAndTellsThoseWhoseTurnNeverCame) {
    start();
    ASSERT_TRUE(host_.waitUntil([&] { return flush() == 0; }));
    for (const test::OnCancel behaviour : {test::OnCancel::complete, test::OnCancel::ignored}) {
        if (!instance_) start();
        ASSERT_TRUE(host_.waitUntil([&] { return flush() == 0; }));
        host_.hold();
        host_.onCancel(behaviour);
        const size_t sends = host_.sends();
        instance_->submitMetaEvent("{}");
        std::vector<int32_t> told;
        for (int i = 0; i < 2; ++i) {
            instance_->flush([](velmora_ingest_instance, int32_t result,
                                void* list) { static_cast<std::vector<int32_t>*>(list)->push_back(result); },
                             &told);
        }
        ASSERT_TRUE(host_.waitForRequests(sends + 1));
        instance_->beginStop();
        instance_->updateState();  // asks for On, in vain
        instance_.reset();
        ASSERT_EQ(told.size(), 2U);
        EXPECT_EQ(told[0], VELMORA_ERROR_PRECONDITION_FAILED);
        EXPECT_TRUE(told[1] == VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND || told[1] == VELMORA_ERROR_PRECONDITION_FAILED);
        host_.onCancel(test::OnCancel::complete);
        host_.release();
    }
}

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
