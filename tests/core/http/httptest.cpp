#include <gtest/gtest.h>

#include <sstream>

#include "core/http/message.h"
#include "core/http/parsingresponder.h"
#include "core/http/retryhandler.h"
#include "core/types/errors.h"
#include "tests/support/capturedlog.h"

namespace velmora::http {
namespace {

using std::chrono::milliseconds;
using test::CapturedLog;

TEST(Response, TakesErrorsFromStatusAndKeepsHeadersWithoutRegardToCase) {
    for (const auto& [status, isError] : {std::pair(399, false), {400, true}, {599, true}, {600, false}, {0, false}}) {
        Response response;
        response.setStatus(status);
        EXPECT_EQ(response.error, isError ? make_error_code(static_cast<Status>(status)) : std::error_code());
    }
    Response response;
    EXPECT_EQ(response.getRetryAfter(), 0);
    for (const auto& [text, seconds] : {std::pair("5", 5), {"Wed, 21 Oct", -1}, {"7s", 7}}) {
        response.setHeader("Retry-After", text);
        response.setHeader("retry-after", text);
        EXPECT_EQ(response.headers.size(), 1u);
        EXPECT_EQ(response.headers.begin()->first, "Retry-After");
        EXPECT_EQ(response.getRetryAfter(), seconds);
    }
}

TEST(Response, InsertsChunksAndDropsThoseBehindAHole) {
    const CapturedLog log;
    Response response;
    response.addBodyChunk(0, "hello", 5);
    response.addBodyChunk(6, "lost", 4);
    EXPECT_TRUE(log.has(LogLevel::error, "http",
                        "Missing chunk of the response body. Asked to insert 'lost' at offset 6, but our body only has "
                        "length 5"));
    response.addBodyChunk(5, "!\0", 2);
    response.addBodyChunk(0, "<", 1);
    EXPECT_EQ(response.body, std::string("<hello!\0", 8));
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

TEST(JsonResponder, AnswersByStatusAndBody) {
    const struct {
        int status;
        std::string body, outcome;
    } rows[] = {
        {200, "{\"a\":\"yes\"}", "parsed yes"},
        {299, "{}", "parsed "},
        {204, "", "json_error:1 "},
        {200, "[]", "json_error:18 []"},
        {404, "{\"a\":\"no\"}", "http_error:404 {\"a\":\"no\"}"},
        {302, "{}", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        const CapturedLog log(LogLevel::info);
        std::string outcome;
        JsonResponder<Answer, AnswerParser> responder(
            [&](const Answer& answer, const Response&) { outcome = "parsed " + answer.text; },
            [&](std::error_code error, const Response& response) {
                EXPECT_EQ(error, response.error);
                outcome = toString(error) + " " + response.body;
            });
        responder.setStatus(row.status);
        responder.addBodyChunk(0, row.body.data(), row.body.size());
        responder.onSuccess();
        EXPECT_EQ(outcome, row.outcome);
        EXPECT_EQ(log.lines().size(), row.outcome.empty() ? 1u : 0u);
        responder.onFailure(VelmoraHttpError::cancelled);
        EXPECT_EQ(outcome, "velmora_http_error:4 " + row.body);
    }
}

TEST(RetryHandler, DecidesByErrorAndRetryAfter) {
    constexpr milliseconds kDefault(70);
    constexpr milliseconds kNotAsked(-1);
    const struct {
        const char* what;
        std::error_code error;
        const char* retryAfter;
        milliseconds delay;
    } rows[] = {
        {"server names a pause", static_cast<Status>(503), "2", milliseconds(2000)},
        {"pause of nothing", static_cast<Status>(503), "0", kDefault},
        {"a date", static_cast<Status>(429), "Wed, 21 Oct", kDefault},
        {"beyond 32 bits", static_cast<Status>(408), "2147484", kDefault},
        {"final fault of the server", static_cast<Status>(501), "2", kNotAsked},
        {"error of transport, not added", VelmoraHttpError::offline, "2", kNotAsked},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        milliseconds asked = kNotAsked;
        RetryHandler handler(4, kDefault, [&](milliseconds delay, uint32_t) {
            asked = delay;
            return true;
        });
        handler.addRetriable(VelmoraHttpError::retriable);
        Response response;
        response.error = row.error;
        response.setHeader("retry-after", row.retryAfter);
        EXPECT_EQ(handler.shouldRetry(response), row.delay != kNotAsked);
        EXPECT_EQ(asked, row.delay);
    }
}

TEST(RetryHandler, CountsOnlyRetriesThatItsOwnerBegan) {
    const CapturedLog log;
    std::vector<uint32_t> attempts;
    bool willing = true;
    RetryHandler handler(1, milliseconds(0), [&](milliseconds, uint32_t attempt) {
        attempts.push_back(attempt);
        return willing;
    });
    Response response;
    response.setStatus(503);
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
