#include <gtest/gtest.h>
#include <velmora/velmora.hpp>

#include <algorithm>
#include <atomic>
#include <future>

#include "core/crypt/crypt.h"
#include "core/filesystem/filesystem.h"
#include "core/json/jsontext.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/store/eventstore.h"
#include "tests/support/libraryfixture.h"

namespace velmora::test {
namespace {

using namespace std::chrono_literals;

const std::string kEvent =
    R"({"event.workflow":"Export","event.subcategory":"File","event.type":"click","event.subtype":"x1"})";

struct Completion {
    std::promise<std::pair<velmora_ingest_instance, int32_t>> promise;
    static void callback(velmora_ingest_instance instance, int32_t result, void* userData) {
        static_cast<Completion*>(userData)->promise.set_value({instance, result});
    }
};

using IngestEntry = LibraryTest;

TEST_F(IngestEntry, RefusesBadArgumentsWithOneMessageEach) {
    const auto handle = reinterpret_cast<velmora_ingest_instance>(0x10);
    const auto none = static_cast<velmora_ingest_instance>(nullptr);
    velmora_ingest_instance out = nullptr;
    const struct {
        std::function<int32_t()> call;
        int32_t result;
        const char* message;
    } rows[] = {
        {[&] { return velmora_ingest_start(nullptr, "{}", nullptr, &out); }, 4, "ingest start for config=(nullptr)"},
        {[&] { return velmora_ingest_start("g", "x", nullptr, nullptr); }, 4, "ingest start for pInstance=nullptr"},
        {[&] { return velmora_ingest_start("g", "x", nullptr, &out); }, 2, "ingest start for commonData=x"},
        {[&] { return velmora_ingest_stop(none); }, 4, "stop for instance=0"},
        {[&] { return velmora_ingest_stop_v2(none, Completion::callback, nullptr); }, 4, "stop for instance=0"},
        {[&] { return velmora_ingest_flush(none, nullptr, nullptr); }, 4, "flush for instance=0"},
        {[&] { return velmora_ingest_removeCommonAttribute(none, "k"); }, 4, "remove common attribute for instance=0"},
        {[&] { return velmora_ingest_removeCommonAttribute(handle, ""); }, 4, "remove common attribute for key="},
        {[&] { return velmora_ingest_addCommonAttribute(none, "k", "v"); }, 4, "add common attribute for instance=0"},
        {[&] { return velmora_ingest_addCommonAttribute(handle, nullptr, "v"); }, 4,
         "add common attribute for key=(nullptr)"},
        {[&] { return velmora_ingest_addCommonAttribute(handle, "k", ""); }, 4, "add common attribute for value="},
        {[&] { return velmora_ingest_submitEvent(none, "{}", 1, 0, 0); }, 4, "submitEvent for instance=(nullptr)"},
        {[&] { return velmora_ingest_submitAuthEvent(handle, nullptr, 1); }, 4, "submitEvent with json=(nullptr)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        log_.clear();
        EXPECT_EQ(row.call(), row.result);
        EXPECT_TRUE(log_.has(LogLevel::error, "api", row.message))
            << (log_.messages("api").empty() ? "" : log_.messages("api")[0]);
    }
    for (const auto& dead :
         {velmora_ingest_stop(handle), velmora_ingest_flush(handle, nullptr, nullptr),
          velmora_ingest_submitAnonEvent(handle, "", 1), velmora_ingest_addCommonAttribute(handle, "k", "v"),
          velmora_ingest_removeCommonAttribute(handle, "k")}) {
        EXPECT_EQ(dead, VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND);
    }
}

TEST_F(IngestEntry, HandlesLiveUntilTheirStopAndOneGuidIsOneInstance) {
    const auto first = start();
    EXPECT_EQ(start(kGuid, "{\"ignored\":\"yes\"}"), first);
    const auto other = start("another-guid");
    EXPECT_NE(other, first);
    stop(first);
    EXPECT_EQ(velmora_ingest_stop(first), VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND);
    EXPECT_EQ(submit(first, kEvent), VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND);
    Completion unknown;
    EXPECT_EQ(velmora_ingest_stop_v2(first, Completion::callback, &unknown), VELMORA_OK);
    EXPECT_EQ(unknown.promise.get_future().get(), std::pair(first, 14));
    EXPECT_EQ(submit(other, kEvent), VELMORA_OK) << "the other goes on";
    Completion stopped;
    EXPECT_EQ(velmora_ingest_stop_v2(other, Completion::callback, &stopped), VELMORA_OK);
    EXPECT_EQ(stopped.promise.get_future().get(), std::pair(other, 0));
    EXPECT_EQ(submit(other, kEvent), VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND);
}

TEST_F(IngestEntry, ReportsWhyAnEventIsNotTaken) {
    configure(VELMORA_CONSENT_DENIED);
    set(VELMORA_CONFIG_EVENT_FILE_ROTATION_SIZE, "20000");
    const auto instance = start();
    EXPECT_EQ(submit(instance, ""), VELMORA_ERROR_INVALID_JSON);
    EXPECT_EQ(submit(instance, "[1]"), VELMORA_ERROR_INVALID_JSON);
    EXPECT_EQ(submit(instance, R"({"event.type":"Click"})"), VELMORA_ERROR_INVALID_EVENT_FORMAT);
    EXPECT_EQ(velmora_ingest_submitEvent(instance, R"({"event.type":"Click"})", 1, 0, VELMORA_VALIDATE_NONE),
              VELMORA_OK);
    EXPECT_EQ(submit(instance, "{\"big\":\"" + std::string(30000, 'x') + "\"}"), VELMORA_ERROR_EVENT_TOO_BIG);
    EXPECT_TRUE(host_.waitUntil([&] { return submit(instance, kEvent, true) == VELMORA_ERROR_OPT_OUT; }))
        << "once the state is Off";
    EXPECT_EQ(submit(instance, kEvent, false), VELMORA_OK) << "anonymous events are not the user's";
    EXPECT_EQ(velmora_ingest_addCommonAttribute(instance, "k", "quote\""), VELMORA_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(velmora_ingest_flush(instance, nullptr, nullptr), VELMORA_ERROR_PRECONDITION_FAILED);
    Completion flushed;
    EXPECT_EQ(velmora_ingest_flush(instance, Completion::callback, &flushed), VELMORA_OK);
    EXPECT_EQ(flushed.promise.get_future().get(), std::pair(instance, 18));
}

TEST_F(IngestEntry, TheWrapperHasSixteenErrorHandlersAtATime) {
    std::error_code error;
    const auto start = [&](const std::string& guid) {
        return host::Ingest(
            guid, "{}", [](std::error_code) {}, &error);
    };
    std::vector<host::Ingest> running;
    for (int i = 0; i < 16; ++i) running.push_back(start("config-" + std::to_string(i)));
    ASSERT_TRUE(running.back()) << error;
    EXPECT_FALSE(start("one too many"));
    EXPECT_EQ(error.value(), VELMORA_ERROR_UNKNOWN);
    running.back().stop();
    EXPECT_FALSE(host::Ingest(
        "config-15", "no JSON", [](std::error_code) {}, &error));
    EXPECT_TRUE(start("config-15")) << "a stop and a start that has failed give their places back";
}

using IngestRoad = LibraryTest;

TEST_F(IngestRoad, EventsArriveEnrichedAndTheInstanceTellsItsLife) {
    configure(VELMORA_CONSENT_GRANTED);
    velmora_setSession("session-guid-of-the-host");
    auto instance = start(kGuid, R"({"app.name":"Demo"})");
    ASSERT_EQ(velmora_ingest_addCommonAttribute(instance, "app.mode", "dark"), VELMORA_OK);
    ASSERT_EQ(submit(instance, kEvent), VELMORA_OK);
    ASSERT_EQ(submit(instance, R"({"event.type":"NOT"})"), VELMORA_ERROR_INVALID_EVENT_FORMAT);
    stop(instance);  // offline all the time: all is on disk

    velmora_online();
    instance = start();
    ASSERT_TRUE(host_.waitUntil([&] { return velmora_ingest_flush(instance, nullptr, nullptr) == VELMORA_OK; }));
    const JsonDocument event = awaitPosted("x1");
    EXPECT_EQ(toText(event["app.name"]), "Demo");
    EXPECT_EQ(toText(event["app.mode"]), "dark");
    EXPECT_EQ(toText(event["event.session_guid"]), "session-guid-of-the-host");
    EXPECT_EQ(toText(event["event.category"]), "DESKTOP");
    EXPECT_EQ(toText(event["entity.datasdk"]["version"]), kSdkVersion);
    EXPECT_EQ(toText(event["event.offline"]), "true");
    EXPECT_FALSE(event.HasMember("event.user_guid"));

    const JsonDocument all = posted();
    const auto envelope =
        std::find_if(all.Begin(), all.End(), [](const auto& e) { return toText(e["data"]["event.subtype"]) == "x1"; });
    EXPECT_EQ(toText((*envelope)["project"]), "proj");
    EXPECT_EQ(toText((*envelope)["environment"]), "prod");
    EXPECT_EQ(toText((*envelope)["ingesttype"]), "velmora");

    const JsonDocument heartbeat = awaitPosted("app");
    const auto& counts = heartbeat["entity.debug"]["cache"]["0"];
    EXPECT_EQ(toText(counts["namespace"]), "primary");
    EXPECT_EQ(textOf(counts["anon"]["event"]),
              R"({"saved":{"success":1,"total":1},"rejected":{"validation":1,"total":1}})");
    const JsonDocument exit = awaitPosted("exit");
    EXPECT_EQ(toText(exit["entity.config"]["guid"]), kGuid);
    EXPECT_EQ(toText(exit["event.subcategory"]), "Host");
    // The folder of the first run, with its init event, heartbeat and exit event, is what the second begins with.
    ASSERT_EQ(countPosted("init"), 2U);
    std::string second;
    for (const auto& posted : all.GetArray()) {
        if (toText(posted["data"]["event.subtype"]) == "init") second = textOf(posted["data"]["entity.debug"]);
    }
    EXPECT_EQ(second, R"({"cache":{"0":{"namespace":"primary","meta":{"event":{"saved":{"success":3,"total":3}}},)"
                      R"("anon":{"event":{"saved":{"success":1,"total":1}}}}}})");
}

TEST_F(IngestRoad, AServerErrorPausesAndAWrongKeyStopsSending) {
    configure(VELMORA_CONSENT_GRANTED);
    set(VELMORA_CONFIG_BATCH_SIZE, "1");
    set(VELMORA_CONFIG_PAUSE_INTERVAL, "300");
    velmora_online();
    const auto instance = start();
    awaitPosted("init");
    for (const uint32_t status : {501U, 403U}) {
        SCOPED_TRACE(status);
        ASSERT_TRUE(host_.waitUntil([&] { return velmora_ingest_flush(instance, nullptr, nullptr) == VELMORA_OK; }));
        const size_t before = host_.requests().size();
        host_.answer({.status = status});
        ASSERT_EQ(submit(instance, kEvent), VELMORA_OK);
        ASSERT_TRUE(host_.waitForRequests(before + 1));
        // Until the pause is in force the resubmitted event may go round; after it nothing is sent.
        if (status == 403) {
            ASSERT_TRUE(host_.waitUntil([&] { return log_.contains("Invalid API key will stop the workers"); }));
            host_.answer({.status = 200});
            velmora_offline();
            velmora_online();
        }
        ASSERT_TRUE(host_.waitUntil([&] { return velmora_ingest_flush(instance, nullptr, nullptr) == VELMORA_OK; }));
        EXPECT_GE(host_.requests().size(), before + 2) << "the event has come through in the end";
    }
    EXPECT_EQ(log_.count("Invalid API key will stop the workers"), 1U);
}

TEST_F(IngestRoad, RecordsThatCannotBeDecipheredEndInTheInvalidLine) {
    configure(VELMORA_CONSENT_GRANTED);
    const Path folder = Filesystem::getDataFolder(true) / kGuid / "v1" / "0" / "anon_events";
    {
        EventStore store(folder, nullptr, {"main", 10485760, 104857600, 31536000000});
        store.push(Crypt("another passphrase").encrypt("{\"data\":{}}"));
    }
    velmora_online();
    const auto instance = start();
    // The warning follows the batch in which the record was found: into the next one.
    ASSERT_TRUE(host_.waitUntil([&] {
        velmora_ingest_flush(instance, nullptr, nullptr);
        return countPosted("decrypt") == 1;
    }));
    const JsonDocument warning = awaitPosted("decrypt");
    EXPECT_EQ(toText(warning["event.count"]), "1");
    stop(instance);
    EXPECT_FALSE(folder.exists());
    EXPECT_TRUE((folder.parent() / "auth_invalid_events").exists() == false);
    const EventStore invalid(folder.parent() / "anon_invalid_events", nullptr,
                             {"main", 10485760, 104857600, 31536000000});
    EXPECT_EQ(invalid.size(), 1U);
}

TEST_F(IngestRoad, AStoreThatDropsEventsReportsThem) {
    configure(VELMORA_CONSENT_GRANTED);
    set(VELMORA_CONFIG_EVENT_FILE_ROTATION_SIZE, "20000");
    set(VELMORA_CONFIG_EVENT_FOLDER_SIZE, "30000");
    const auto instance = start();
    size_t submitted = 0;
    while (!log_.contains("dropped files=")) {
        ASSERT_EQ(submit(instance, kEvent), VELMORA_OK);
        ASSERT_LT(++submitted, 1000U);
    }
    velmora_online();
    ASSERT_TRUE(host_.waitUntil([&] { return velmora_ingest_flush(instance, nullptr, nullptr) == VELMORA_OK; }));
    const JsonDocument warning = awaitPosted("size");
    EXPECT_EQ(toText(warning["event.workflow"]), "Velmora");
    EXPECT_EQ(toText(warning["event.subcategory"]), "SDK");
    EXPECT_EQ(toText(warning["event.type"]), "warn");
    EXPECT_EQ(toText(warning["event.error_type"]), "main");
    EXPECT_EQ(toText(warning["event.error_code"]), "Overflow");
    EXPECT_EQ(toText(warning["event.error_desc"]), "disk");
    EXPECT_EQ(toText(warning["event.value"]), std::to_string(2 * (20000 + 144))) << "as it was before";
    EXPECT_EQ(std::stoul(toText(warning["event.count"])) + countPosted("x1"), submitted);
}

TEST_F(IngestRoad, TheNetworksStateLimitsEveryLine) {
    configure(VELMORA_CONSENT_GRANTED);
    set(VELMORA_CONFIG_BATCH_SIZE, "1");
    setNetwork(NetworkState::offline);
    velmora_online();
    const auto instance = start();
    ASSERT_EQ(submit(instance, kEvent), VELMORA_OK);
    EXPECT_EQ(velmora_ingest_flush(instance, nullptr, nullptr), VELMORA_ERROR_PRECONDITION_FAILED);
    EXPECT_EQ(host_.sends(), 0U);
    setNetwork(NetworkState::online);
    awaitPosted("x1");
    ASSERT_EQ(submit(instance, R"({"event.type":"click","event.subtype":"later"})", false, false), VELMORA_OK);
    EXPECT_EQ(toText(awaitPosted("later")["event.offline"]), "false");
}

velmora_ingest_instance stopping = nullptr;
std::atomic<int32_t> fromCancel = -1;

// The host's callbacks may call in while an instance is being stopped.
TEST_F(IngestRoad, CallbacksDuringAStopFindTheInstanceGone) {
    configure(VELMORA_CONSENT_GRANTED);
    set(VELMORA_CONFIG_BATCH_SIZE, "1");
    std::promise<void> isSending;
    std::atomic<bool> isFirst = true;
    std::atomic<int32_t> fromSend = VELMORA_OK;
    host_.answerBy([&](const HostRequest&) {
        if (isFirst.exchange(false)) {
            isSending.set_value();
            while ((fromSend = submit(stopping, kEvent)) == VELMORA_OK) std::this_thread::sleep_for(1ms);
        }
        return Answer{.where = Answer::Where::nowhere};
    });
    velmora_http_setCancelRequestCallback([](void*, uint32_t) {
        fromCancel = velmora_ingest_submitAnonEvent(stopping, "{}", 1);
        return int32_t{VELMORA_HTTP_INVALID_INPUT};
    });
    stopping = start();
    ASSERT_EQ(submit(stopping, kEvent), VELMORA_OK);  // beside the init event, in a line of its own
    velmora_online();
    isSending.get_future().wait();
    ASSERT_TRUE(host_.waitForRequests(1));
    stop(stopping);
    EXPECT_EQ(fromSend, VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND);
    EXPECT_EQ(fromCancel, VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND);
    // The folder is free again when the stop returns.
    const auto again = start();
    EXPECT_FALSE((Filesystem::getDataFolder(true) / kGuid / "v1" / "1").exists());
    stop(again);
}

TEST_F(IngestRoad, AFolderThatCannotBeMadeIsALockError) {
    std::ofstream(((root_ / "com.orvane.velmora")).string()) << "a file in the way";
    velmora_ingest_instance instance = nullptr;
    EXPECT_EQ(velmora_ingest_start(kGuid, nullptr, nullptr, &instance), VELMORA_ERROR_CACHE_LOCK_ERROR);
    EXPECT_EQ(instance, nullptr);
}

// The process ends while an instance runs and a batch is on the wire that nobody will ever answer.
TEST_F(IngestRoad, ExitWithInstancesRunningNeitherHangsNorLosesEvents) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Path shared = Filesystem::getTempFolder() / "velmora-exit-test";  // the child has to find the same
    Filesystem::removeAll(shared);
    EXPECT_EXIT(
        {
            Filesystem::setRootPath(shared);
            configure(VELMORA_CONSENT_GRANTED);
            set(VELMORA_CONFIG_BATCH_SIZE, "2");
            velmora_online();
            host_.hold();
            velmora_ingest_instance instance = nullptr;
            if (velmora_ingest_start(kGuid, nullptr, nullptr, &instance) != VELMORA_OK) std::_Exit(1);
            for (int i = 0; i < 7; ++i) {
                if (submit(instance, kEvent) != VELMORA_OK) std::_Exit(2);
            }
            host_.waitForRequests(1);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
    const EventStore store(shared / "com.orvane.velmora" / kGuid / "v1" / "0" / "anon_events", nullptr,
                           {"main", 10485760, 104857600, 31536000000});
    EXPECT_EQ(store.size(), 7U);
    Filesystem::removeAll(shared);
}

}  // namespace
}  // namespace velmora::test
