#include "core/types/types.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <locale>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "core/http/message.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "tests/support/capturedlog.h"

namespace velmora {
namespace {

template <typename Enum>
std::function<int(const std::string&)> reading(Enum (*fromString)(const std::string&)) {
    return [fromString](const std::string& text) { return static_cast<int>(fromString(text)); };
}

TEST(Enumerations, AreReadWithoutRegardToCaseAndFallBackWithAWarning) {
    const struct {
        std::function<int(const std::string&)> read;
        const char* text;
        int value;
        const char* warning;
    } rows[] = {
        {reading(environmentFromString), "", 1, "unknown environment:  defaulting to stage"},
        {reading(logLevelFromString), "WARN", 3, nullptr},
        {reading(logLevelFromString), "warning", 2, "unknown loglevel: warning defaulting to error"},
        {reading(sourceTypeFromString), "guest", 1, "unknown source type: guest defaulting to component"},
        {reading(sourceCategoryFromString), "WeB", 2, nullptr},
        {reading(sourceCategoryFromString), "UNKNOWN", 4, nullptr},
        {reading(sourceCategoryFromString), "TV", 4, "unknown source category: TV defaulting to UNKNOWN"},
        {reading(consentFromString), "yes", 0, "unknown consent: yes defaulting to default"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const test::CapturedLog log;
        EXPECT_EQ(row.read(row.text), row.value);
        EXPECT_EQ(log.lines().size(), row.warning == nullptr ? 0U : 1U);
        EXPECT_EQ(row.warning != nullptr, log.has(LogLevel::warn, "types", row.warning == nullptr ? "" : row.warning));
    }
    EXPECT_EQ(environmentToString(static_cast<Environment>(2)), "unknown");
    EXPECT_EQ(logLevelToString(static_cast<LogLevel>(-1)), "unknown");
    EXPECT_EQ(sourceCategoryToString(static_cast<SourceCategory>(5)), "UNKNOWN");
}

TEST(ErrorDomains, NameTheirCodesAndTheNumbersThatAreNone) {
    const struct {
        const std::error_category& category;
        int value;
        const char* message;
    } rows[] = {
        {velmoraCategory(), 22, "opt_out"},
        {velmoraCategory(), 23, "Unrecognized error code: 23"},
        {velmoraHttpCategory(), 7, "offline"},
        {velmoraHttpCategory(), 8, "Unrecognized error code: 8"},
        {fqCategory(), 3, "file_corrupt"},
        {fqCategory(), 4, "Unrecognized error code: 4"},
        {jsonCategory(), 18, "ExceptionThrown"},
        {jsonCategory(), 19, "Unrecognized JSON error code 19"},
        {http::httpCategory(), 522, "CloudFlareConnectionTimedOut"},
        {http::httpCategory(), 430, "Unrecognized HTTP status code 430"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.category.message(row.value), row.message);
    std::ostringstream printed;
    for (const int status : {200, 101, 299}) printed << static_cast<http::Status>(status) << "; ";
    EXPECT_EQ(printed.str(), "200 Ok; 101 SwitchingProtocls; 299 unknown; ");
}

TEST(ExceptionFrames, TurnWhatIsThrownIntoALineAndANumber) {
    const struct {
        std::function<void()> body;
        int result;
        const char* line;
    } rows[] = {
        {[] { throw std::system_error(VelmoraError::opt_out); }, 22, "exception opt_out velmora_error:22"},
        {[] { throw FQException(FQError::file_corrupt); }, 1, "exception file_corrupt fq_error:3"},
        {[] { throw std::system_error(VelmoraError::none); }, 0, "exception none velmora_error:0"},
        {[] { throw std::system_error(FQError::none); }, 1, "exception none fq_error:0"},
        {[] { throw std::runtime_error("broken"); }, 1, "exception broken"},
        {[] { throw 7; }, 1, "unknown exception"},
        {[] {}, 0, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line == nullptr ? "nothing" : row.line);
        const test::CapturedLog log(LogLevel::error);
        EXPECT_EQ(exceptionToVelmoraError(row.body), row.result);
        exceptionSafeWrapper(row.body);
        const auto lines = log.lines();
        if (row.line == nullptr) {
            EXPECT_TRUE(lines.empty());
            continue;
        }
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_TRUE(log.has(LogLevel::error, "utils", row.line));
        EXPECT_EQ(lines[0].message, lines[1].message);
        EXPECT_EQ(lines[0].function, "velmora::exceptionToVelmoraError");
        EXPECT_EQ(lines[1].function, "velmora::exceptionSafeWrapper");
    }
}

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

// Counts the lines that reach it after its end.
struct LimpLogger : Logger {
    explicit LimpLogger(LifeOfALogger& life) : life_(life) {}
    ~LimpLogger() override { *alive_ = false; }
    LogLevel getLogLevel() override { return LogLevel::info; }
    void setLogLevel(LogLevel) override {}
    void logf(LogLevel, const char*, const char*, const char*, int, const char*, ...) override { line(); }
    void log(LogLevel, const char*, const char*, const char*, int, std::ostringstream&) override { line(); }

private:
    void line() {
        const std::shared_ptr<std::atomic<bool>> alive = alive_;
        LifeOfALogger& life = life_;
        std::this_thread::yield();
        if (!*alive) ++life.lines;
    }

    LifeOfALogger& life_;
    const std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
};

TEST(LogStatements, EvaluateNothingBelowTheLevelOrWithoutALogger) {
    evaluations = 0;
    logInEveryForm();
    {
        const CapturedLog log(LogLevel::warn);
        logInEveryForm();
        setLogLevel(LogLevel::off);
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

TEST(LogScope, BeginAndEndDecideEachForThemselves) {
    const CapturedLog log(LogLevel::info);
    {
        VELMORA_LOG_SCOPE(info, "log", "quiet end");
        setLogLevel(LogLevel::warn);
    }
    {
        VELMORA_LOG_SCOPE(info, "log", "quiet begin");
        setLogLevel(LogLevel::info);
    }
    EXPECT_EQ(log.messages(), (Messages{"Begin quiet end", "End quiet begin"}));
}

TEST(SetLogger, NobodyMeetsALoggerThatHasGone) {
    std::atomic<bool> done = false;
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i) {
        writers.emplace_back([&] {
            while (!done) {
                VELMORA_LOG(info, "log") << "line";
                VELMORA_LOGF(info, "log", "%d", 1);
            }
        });
    }
    LifeOfALogger life;
    for (int round = 0; round < 50; ++round) {
        setLogger(std::make_unique<LimpLogger>(life));
        setLogger(round % 2 == 0 ? nullptr : std::make_unique<LimpLogger>(life));
    }
    done = true;
    for (std::thread& writer : writers) writer.join();
    setLogger(nullptr);
    EXPECT_EQ(life.lines, 0) << "lines of a logger whose destructor has begun";
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
