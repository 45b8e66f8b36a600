#include <gtest/gtest.h>

#include "ingest/session/identitymanager.h"
#include "tests/support/fakehost.h"
#include "tests/support/manualpools.h"

namespace velmora::test {
namespace {

using namespace std::chrono_literals;

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
