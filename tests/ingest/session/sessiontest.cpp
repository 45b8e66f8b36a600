#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/json/jsontext.h"
#include "core/network/networkmonitor.h"
#include "core/types/logger.h"
#include "ingest/session/hostsettings.h"
#include "ingest/session/identitymanager.h"
#include "ingest/session/session.h"
#include "tests/support/fakehost.h"
#include "tests/support/libraryfixture.h"
#include "tests/support/manualpools.h"
#include "tests/support/system.h"

namespace velmora::test {
namespace {

using namespace std::chrono_literals;

std::atomic<int32_t> reportedError = 0;
void onError(int32_t error) { reportedError = error; }

bool isProfile(const HostRequest& request) { return request.url.find("/oswin/profile") != std::string::npos; }
bool isTracking(const HostRequest& request) {
    return request.url.find("/fetch_user_tracking_flag") != std::string::npos;
}

class SessionIdentity : public LibraryTest {
protected:
    SessionIdentity() {
        set(VELMORA_CONFIG_RETRY_INTERVAL, "[20]");
        set(VELMORA_CONFIG_IDENTITY_PROD_URN, "identity.example");
        set(VELMORA_CONFIG_PERMISSION_PROD_URN, "http://tracking.example/");
        host_.answerBy([this](const HostRequest& request) { return respond(request); });
    }

    Answer respond(const HostRequest& request) {
        if (isProfile(request)) return profileAnswer(request);
        if (isTracking(request)) return {.status = trackingStatus_, .body = "{\"tracking_flag\":\"" + flag_ + "\"}"};
        return {};
    }

    virtual Answer profileAnswer(const HostRequest& request) {
        const std::string user = request.headers.at("Authorization").substr(std::strlen("Bearer "));
        return {.status = profileStatus_,
                .body = "{\"account_type\":\"" + accountType_ + "\",\"userId\":\"" + user + "\"}"};
    }

    size_t count(bool (*which)(const HostRequest&)) {
        size_t found = 0;
        for (const HostRequest& request : host_.requests()) found += which(request) ? 1 : 0;
        return found;
    }

    PipelineState authState(Consent consent) { return Session::getInstance().getAuthState(consent, Environment::prod); }

    bool becomes(Consent consent, PipelineState state) {
        return host_.waitUntil([&] { return authState(consent) == state; });
    }

    std::atomic<uint32_t> profileStatus_ = 200;
    std::atomic<uint32_t> trackingStatus_ = 200;
    std::string accountType_ = "TYPE1";
    std::string flag_ = "pii";
};

TEST_F(SessionIdentity, ConsentTokenAndFlagDecideTheUsersLine) {
    EXPECT_EQ(authState(Consent::denied), PipelineState::Off);
    EXPECT_EQ(authState(Consent::granted), PipelineState::SaveOnly) << "nobody signed in";
    velmora_setAccessToken("user-1");
    EXPECT_EQ(authState(Consent::granted), PipelineState::SaveOnly) << "offline";
    EXPECT_EQ(host_.sends(), 0U);
    velmora_online();
    EXPECT_TRUE(becomes(Consent::granted, PipelineState::On));
    EXPECT_EQ(count(isTracking), 0U) << "consent given: nobody asks for the flag";
    EXPECT_TRUE(becomes(Consent::byDefault, PipelineState::On));
    EXPECT_EQ(authState(Consent::denied), PipelineState::Off);
    for (const auto& request : host_.requests()) {
        if (isProfile(request)) {
            EXPECT_EQ(request.url, "https://identity.example/oswin/profile");
        }
        if (isTracking(request)) {
            EXPECT_EQ(request.url, "http://tracking.example/fetch_user_tracking_flag");
            EXPECT_EQ(request.headers.at("Access-Token"), "user-1");
        }
    }
    char* data = nullptr;
    ASSERT_EQ(velmora_getSELBYData(&data), VELMORA_OK);
    EXPECT_STREQ(data, "{\"tracking_flag\":\"pii\"}");
    EXPECT_EQ(velmora_release(data), VELMORA_OK);

    flag_ = "PII-like";
    velmora_setAccessToken("user-2");
    EXPECT_TRUE(becomes(Consent::byDefault, PipelineState::Off));
    velmora_setAccessToken("");
    EXPECT_EQ(authState(Consent::byDefault), PipelineState::SaveOnly);
}

TEST_F(SessionIdentity, EventsOfTheUserCarryTheIdentityAtTheMomentOfSending) {
    configure(VELMORA_CONSENT_DEFAULT);
    set(VELMORA_CONFIG_BATCH_INTERVAL, "30");
    const auto instance = start();
    ASSERT_EQ(submit(instance, R"({"event.subtype":"before","event.user_guid":"faked"})", true), VELMORA_OK);
    ASSERT_EQ(submit(instance, R"({"event.subtype":"anon"})", false), VELMORA_OK);
    velmora_online();
    awaitPosted("anon");
    EXPECT_EQ(countPosted("before"), 0U) << "waits for the user";
    velmora_setLorneProfile(R"({"plan":"pro"})");
    velmora_setAccessToken("user-1");
    const JsonDocument event = awaitPosted("before");
    EXPECT_EQ(toText(event["event.user_guid"]), "user-1");
    EXPECT_EQ(toText(event["entity.oswin"]["accounttype"]), "TYPE1");
    EXPECT_EQ(toText(event["entity.lorne"]["plan"]), "pro");
    EXPECT_FALSE(awaitPosted("anon").HasMember("event.user_guid"));
    EXPECT_EQ(toText(awaitPosted("OSWIN", "event.subcategory")["event.error_desc"]), R"({"account_type":"TYPE1"})");
    awaitPosted("SELBY", "event.subcategory");

    // An instance that starts later knows the user as well.
    configure(VELMORA_CONSENT_DEFAULT, "late");
    set(VELMORA_CONFIG_BATCH_INTERVAL, "30", "late");
    const auto late = start("late");
    ASSERT_EQ(submit(late, R"({"event.subtype":"late"})", true), VELMORA_OK);
    EXPECT_EQ(toText(awaitPosted("late")["event.user_guid"]), "user-1");
}

TEST_F(SessionIdentity, FailuresAreRetriedOrReportedOnce) {
    configure(VELMORA_CONSENT_DEFAULT);
    start(kGuid, nullptr, onError);
    velmora_online();
    profileStatus_ = 503;
    velmora_setAccessToken("user-1");
    ASSERT_TRUE(host_.waitUntil([&] { return count(isProfile) >= 4; })) << "as often as it takes";
    EXPECT_EQ(reportedError, 0);
    profileStatus_ = 200;
    EXPECT_TRUE(becomes(Consent::byDefault, PipelineState::On));

    const struct {
        std::atomic<uint32_t>& status;
        uint32_t value;
        int32_t error;
    } rows[] = {
        {profileStatus_, 401, VELMORA_ERROR_OSWIN_UNAUTHORIZED},
        {profileStatus_, 404, VELMORA_ERROR_OSWIN_ERROR},
        {trackingStatus_, 400, VELMORA_ERROR_SELBY_BAD_REQUEST},
        {trackingStatus_, 403, VELMORA_ERROR_SELBY_ERROR},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        reportedError = 0;
        row.status = row.value;
        velmora_setAccessToken("another user");
        EXPECT_TRUE(host_.waitUntil([&] { return reportedError == row.error; })) << reportedError;
        row.status = 200;
    }
}

TEST_F(SessionIdentity, AChangeOfUserForgetsTheAnswerForTheOldOne) {
    velmora_online();
    host_.hold();
    host_.onCancel(OnCancel::complete);
    velmora_setAccessToken("old");
    (void)authState(Consent::granted);
    ASSERT_TRUE(host_.waitForRequests(1));
    velmora_setAccessToken("new");  // while the answer for the old one is on its way
    (void)authState(Consent::granted);
    ASSERT_TRUE(host_.waitForRequests(2));
    host_.release();
    EXPECT_TRUE(becomes(Consent::granted, PipelineState::On));
    EXPECT_EQ(host_.requests()[0].cancels, 1);
}

// Signing out ends the flag's request, and the host takes its time over that.
TEST_F(SessionIdentity, ASignOutTakesTheIdentityAwayBeforeTheHostHasEndedItsRequests) {
    configure(VELMORA_CONSENT_DEFAULT);
    set(VELMORA_CONFIG_BATCH_SIZE, "1");
    set(VELMORA_CONFIG_HEARTBEAT_INTERVAL, "20");
    host_.onCancel(OnCancel::ignored);
    host_.answerBy([this](const HostRequest& request) {
        Answer answer = respond(request);
        answer.held = isTracking(request);
        return answer;
    });
    start();
    velmora_online();
    velmora_setAccessToken("user-1");
    ASSERT_TRUE(host_.waitUntil([&] { return countPosted("user-1", "event.user_guid") > 0; }));
    std::thread signOut([] { velmora_setAccessToken(""); });
    ASSERT_TRUE(host_.waitUntil([&] { return host_.cancels() == 1; }));
    const auto isAnonymous = [&] {
        const JsonDocument all = posted();
        return !all.Empty() && !all[all.Size() - 1]["data"].HasMember("event.user_guid");
    };
    EXPECT_TRUE(host_.waitUntil(isAnonymous, 5s));
    host_.release();
    signOut.join();
}

TEST_F(SessionIdentity, ARunningInstanceFollowsTheUserAndTheSessionsGuid) {
    configure(VELMORA_CONSENT_GRANTED);
    set(VELMORA_CONFIG_BATCH_INTERVAL, "30");
    velmora_setSession("first-session");
    const auto instance = start();
    velmora_online();
    velmora_setAccessToken("user-1");
    ASSERT_EQ(submit(instance, R"({"event.subtype":"one"})", true), VELMORA_OK);
    EXPECT_EQ(toText(awaitPosted("one")["event.user_guid"]), "user-1");

    velmora_setAccessToken("");
    velmora_setSession("second-session");
    const auto isHeldBack = [&] {
        EXPECT_EQ(submit(instance, R"({"event.subtype":"probe"})", true), VELMORA_OK);
        return velmora_ingest_flush(instance, nullptr, nullptr) == VELMORA_ERROR_PRECONDITION_FAILED;
    };
    ASSERT_TRUE(host_.waitUntil(isHeldBack));
    ASSERT_EQ(submit(instance, R"({"event.subtype":"two"})", true), VELMORA_OK);
    ASSERT_EQ(submit(instance, R"({"event.subtype":"anon"})", false), VELMORA_OK);
    awaitPosted("anon");
    EXPECT_EQ(countPosted("two"), 0U);
    velmora_setAccessToken("user-2");
    EXPECT_EQ(toText(awaitPosted("two")["event.user_guid"]), "user-2");
    EXPECT_EQ(toText(awaitPosted("one")["event.session_guid"]), "first-session");
    EXPECT_EQ(toText(awaitPosted("two")["event.session_guid"]), "second-session");
}

using SessionEntry = LibraryTest;

TEST_F(SessionEntry, AHostsCommonDataReachesLaterComponentsUnlessItsStartFails) {
    constexpr const char* kOther = "other-host";
    configure(VELMORA_CONSENT_GRANTED);
    configure(VELMORA_CONSENT_GRANTED, kOther);
    velmora_online();
    start(kGuid, R"({"app.name":"Host","app.mode":"dark"})");
    velmora_ingest_instance failed = nullptr;
    EXPECT_EQ(velmora_ingest_start(kOther, R"({"app.name":"quote\""})", nullptr, &failed),
              VELMORA_ERROR_INVALID_ARGUMENT);
    const auto component = start("component", R"({"app.mode":"light"})");  // as by default
    ASSERT_EQ(submit(component, R"({"event.subtype":"later"})"), VELMORA_OK);
    ASSERT_TRUE(host_.waitUntil([&] { return velmora_ingest_flush(component, nullptr, nullptr) == VELMORA_OK; }));
    const JsonDocument event = awaitPosted("later");
    EXPECT_EQ(toText(event["app.name"]), "Host");
    EXPECT_EQ(toText(event["app.mode"]), "light");
}

TEST_F(SessionEntry, SettingsThatComeWhileTheSessionComesUpAreInForce) {
    setNetworkMonitorFactory([] {
        EXPECT_EQ(velmora_setConfig(nullptr, VELMORA_CONFIG_RETRY_INTERVAL, "[7]"), VELMORA_OK);
        setNetworkMonitorFactory(nullptr);
        return createNetworkMonitor();
    });
    Session& session = Session::getInstance();
    EXPECT_TRUE(host_.waitUntil([&] { return session.getRetryIntervals() == std::vector<uint64_t>{7}; }));
}

TEST_F(SessionEntry, TheEnvironmentsLogLevelOverridesEveryOther) {
    constexpr const char* kVariable = "VELMORA_CONFIG_RESERVED_LOG_LEVEL";
    setEnvironmentVariable(kVariable, "warn");
    ASSERT_EQ(velmora_setLogLevel(VELMORA_LOG_TRACE), VELMORA_OK);
    EXPECT_EQ(getGlobalConfig().logLevel, LogLevel::warn);
    setEnvironmentVariable(kVariable, "");
    ASSERT_EQ(velmora_setLogLevel(VELMORA_LOG_DEBUG), VELMORA_OK);
    EXPECT_EQ(getGlobalConfig().logLevel, LogLevel::debug);
}

// Goes online in the moment in which a new transfer engine is told to stay offline.
struct SwitchingLogger : Logger {
    LogLevel getLogLevel() override { return LogLevel::info; }
    void setLogLevel(LogLevel) override {}
    void logf(LogLevel, const char*, const char*, const char*, int, const char*, ...) override {}
    void log(LogLevel, const char*, const char*, const char*, int, std::ostringstream& message) override {
        if (message.str().find("active send calls") == std::string::npos || isDone.exchange(true)) return;
        std::thread([] { velmora_online(); }).join();
    }
    std::atomic<bool> isDone = false;
};

TEST_F(SessionEntry, ANewTransferEngineDoesNotMissThatTheSessionGoesOnline) {
    setLogger(std::make_unique<SwitchingLogger>());
    configure(VELMORA_CONSENT_GRANTED);
    set(VELMORA_CONFIG_BATCH_SIZE, "1");
    static_cast<void>(Session::getInstance().getTransferEngine());
    start();
    awaitPosted("init");
}

// What the host still calls when the library has gone is refused.
TEST_F(SessionEntry, CallsAfterTheEndOfTheSessionFail) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto endTwice = [this] {
        static velmora_ingest_instance instance = nullptr;
        std::atexit([] {
            const auto endWith = [](int32_t result) {
                if (result != VELMORA_ERROR_UNKNOWN) std::_Exit(3);
            };
            char* text = nullptr;
            endWith(velmora_init());
            endWith(velmora_online());
            endWith(velmora_setSession("guid"));
            endWith(velmora_getSELBYData(&text));
            endWith(velmora_ingest_submitAnonEvent(instance, "{}", 1));
            endWith(velmora_ingest_stop(instance));
            if (velmora_setLogLevel(VELMORA_LOG_WARN) != VELMORA_OK) std::_Exit(4);
        });
        if (velmora_ingest_start(kGuid, nullptr, nullptr, &instance) != VELMORA_OK) std::_Exit(1);
        std::exit(0);
    };
    EXPECT_EXIT(endTwice(), testing::ExitedWithCode(0), "");
}

TEST_F(SessionEntry, RefusesBadArgumentsWithOneMessageEach) {
    const struct {
        std::function<int32_t()> call;
        int32_t result;
        const char* message;
    } rows[] = {
        {[] { return velmora_setSession(""); }, 4, "setSession: sessionGuid="},
        {[] { return velmora_getSession(nullptr); }, 4, "getSession: sessionGuid=(nullptr)"},
        {[] { return velmora_setAccessToken(nullptr); }, 4, "setAccessToken: accessToken=(nullptr)"},
        {[] { return velmora_setLorneProfile(nullptr); }, 4, "setLorneProfile: lorneProfile=(nullptr)"},
        {[] { return velmora_setConfig("x", 36, ""); }, 4, "setConfig: value="},
        {[] { return velmora_setConfig("x", 36, "1"); }, 4, "unknown config key=36"},
        {[] { return velmora_setConfig("x", -1, "1"); }, 4, "unknown config key=-1"},
        {[] { return velmora_setIngestConfig(nullptr, 0, "p", "k", 0, 0, 0); }, 4,
         "setIngestConfig: configGuid=(nullptr)"},
        {[] { return velmora_setIngestConfig("g", 0, "p", nullptr, 0, 0, 0); }, 4, "setIngestConfig: apiKey=(nullptr)"},
        {[] { return velmora_setIaasMapping("g", ""); }, 4, "setIaasMapping: iaasCsv="},
        {[] { return velmora_iaasToIngestSDM("g", "{}", nullptr); }, 4, "iaasToIngestSDM: pOutputJson=(nullptr)"},
        {[] { return velmora_iaasBatchToIngestSDM("g", nullptr, "x"); }, 4, "iaasToIngestSDM: inCsvPath=(nullptr)"},
        {[] { return velmora_iaasBatchToIngestSDM("g", "x", nullptr); }, 4, "iaasToIngestSDM: outCsvPath=(nullptr)"},
        {[] { return velmora_getSELBYData(nullptr); }, 4, "getSELBYData: pSelbyJson=(nullptr)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        log_.clear();
        EXPECT_EQ(row.call(), row.result);
        const auto messages = log_.messages("api");
        EXPECT_EQ(messages, std::vector<std::string>{row.message});
    }
    EXPECT_EQ(velmora_setLorneProfile(""), VELMORA_ERROR_INVALID_JSON);
    EXPECT_EQ(velmora_setLorneProfile("[]"), VELMORA_ERROR_INVALID_JSON);
    EXPECT_EQ(velmora_release(nullptr), VELMORA_OK);
}

TEST_F(SessionEntry, TheSessionAndItsGuidOutliveExit) {
    ASSERT_EQ(velmora_init(), VELMORA_OK);
    char generated[37];
    ASSERT_EQ(velmora_getSession(generated), VELMORA_OK);
    EXPECT_EQ(std::strlen(generated), 36U);
    ASSERT_EQ(velmora_exit(), VELMORA_OK);
    ASSERT_EQ(velmora_init(), VELMORA_OK);
    char again[37];
    ASSERT_EQ(velmora_getSession(again), VELMORA_OK);
    EXPECT_STREQ(generated, again);
    ASSERT_EQ(velmora_setSession("0123456789012345678901234567890123456789"), VELMORA_OK);
    ASSERT_EQ(velmora_getSession(again), VELMORA_OK);
    EXPECT_STREQ(again, "012345678901234567890123456789012345");
    const auto instance = start();
    velmora_exit();
    EXPECT_EQ(submit(instance, "{}"), VELMORA_OK);
}

TEST_F(SessionEntry, ConfigurationReachesItsRecordByKey) {
    Session& session = Session::getInstance();
    ASSERT_EQ(velmora_setConfig("g", VELMORA_CONFIG_BATCH_SIZE, "7"), VELMORA_OK);
    ASSERT_EQ(velmora_setConfig("g", VELMORA_CONFIG_VALIDATION_FLAG, "false"), VELMORA_OK);
    const auto config = session.getIngestConfig("g");
    EXPECT_EQ(config.batchSize, 7U);
    EXPECT_FALSE(config.validationFlag);
    EXPECT_FALSE(config.flushOnStopEnabled);
    ASSERT_EQ(velmora_setConfig(nullptr, VELMORA_CONFIG_BATCH_SIZE, "9"), VELMORA_OK);
    EXPECT_EQ(session.getIngestConfig("g").batchSize, 7U);
    EXPECT_EQ(session.getIngestConfig("other").batchSize, 50U);
    ASSERT_EQ(velmora_setConfig("ignored", VELMORA_CONFIG_RETRY_INTERVAL, "[5]"), VELMORA_OK);
    EXPECT_TRUE(host_.waitUntil([&] { return session.getRetryIntervals() == std::vector<uint64_t>{5}; }));
    ASSERT_EQ(velmora_setLogLevel(VELMORA_LOG_DEBUG), VELMORA_OK);
    EXPECT_TRUE(host_.waitUntil([] { return logger()->getLogLevel() == LogLevel::debug; }));
    EXPECT_EQ(getGlobalConfig().logLevel, LogLevel::debug);
}

TEST(GlobalConfig, PathsBecomeDocuments) {
    const struct {
        const char *path, *value, *document;
    } rows[] = {
        {"a.b", "5", R"({"a":{"b":5}})"},
        {"a", "[1,2]", R"({"a":[1,2]})"},
        {"a", "prod", R"({"a":"prod"})"},
        {"rules.\"event.type\".required", "true", R"({"rules":{"event.type":{"required":true}}})"},
        {"rules.'x.y'", "1", R"({"rules":{"x.y":1}})"},
        {"a.'b.c", "1", R"({"a":{"'b.c":1}})"},
    };
    for (const auto& row : rows) EXPECT_EQ(jsonFromPath(row.path, row.value), row.document);
}

TEST_F(SessionEntry, ConversionsReplaceTheirTableInOneStepOrNotAtAll) {
    char* output = reinterpret_cast<char*>(1);
    EXPECT_EQ(velmora_iaasToIngestSDM(kGuid, "{}", &output), VELMORA_ERROR_IAAS_FILE_NOT_FOUND_OR_NOT_READABLE);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(velmora_setIaasMapping(kGuid, "\n\n"), VELMORA_ERROR_IAAS_FILE_EMPTY);
    EXPECT_EQ(velmora_setIaasMapping(kGuid, "IN_a,OUT_b\nx\n"), VELMORA_ERROR_IAAS_FILE_INVALID_FORMAT);
    ASSERT_EQ(velmora_setIaasMapping(kGuid, "IN_name,OUT_event.type\n(.*)-done,$1\n"), VELMORA_OK);
    const auto convert = [&](const char* json, int32_t result) {
        EXPECT_EQ(velmora_iaasToIngestSDM(kGuid, json, &output), result);
        std::string text = output != nullptr ? output : "";
        velmora_release(output);
        return text;
    };
    EXPECT_EQ(convert(R"({"name":"save-done"})", VELMORA_OK), R"({"event.type":"save"})");
    EXPECT_EQ(convert(R"({"name":"other"})", VELMORA_ERROR_IAAS_NO_RULE_MATCHED), "{}");
    EXPECT_EQ(convert("nonsense", VELMORA_ERROR_INVALID_JSON), "");
    EXPECT_EQ(velmora_setIaasMapping(kGuid, "IN_a,OUT_b\nx\n"), VELMORA_ERROR_IAAS_FILE_INVALID_FORMAT);
    EXPECT_EQ(convert(R"({"name":"save-done"})", VELMORA_OK), R"({"event.type":"save"})") << "the good one stays";
    ASSERT_EQ(velmora_setIaasMapping(kGuid, "IN_name,OUT_event.type\n(.*)-done,new\n"), VELMORA_OK);
    EXPECT_EQ(convert(R"({"name":"save-done"})", VELMORA_OK), R"({"event.type":"new"})");
    EXPECT_EQ(velmora_iaasToIngestSDM(nullptr, "{}", &output), VELMORA_ERROR_UNKNOWN);
    EXPECT_EQ(output, nullptr);
}

// The manager alone, on the test's own thread and time: every answer comes from within send.
class Identity : public testing::Test {
protected:
    Identity() {
        host_.answerBy([this](const HostRequest& request) {
            const bool isProfile = request.url.find("/oswin/profile") != std::string::npos;
            return Answer{.status = isProfile ? profileStatus_ : trackingStatus_,
                          .body = isProfile ? R"({"account_type":"type1"})" : R"({"tracking_flag":"PII"})",
                          .where = Answer::Where::withinSend};
        });
        manager_.setCallbacks({[](const auto&) {}, [] {}, [](const auto&) {}, [](int32_t) {}});
    }
    ~Identity() override { engine_.stop(); }

    static SessionConfigProvider::Config config() {
        SessionConfigProvider::Config config;
        config.retryInterval = {1000};
        config.identityEndpoints[Environment::prod].urn = "identity.prod";
        config.identityEndpoints[Environment::stage].urn = "identity.stage";
        return config;
    }

    std::error_code fetch(bool skipSelby, Environment environment = Environment::prod) {
        const std::error_code result = manager_.fetchInfo(skipSelby, environment);
        pools_.runAll();
        return result;
    }

    size_t count(const std::string& part) {
        size_t found = 0;
        for (const HostRequest& request : host_.requests()) found += request.url.find(part) != std::string::npos;
        return found;
    }

    ManualPools pools_;
    FakeHost host_;
    uint32_t profileStatus_ = 200;
    uint32_t trackingStatus_ = 200;
    const SessionConfigProvider config_{config, nullptr};
    SerialTaskEngine engine_;
    const std::shared_ptr<transfer::TransferEngine> transferEngine_ = transfer::makeTransferEngine();
    IdentityManager manager_{engine_, config_, [this] { return transferEngine_; }};
};

const std::error_code kDone;
const std::error_code kInProgress = std::make_error_code(std::errc::operation_in_progress);

TEST_F(Identity, IsFetchedOnceForWhoeverAsksUntilItIsKnown) {
    EXPECT_EQ(fetch(false), std::make_error_code(std::errc::operation_not_supported)) << "nobody signed in";
    EXPECT_EQ(host_.sends(), 0U);
    manager_.setAccessToken("user");
    EXPECT_EQ(manager_.fetchInfo(true, Environment::prod), kInProgress);
    EXPECT_EQ(fetch(true), kInProgress) << "the answer comes after the question";
    EXPECT_EQ(fetch(true), kDone) << "the profile will do";
    EXPECT_EQ(fetch(false), kInProgress) << "the flag is wanted, too";
    EXPECT_EQ(fetch(false), kDone);
    EXPECT_EQ(host_.sends(), 2U);
    EXPECT_TRUE(manager_.isTrackingAllowed());
    manager_.setAccessToken("other user");
    EXPECT_FALSE(manager_.isTrackingAllowed());
    EXPECT_EQ(fetch(true, Environment::stage), kInProgress);
    EXPECT_EQ(count("identity.prod"), 2U) << "the first environment stays";
    EXPECT_EQ(count("identity.stage"), 0U);
}

TEST_F(Identity, NothingElseGoesOutWhileARetryWaits) {
    profileStatus_ = 503;
    manager_.setAccessToken("user");
    fetch(false);
    EXPECT_EQ(host_.sends(), 2U);
    pools_.advance(999ms);
    EXPECT_EQ(fetch(false), kInProgress);
    EXPECT_EQ(host_.sends(), 2U);
    profileStatus_ = 200;
    pools_.advance(1ms);
    EXPECT_EQ(count("/oswin/profile"), 2U);
    EXPECT_EQ(fetch(false), kDone);
}

TEST_F(Identity, ARetryBelongsToTheUserWhoseRequestHasFailed) {
    profileStatus_ = trackingStatus_ = 503;
    manager_.setAccessToken("first");
    fetch(false);
    EXPECT_EQ(host_.sends(), 2U);
    pools_.advance(400ms);
    manager_.setAccessToken("second");
    fetch(true);  // who has given consent, so that nobody asks for the flag
    EXPECT_EQ(count("/oswin/profile"), 2U);
    pools_.advance(999ms);
    EXPECT_EQ(count("/oswin/profile"), 2U) << "the first user's timers are void";
    pools_.advance(1ms);
    EXPECT_EQ(count("/oswin/profile"), 3U);
    pools_.advance(10000ms);
    EXPECT_EQ(count("/oswin/profile"), 13U) << "one per interval";
    EXPECT_EQ(count("tracking"), 1U);
}

// It comes while the request for the next user is under way already, and before the old one has been cancelled.
TEST_F(Identity, AnAnswerForTheUserBeforeIsNotTakenForTheNext) {
    host_.answerBy([](const HostRequest& request) {
        return Answer{.body = R"({"account_type":")" + request.headers.at("Authorization") + R"("})"};
    });
    host_.hold();
    size_t users = 0;
    const auto ask = [&](const std::shared_ptr<service::oswin::Profile>& profile) {
        if (profile) return;
        fetch(true);
        ASSERT_TRUE(host_.waitForRequests(++users));
        if (users == 1) return;
        host_.release(1);
        ASSERT_TRUE(host_.waitForCompletions(1));
    };
    manager_.setCallbacks({ask, [] {}, [](const auto&) {}, [](int32_t) {}});
    manager_.setAccessToken("first");
    manager_.setAccessToken("second");
    pools_.runAll();
    EXPECT_FALSE(manager_.profile());
    host_.release();
    ASSERT_TRUE(host_.waitForCompletions(2));
    pools_.runAll();
    ASSERT_TRUE(manager_.profile());
    EXPECT_EQ(manager_.profile()->accountType, "Bearer second");
}

TEST_F(Identity, AUserGoesBeforeTheirRequestsHaveEnded) {
    host_.answerAll({.where = Answer::Where::nowhere});
    host_.onCancel(OnCancel::unknown);
    manager_.setAccessToken("user");
    size_t cancelsBefore = 99;
    manager_.setCallbacks({[&](const auto&) { cancelsBefore = host_.cancels(); }, nullptr, nullptr, nullptr});
    fetch(false);
    manager_.setAccessToken("");
    EXPECT_EQ(cancelsBefore, 0U);
    EXPECT_EQ(host_.cancels(), 2U);
}

}  // namespace
}  // namespace velmora::test
