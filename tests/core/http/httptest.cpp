#include <gtest/gtest.h>

#include <sstream>

#include "core/http/message.h"
#include "core/http/retryhandler.h"
#include "core/types/errors.h"
#include "tests/support/capturedlog.h"

namespace velmora::http {
namespace {

using std::chrono::milliseconds;
using test::CapturedLog;

TEST(Response, KeepsHeadersWithoutRegardToCase) {
    Response response;
    EXPECT_EQ(response.getRetryAfter(), 0);
    for (const auto& [text, seconds] : {std::pair("5", 5), {"Wed, 21 Oct", -1}, {"7s", 7}}) {
        response.headers["Retry-After"] = text;
        response.headers["retry-after"] = text;
        EXPECT_EQ(response.headers.size(), 1u);
        EXPECT_EQ(response.headers.begin()->first, "Retry-After");
        EXPECT_EQ(response.getRetryAfter(), seconds);
    }
}

struct Answer {
    std::string text;
};

class AnswerParser : public JsonDefaultParser {
public:
    explicit AnswerParser(Answer& answer) : answer_(answer) {}
    void onString(const std::string&, const std::string& value) override { answer_.text = value; }

private:
    Answer& answer_;
};

TEST(Response, BodiesAreReadUnlessTheExchangeFailed) {
    const struct {
        std::error_code error;
        std::string body, outcome;
    } rows[] = {
        {{}, "{\"a\":\"yes\"}", "yes success:0"},
        {{}, "{}", " success:0"},
        {{}, "", " json_error:1"},
        {{}, "[]", " json_error:18"},
        {static_cast<Status>(404), "{\"a\":\"no\"}", " http_error:404"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.body);
        Answer answer;
        const std::error_code error = parseBody<AnswerParser>({200, {}, row.body, row.error}, answer);
        EXPECT_EQ(answer.text + " " + (error ? toString(error) : "success:0"), row.outcome);
    }
}

TEST(RetryHandler, DecidesByErrorAndRetryAfter) {
    constexpr milliseconds kNone(0);
    constexpr milliseconds kNotAsked(-1);
    const struct {
        const char* what;
        std::error_code error;
        const char* retryAfter;
        milliseconds delay;
    } rows[] = {
        {"server names a pause", static_cast<Status>(503), "2", milliseconds(2000)},
        {"pause of nothing", static_cast<Status>(503), "0", kNone},
        {"a date", static_cast<Status>(429), "Wed, 21 Oct", kNone},
        {"beyond 32 bits", static_cast<Status>(408), "2147484", kNone},
        {"final fault of the server", static_cast<Status>(501), "2", kNotAsked},
        {"error of transport, not added", VelmoraHttpError::offline, "2", kNotAsked},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        milliseconds asked = kNotAsked;
        RetryHandler handler([&](milliseconds delay, uint32_t) {
            asked = delay;
            return true;
        });
        handler.addRetriable(VelmoraHttpError::retriable);
        Response response;
        response.error = row.error;
        response.headers["retry-after"] = row.retryAfter;
        EXPECT_EQ(handler.shouldRetry(response), row.delay != kNotAsked);
        EXPECT_EQ(asked, row.delay);
    }
}

TEST(RetryHandler, CountsOnlyRetriesThatItsOwnerBegan) {
    const CapturedLog log;
    std::vector<uint32_t> attempts;
    bool willing = true;
    RetryHandler handler([&](milliseconds, uint32_t attempt) {
        attempts.push_back(attempt);
        return willing;
    });
    Response response;
    response.error = static_cast<Status>(503);
    EXPECT_TRUE(handler.shouldRetry(response));
    willing = false;
    EXPECT_FALSE(handler.shouldRetry(response));
    EXPECT_TRUE(log.has(LogLevel::info, "http", "Cancelled during wait before retry, erroring out"));
    willing = true;
    EXPECT_TRUE(handler.shouldRetry(response));
    EXPECT_TRUE(handler.shouldRetry(response));
    EXPECT_EQ(attempts, (std::vector<uint32_t>{0, 1, 1, 2}));
}

}  // namespace
}  // namespace velmora::http
