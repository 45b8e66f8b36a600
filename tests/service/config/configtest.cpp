#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <stdexcept>
#include <type_traits>

#include "core/types/logger.h"
#include "service/config/ingestconfig.h"
#include "service/config/ingestconfigprovider.h"
#include "service/config/sessionconfig.h"
#include "service/config/sessionconfigprovider.h"
#include "tests/support/capturedlog.h"
#include "tests/support/manualpools.h"

namespace velmora::service::config {
namespace {

using test::CapturedLog;

TEST(IngestConfig, OverwritesWhatADocumentNames) {
    ingest::Config config;
    config.overwriteWith(R"({
        "setup": {"ingest": {"project": "p", "apiKey": 5, "environment": "PROD", "consent": "yes", "nested": {"project": "x"}}},
        "reserved": {
            "event": {"batchSize": -1, "batchInterval": 1.5, "pauseInterval": 7, "standardKeyPrefixes": ["x.", 1]},
            "filerotation": {"eventFolderSize": 9, "eventFileRotationSize": 8},
            "heartbeat": {"urn": "h"}, "config": {"urn": "c", "ttl": 3}, "unknown": [{"flag": false}]}})");
    EXPECT_EQ(config.project, "p");
    EXPECT_EQ(config.apiKey, "unknown-api-key");
    EXPECT_EQ(config.sourceCategory, SourceCategory::unknown);
    EXPECT_EQ(config.invalidEventFileRetentionPeriod, 31536000000u);
    EXPECT_EQ(config.environment, Environment::prod);
    EXPECT_EQ(config.consent, Consent::byDefault);
    EXPECT_EQ(config.batchSize, 50u);
    EXPECT_EQ(config.batchInterval, 30000u);
    EXPECT_EQ(config.pauseInterval, 7u);
    EXPECT_EQ(config.standardKeyPrefixes.size(), 8u);
    EXPECT_EQ(config.standardKeyPrefixes.back(), "x.");
    EXPECT_EQ(config.eventFolderSize, 9u);
    EXPECT_EQ(config.eventFileRotationSize, 8u);
    EXPECT_EQ(config.heartbeatUrn, "h");
    EXPECT_EQ(config.configUrn, "c");
    EXPECT_EQ(config.configTtl, 3u);
    EXPECT_EQ(ingest::Config().project, "unknown-project-key");  // the defaults are not shared
}

TEST(IngestConfig, AddsRulesButKeepsThoseThatAreThere) {
    ingest::Config config;
    config.overwriteWith(R"({"reserved": {"validation": {"rules": {
        "event.workflow": {"required": false, "default": "changed"},
        "event.foo": {},
        "event.bar": {"required": true, "pattern": "^b+$", "default": "b"}}}}})");
    EXPECT_EQ(config.validationRules.at("event.workflow").defaultValue, "Unknown");
    EXPECT_FALSE(config.validationRules.at("event.foo").required);
    EXPECT_EQ(config.validationRules.at("event.foo").pattern.str(), ".*");
    EXPECT_EQ(config.validationRules.at("event.bar").pattern.str(), "^b+$");
    EXPECT_TRUE(config.validationRules.at("event.bar").required);
}

TEST(Configs, KeepWhatWasAssignedBeforeAFault) {
    const struct {
        const char *fault, *code;
    } rows[] = {
        {R"("validation": {"rules": {"event.foo": {"pattern": "("}}})", "json_error:18"},
        {R"("validation": })", "json_error:3"},
    };
    for (const auto& row : rows) {
        const CapturedLog log;
        const std::string json = std::string(R"({"reserved": {"event": {"batchSize": 2}, )") + row.fault +
                                 R"(, "event": {"batchSize": 3}}})";
        ingest::Config config;
        EXPECT_EQ(&config.overwriteWith(json), &config);
        EXPECT_EQ(config.batchSize, 2u);
        EXPECT_EQ(config.validationRules.count("event.foo"), 0u);
        EXPECT_TRUE(log.has(LogLevel::error, "config",
                            std::string("failed to parse config error=") + row.code + " json=" + json));
        EXPECT_EQ(log.lines().back().function, "velmora::service::config::ingest::Config::overwriteWith");
    }
    const CapturedLog log;
    const std::string json = R"({"reserved": {"network": {"pollInterval": 2}, "log": })";
    EXPECT_EQ(session::Config().overwriteWith(json).pollInterval, 2u);
    EXPECT_TRUE(log.has(LogLevel::error, "session.config", "failed to parse config error=json_error:3 json=" + json));
}

TEST(Configs, RefuseAZeroWhereItWouldMakeAnEndlessLoopAndHoldNothing) {
    const CapturedLog log(LogLevel::warn);
    ingest::Config ingest;
    ingest.overwriteWith(R"({"reserved": {
        "event": {"batchSize": 0, "batchInterval": 0, "pauseInterval": 0}, "heartbeat": {"interval": 0},
        "filerotation": {"eventFileRotationSize": 0, "invalidEventFileRotationSize": 0, "eventFolderSize": 0}}})");
    EXPECT_EQ(ingest.batchSize, 50u);
    EXPECT_EQ(ingest.batchInterval, 30000u);
    EXPECT_EQ(ingest.heartbeatInterval, 43200000u);
    EXPECT_EQ(ingest.eventFileRotationSize, 10485760u);
    EXPECT_EQ(ingest.invalidEventFileRotationSize, 10485760u);
    EXPECT_EQ(ingest.pauseInterval + ingest.eventFolderSize, 0u);
    EXPECT_EQ(log.messages("config").size(), 5u);
    EXPECT_TRUE(log.has(LogLevel::warn, "config", "ignored, has to be above 0: batchSize=0"));
    session::Config session;
    session.overwriteWith(R"({"reserved": {"network": {"pollInterval": 0},
        "filerotation": {"logFileRotationSize": 0, "logFolderSize": 0}}})");
    EXPECT_EQ(session.pollInterval, 30000u);
    EXPECT_EQ(session.logFileRotationSize, 104857600u);
    EXPECT_EQ(session.logFolderSize, 0u);
    EXPECT_EQ(log.messages("session.config").size(), 2u);
}

TEST(SessionConfig, StartsWithDefaultsAndReplacesLists) {
    session::Config config;
    EXPECT_EQ(config.retryInterval, (std::vector<uint64_t>{30000, 60000, 300000, 900000}));
    EXPECT_EQ(config.logLevel, LogLevel::info);
    EXPECT_EQ(config.logFileRetentionPeriod, 7776000000u);
    EXPECT_EQ(config.identityEndpoints.size(), 2u);
    EXPECT_EQ(config.identityEndpoints.at(Environment::prod).ttl, 86400000u);
    EXPECT_NE(config.permissionEndpoints.at(Environment::prod).urn,
              config.permissionEndpoints.at(Environment::stage).urn);
    config.overwriteWith(R"({"reserved": {
        "network": {"pollInterval": 1}, "log": {"prefix": "q", "level": "verbose"},
        "error": {"retryInterval": [1000, -1, "x", [2], 2000]},
        "filerotation": {"logFileRotationSize": 8},
        "permission": {"endpoint": {"qa": {"urn": "http://local"}}},
        "identity": {"endpoint": {"prod": {"ttl": 4}}, "accountTypeAllowList": []}}})");
    EXPECT_EQ(config.pollInterval, 1u);
    EXPECT_EQ(config.logPrefix, "q");
    EXPECT_EQ(config.logLevel, LogLevel::error);
    EXPECT_EQ(config.retryInterval, (std::vector<uint64_t>{1000, 2000}));
    EXPECT_EQ(config.logFileRotationSize, 8u);
    EXPECT_EQ(config.permissionEndpoints.at(Environment::stage).urn, "http://local");
    EXPECT_EQ(config.permissionEndpoints.at(Environment::stage).ttl, 86400000u);
    EXPECT_EQ(config.identityEndpoints.at(Environment::prod).ttl, 4u);
    EXPECT_TRUE(config.accountTypeAllowList.empty());
    EXPECT_EQ(session::baseUrl(config.permissionEndpoints, Environment::stage), "http://local");
    EXPECT_EQ(session::baseUrl(config.identityEndpoints, Environment::prod).find("https://"), 0u);
    EXPECT_THROW((void)session::baseUrl(config.reservedEndpoints, Environment::prod), std::out_of_range);
}

TEST(SessionConfig, WaitsLongerWithEachAttemptAndNeverIndexesAnEmptyList) {
    using std::chrono_literals::operator""ms;
    EXPECT_EQ(session::retryWait({10, 20}, 0ms, 0), 10ms);
    EXPECT_EQ(session::retryWait({10, 20}, 15ms, 1), 20ms);
    EXPECT_EQ(session::retryWait({10, 20}, 25ms, 7), 25ms);
    EXPECT_EQ(session::retryWait({10, 20}, -5ms, UINT32_MAX), 20ms);
    EXPECT_EQ(session::retryWait({UINT64_MAX}, 0ms, 0), std::chrono::milliseconds::max());
    EXPECT_EQ(session::retryWait({}, 0ms, 3), 30000ms);
    EXPECT_EQ(session::retryWait({}, 5ms, 3), 5ms);
}

TEST(Configs, SurviveDamagedDocuments) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string whole = R"({"setup":{"ingest":{"project":"p","consent":"true"}},"reserved":{"validation":{"rules":
        {"a.b":{"pattern":"^(?:[A-Z]\\s*)+$"}}},"event":{"standardKeyPrefixes":["x."],"batchSize":1},
        "error":{"retryInterval":[1,2]},"identity":{"endpoint":{"prod":{"urn":"u","ttl":1}}}}})";
    for (int round = 0; round < 2000; ++round) {
        std::string text = whole;
        for (size_t changes = 1 + random() % 4; changes > 0; --changes) {
            text[random() % text.size()] = "{}[]\",:\\(*+1a"[random() % 13];
        }
        ingest::Config().overwriteWith(text.substr(random() % 2 ? 0 : random() % text.size()));
        session::Config().overwriteWith(text.substr(0, random() % 4 ? text.size() : random() % text.size()));
    }
}

using namespace std::chrono_literals;

// A provider over a source that the test changes.
template <typename Provider>
class ConfigProviders : public testing::Test {
protected:
    ConfigProviders() {
        source_.configTtl = 1000;
        provider_ = make();
    }

    std::unique_ptr<Provider> make() {
        const auto fetch = [this] {
            ++fetches_;
            if (fetchFails_) throw std::runtime_error("no source");
            return source_;
        };
        const auto onUpdate = [this] {
            seen_ = provider_->read([](const auto& config) { return config.configUrn; });
            if (updateFails_) throw std::runtime_error("no update");
        };
        if constexpr (std::is_same_v<Provider, IngestConfigProvider>) {
            return std::make_unique<Provider>(
                "guid", [fetch](const std::string&) { return fetch(); }, onUpdate);
        } else {
            return std::make_unique<Provider>(fetch, onUpdate);
        }
    }

    test::ManualPools pools_;
    typename Provider::Config source_;
    int fetches_ = 0;
    std::string seen_ = "nothing yet";
    bool fetchFails_ = false;
    bool updateFails_ = false;
    std::unique_ptr<Provider> provider_;
};

using Providers = testing::Types<IngestConfigProvider, SessionConfigProvider>;
TYPED_TEST_SUITE(ConfigProviders, Providers);

TYPED_TEST(ConfigProviders, FetchAtOnceAndThenOncePerPeriodAfterTheStart) {
    EXPECT_EQ(this->fetches_, 1);
    EXPECT_EQ(this->pools_.pendingTimers(), 0U);
    this->provider_->start();
    this->provider_->start();
    this->pools_.advance(1000ms);
    EXPECT_EQ(this->fetches_, 2);
    this->pools_.advance(2000ms);
    EXPECT_EQ(this->fetches_, 4);
    this->provider_->stop();
    this->pools_.advance(5000ms);
    EXPECT_EQ(this->fetches_, 4);
}

TYPED_TEST(ConfigProviders, TellOfTheNewRecordAndTakeItsPeriodFromTheNextOneOn) {
    this->provider_->start();
    this->source_.configTtl = 100;
    this->source_.configUrn = "new";
    this->pools_.advance(999ms);
    EXPECT_EQ(this->seen_, "nothing yet");
    this->pools_.advance(1ms);
    EXPECT_EQ(this->seen_, "new");
    this->pools_.advance(200ms);
    EXPECT_EQ(this->fetches_, 4);
}

TYPED_TEST(ConfigProviders, GoOnAfterARefreshThatFails) {
    const CapturedLog log(LogLevel::error);
    this->provider_->start();
    this->updateFails_ = true;
    this->pools_.advance(1000ms);
    this->fetchFails_ = true;
    this->pools_.advance(1000ms);
    EXPECT_TRUE(log.contains("no update") && log.contains("no source"));
    this->updateFails_ = this->fetchFails_ = false;
    this->source_.configUrn = "new";
    this->pools_.advance(1000ms);
    EXPECT_EQ(this->seen_, "new");
}

using SessionProvider = ConfigProviders<SessionConfigProvider>;

TEST_F(SessionProvider, ARestartRefreshesAtOnceAndBeginsAPeriodEvenIfItFails) {
    provider_->start();
    pools_.advance(900ms);
    source_.configUrn = "new";
    provider_->restart();
    EXPECT_EQ(seen_, "new");
    pools_.advance(999ms);
    EXPECT_EQ(fetches_, 2);
    fetchFails_ = true;
    EXPECT_THROW(provider_->restart(), std::runtime_error);
    fetchFails_ = false;
    pools_.advance(1000ms);
    EXPECT_EQ(fetches_, 4);
}

struct LimitedLogger : Logger {
    explicit LimitedLogger(LogConfig& limits) : limits_(limits) {}
    LogLevel getLogLevel() override { return level_; }
    void setLogLevel(LogLevel level) override { level_ = level; }
    void logf(LogLevel, const char*, const char*, const char*, int, const char*, ...) override {}
    void log(LogLevel, const char*, const char*, const char*, int, std::ostringstream&) override {}
    void setConfig(const LogConfig& config) override { limits_ = config; }

private:
    LogConfig& limits_;
    LogLevel level_ = LogLevel::off;
};

TEST_F(SessionProvider, ARefreshSetsTheLoggersLevelAndLimits) {
    LogConfig limits;
    setLogger(std::make_unique<LimitedLogger>(limits));
    source_.logLevel = LogLevel::error;
    source_.logPrefix = "prefix";
    source_.logFileRotationSize = 1;
    source_.logFileRetentionPeriod = 2;
    source_.logFolderSize = 3;
    provider_->refresh();
    EXPECT_EQ(logger()->getLogLevel(), LogLevel::error);
    EXPECT_EQ(limits.baseName, "prefix");
    EXPECT_EQ(limits.logFileRotationSize, 1U);
    EXPECT_EQ(limits.logFileRetentionPeriod, 2U);
    EXPECT_EQ(limits.logFolderSize, 3U);
    setLogger(nullptr);
}

}  // namespace
}  // namespace velmora::service::config
