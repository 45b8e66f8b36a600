#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <type_traits>

#include "core/types/logger.h"
#include "service/config/ingestconfigprovider.h"
#include "service/config/sessionconfigprovider.h"
#include "tests/support/capturedlog.h"
#include "tests/support/manualpools.h"

namespace velmora::test {
namespace {

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

    ManualPools pools_;
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
}  // namespace velmora::test
