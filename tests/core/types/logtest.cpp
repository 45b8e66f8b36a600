#include "core/types/log.h"

#include <gtest/gtest.h>

#include <locale>
#include <stdexcept>
#include <utility>

#include "tests/support/capturedlog.h"

namespace velmora {
namespace {

using test::CapturedLog;
using Messages = std::vector<std::string>;

int evaluations = 0;

int countEvaluation() { return ++evaluations; }

void logInEveryForm() {
    VELMORA_LOG(info, "log") << countEvaluation();
    VELMORA_LOGF(info, "log", "%d", countEvaluation());
    VELMORA_LOG_SCOPE(info, "log", countEvaluation());
}

struct LifeOfALogger {
    int lines = 0;
    int stops = 0;
    int ends = 0;
};

// Keeps nothing, and throws at every line if told so.
class ProbeLogger : public Logger {
public:
    explicit ProbeLogger(LifeOfALogger& life, bool throws = false) : life_(life), throws_(throws) {}
    ~ProbeLogger() override { ++life_.ends; }
    LogLevel getLogLevel() override { return LogLevel::trace; }
    void setLogLevel(LogLevel) override {}
    void logf(LogLevel, const char*, const char*, const char*, int, const char*, ...) override { line(); }
    void log(LogLevel, const char*, const char*, const char*, int, std::ostringstream&) override { line(); }
    void stop() override { ++life_.stops; }

private:
    void line() {
        ++life_.lines;
        if (throws_) throw std::runtime_error("no more room");
    }

    LifeOfALogger& life_;
    const bool throws_;
};

TEST(LogStatements, EvaluateNothingBelowTheLevelOrWithoutALogger) {
    logInEveryForm();
    {
        const CapturedLog log(LogLevel::warn);
        logInEveryForm();
        logger()->setLogLevel(LogLevel::off);
        EXPECT_FALSE(logs(LogLevel::always));
        EXPECT_TRUE(log.lines().empty());
    }
    EXPECT_EQ(evaluations, 0);
    const CapturedLog log(LogLevel::info);
    logInEveryForm();
    EXPECT_EQ(log.messages(), (Messages{"1", "2", "Begin 3", "End 3"}));
    EXPECT_EQ(log.lines()[2].function, "velmora::logInEveryForm");
}

TEST(LogStatements, LoseTheLineOfALoggerThatThrows) {
    LifeOfALogger life;
    setLogger(std::make_unique<ProbeLogger>(life, true));
    EXPECT_NO_THROW(logInEveryForm());
    EXPECT_EQ(life.lines, 5) << "the start of the logger among them";
    setLogger(nullptr);
}

TEST(LogStatements, FormatNumbersWhateverTheHostsLocale) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const CapturedLog log;
    VELMORA_LOG(info, "log") << 1234567;
    { VELMORA_LOG_SCOPE(info, "log", 7654321); }
    std::locale::global(before);
    EXPECT_EQ(log.messages(), (Messages{"1234567", "Begin 7654321", "End 7654321"}));
}

TEST(LogScope, WritesAPairAlsoWhenItIsMoved) {
    const CapturedLog log;
    {
        LogScope first(LogLevel::info, "log", "velmora::f", __FILE__, __LINE__);
        *first.stream() << "work";
        first.begin();
        const LogScope second(std::move(first));
        EXPECT_EQ(log.messages(), Messages{"Begin work"});
    }
    EXPECT_EQ(log.messages(), (Messages{"Begin work", "End work"}));
}

TEST(SetLogger, EndsThePredecessorAndStopsTheLast) {
    LifeOfALogger first;
    LifeOfALogger second;
    setLogger(std::make_unique<ProbeLogger>(first));
    setLogger(std::unique_ptr<Logger>(logger()));
    EXPECT_EQ(first.ends, 0) << "it was installed already";
    setLogger(std::make_unique<ProbeLogger>(second));
    EXPECT_EQ(first.ends, 1);
    setLogger(nullptr);
    EXPECT_EQ(second.stops, 1);
    EXPECT_EQ(second.ends, 1);
    EXPECT_EQ(second.lines, 2) << "its start and its stop";
    EXPECT_EQ(logger(), nullptr);
}

}  // namespace
}  // namespace velmora
