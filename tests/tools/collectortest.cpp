#include "tools/velmora/collector.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <rapidjson/document.h>

#include "core/json/jsontext.h"
#include "service/ingest/ingestrequest.h"
#include "tests/support/tempfolder.h"

namespace velmora::tool {
namespace {

constexpr size_t kMaxBatch = 200000;
const httplib::Headers kKey{{"x-api-key", "k"}};

std::string gzip(const std::string& text) { return service::ingest::compressGzip(text.data(), text.size(), 9); }

std::string event(const std::string& guid, const std::string& workflow = "w", const std::string& project = "p") {
    return R"({"project":")" + project + R"(","data":{"event.guid":")" + guid + R"(","event.workflow":")" + workflow +
           R"(","event.count":3}})";
}

std::string batch(const std::string& events) { return "{\"events\":[\n" + events + "\n]}"; }

class CollectorTest : public testing::Test {
protected:
    CollectorTest() { restart(); }

    CollectorOptions options() const {
        CollectorOptions options;
        options.store = folder_.string() + "/events.db";
        options.maxBodyBytes = 50000;
        options.maxBatchBytes = kMaxBatch;
        options.quiet = true;
        return options;
    }

    void restart() { restart(options()); }
    void restart(const CollectorOptions& chosen) {
        collector_.reset();
        collector_ = std::make_unique<Collector>(chosen);
        collector_->start();
    }

    httplib::Client client() const {
        httplib::Client client("127.0.0.1", collector_->port());
        client.set_read_timeout(10);
        return client;
    }

    // The status; 0 if there was no complete answer.
    int post(const std::string& body, httplib::Headers headers = kKey, const std::string& encoding = "") const {
        if (!encoding.empty()) headers.emplace("Content-Encoding", encoding);
        const auto result = client().Post("/ingest", headers, body, "application/json");
        return result ? result->status : 0;
    }

    rapidjson::Document get(const std::string& path) const {
        rapidjson::Document document;
        const auto result = client().Get(path);
        EXPECT_TRUE(result && result->status == 200) << path;
        EXPECT_FALSE(!result || parseValue(document, result->body).IsError());
        return document;
    }

    int64_t stat(const char* name) const { return get("/stats")[name].GetInt64(); }

    test::TempFolder folder_;
    std::unique_ptr<Collector> collector_;
};

TEST_F(CollectorTest, KeepsWhatArrivesInOrderAndFindsItAgain) {
    EXPECT_EQ(post(gzip(batch(event("a") + ",\n" + event("b", "other"))), kKey, "gzip"), 200);
    EXPECT_EQ(post(batch(event("a") + "," + event("c", "w", "q"))), 200);
    restart();
    const struct {
        const char *query, *guids;
    } rows[] = {
        {"", "abac"},
        {"?project=q", "c"},
        {"?guid=a", "aa"},
        {"?since=2", "ac"},
        {"?since=2999-01-01", ""},
        {"?since=2001-01-01&limit=2&offset=1", "ba"},
        {"?event.workflow=other", "b"},
        {"?event.workflow=w&event.count=3&project=p", "aa"},
        {"?event.none=w", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.query);
        std::string guids;
        const rapidjson::Document answer = get(std::string("/events") + row.query);
        for (const auto& found : answer["events"].GetArray()) {
            guids += found["guid"].GetString();
            EXPECT_EQ(found["event"]["data"]["event.guid"], found["guid"]);
        }
        EXPECT_EQ(guids, row.guids);
    }
    EXPECT_EQ(get("/events?limit=1")["total"].GetInt(), 4);
    EXPECT_EQ(stat("events"), 4);
    EXPECT_EQ(stat("distinct"), 3);
    EXPECT_EQ(stat("duplicates"), 1);
    EXPECT_EQ(stat("batches"), 2);
    EXPECT_EQ(stat("rejected"), 0);
}

TEST_F(CollectorTest, RefusesWhatIsNoBatchAndStaysUsable) {
    const std::string good = batch(event("a"));
    std::string damaged = gzip(good);
    damaged[damaged.size() / 2] = static_cast<char>(~damaged[damaged.size() / 2]);
    const std::string bomb = gzip(std::string(kMaxBatch * 3, ' '));
    const std::string bigBomb = gzip(std::string(kMaxBatch * 40, ' '));
    const struct {
        const char* what;
        std::string body;
        httplib::Headers headers;
        const char* encoding;
        int status;
    } rows[] = {
        {"no key", good, {}, "", 401},
        {"no JSON", "{\"events\":[", kKey, "", 400},
        {"no object", "[1]", kKey, "", 400},
        {"no events", "{\"event\":[]}", kKey, "", 400},
        {"an event that is no object", batch("1"), kKey, "", 400},
        {"damaged gzip", damaged, kKey, "gzip", 400},
        {"plain text called gzip", good, kKey, "gzip", 400},
        {"cut gzip", gzip(good).substr(0, 20), kKey, "gzip", 400},
        {"a bomb", bomb, kKey, "gzip", 413},
        {"too long as sent", std::string(50001, ' '), kKey, "", 413},
    };
    int64_t rejected = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(post(row.body, row.headers, row.encoding), row.status);
        EXPECT_EQ(stat("rejected"), ++rejected);
    }
    post(bigBomb, kKey, "gzip");  // given up on the way: an answer is not promised, only that the service goes on
    EXPECT_EQ(stat("events"), 0);
    EXPECT_EQ(post(good), 200);
    EXPECT_EQ(stat("events"), 1);
}

TEST_F(CollectorTest, DemandsItsKey) {
    CollectorOptions guarded = options();
    guarded.apiKey = "secret";
    restart(guarded);
    EXPECT_EQ(post(batch(event("a"))), 403);
    EXPECT_EQ(post(batch(event("a")), {{"x-api-key", "secret"}}), 200);
    EXPECT_EQ(stat("events"), 1);
}

TEST_F(CollectorTest, MisbehavesAsTheScriptSays) {
    const std::string body = batch(event("a"));
    auto script = [&](const std::string& json) {
        const auto result = client().Post("/script", json, "application/json");
        return result ? result->status : 0;
    };
    EXPECT_EQ(script(R"({"fail":2,"status":503,"retryAfter":7})"), 200);
    const auto failed = client().Post("/ingest", kKey, body, "application/json");
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->status, 503);
    EXPECT_EQ(failed->get_header_value("Retry-After"), "7");
    EXPECT_EQ(post(body), 503);
    EXPECT_EQ(post(body), 200);
    EXPECT_EQ(stat("events"), 1);

    EXPECT_EQ(script(R"({"drop":true})"), 200);
    EXPECT_EQ(post(body), 0);
    EXPECT_EQ(stat("events"), 1);

    EXPECT_EQ(script(R"({"lateAnswer":true,"delayMs":60000})"), 200);
    httplib::Client impatient = client();
    impatient.set_read_timeout(0, 200000);
    EXPECT_FALSE(impatient.Post("/ingest", kKey, body, "application/json"));
    EXPECT_EQ(stat("events"), 2);

    EXPECT_EQ(script(R"({"fail":5})"), 200);
    EXPECT_EQ(script(R"({"fail":0})"), 200);
    EXPECT_EQ(post(body), 200);
    for (const char* bad : {"", "[]", R"({"fail":-1})", R"({"status":99})", R"({"drop":1})", R"({"unknown":1})"})
        EXPECT_EQ(script(bad), 400) << bad;
    EXPECT_EQ(stat("scripted"), 4);
}

TEST_F(CollectorTest, AnswersForIdentityAndTracking) {
    EXPECT_EQ(client().Get("/oswin/profile")->status, 401);
    EXPECT_EQ(client().Get("/fetch_user_tracking_flag", {{"Access-Token", "t"}})->body, R"({"tracking_flag":"PII"})");
    EXPECT_EQ(client().Get("/fetch_user_tracking_flag")->status, 401);

    CollectorOptions failing = options();
    failing.identityStatus = 401;
    restart(failing);
    EXPECT_EQ(client().Get("/oswin/profile", {{"Authorization", "Bearer t"}})->status, 401);
    failing.profile = "no JSON";
    EXPECT_THROW(Collector{failing}, std::invalid_argument);
}

}  // namespace
}  // namespace velmora::tool
