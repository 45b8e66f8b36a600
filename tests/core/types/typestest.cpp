#include "core/types/types.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <stdexcept>

#include "core/types/errors.h"
#include "core/types/exceptions.h"
#include "core/types/httpstatus.h"
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
        {reading(sourceCategoryFromString), "UNKNOWN", 4, "unknown source category: UNKNOWN defaulting to UNKNOWN"},
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

}  // namespace
}  // namespace velmora
