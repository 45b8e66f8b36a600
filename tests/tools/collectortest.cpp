#include "tools/velmora/collector.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <thread>

#include "core/json/jsontext.h"
#include "service/ingest/ingestrequest.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"
#include "tests/tools/httpclient.h"

namespace velmora::tool {
namespace {

constexpr size_t kMaxBatch = 200000;
using test::HttpHeaders;
using test::HttpReply;

const HttpHeaders kKey{{"x-api-key", "k"}};

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

    HttpReply ask(const std::string& method, const std::string& target, const HttpHeaders& headers = {},
                  const std::string& body = "", std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
        return test::exchange(collector_->port(), method, target, headers, body, limit);
    }

    // The status; 0 if there was no complete answer.
    int post(const std::string& body, HttpHeaders headers = kKey, const std::string& encoding = "") const {
        if (!encoding.empty()) headers.emplace_back("Content-Encoding", encoding);
        return ask("POST", "/ingest", headers, body).status;
    }

    JsonDocument get(const std::string& path) const {
        JsonDocument document;
        const HttpReply reply = ask("GET", path);
        EXPECT_EQ(reply.status, 200) << path << reply.body;
        EXPECT_FALSE(parseValue(document, reply.body).IsError()) << reply.body;
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
        {"?event.none=!w&order=desc", "caba"},
        {"?event.workflow=*&batch=1", "ab"},
        {"?text=OTHER", "b"},
        {"?signedIn=1", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.query);
        std::string guids;
        const JsonDocument answer = get(std::string("/events") + row.query);
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
        HttpHeaders headers;
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
    auto script = [&](const std::string& json) { return ask("POST", "/script", {}, json).status; };
    EXPECT_EQ(script(R"({"fail":2,"status":503,"retryAfter":7})"), 200);
    const HttpReply failed = ask("POST", "/ingest", kKey, body);
    EXPECT_EQ(failed.status, 503);
    EXPECT_EQ(failed.retryAfter, "7");
    EXPECT_EQ(post(body), 503);
    EXPECT_EQ(post(body), 200);
    EXPECT_EQ(stat("events"), 1);

    EXPECT_EQ(script(R"({"drop":true})"), 200);
    EXPECT_EQ(post(body), 0);
    EXPECT_EQ(stat("events"), 1);

    EXPECT_EQ(script(R"({"lateAnswer":true,"delayMs":60000})"), 200);
    EXPECT_EQ(ask("POST", "/ingest", kKey, body, std::chrono::milliseconds(200)).status, 0);
    EXPECT_EQ(stat("events"), 2);

    EXPECT_EQ(script(R"({"fail":5})"), 200);
    EXPECT_EQ(script(R"({"fail":0})"), 200);
    EXPECT_EQ(post(body), 200);
    for (const char* bad : {"", "[]", R"({"fail":-1})", R"({"status":99})", R"({"drop":1})", R"({"unknown":1})"})
        EXPECT_EQ(script(bad), 400) << bad;
    EXPECT_EQ(stat("scripted"), 4);
}

TEST_F(CollectorTest, AnswersForIdentityAndTracking) {
    EXPECT_EQ(ask("GET", "/oswin/profile").status, 401);
    EXPECT_EQ(ask("GET", "/fetch_user_tracking_flag", {{"Access-Token", "t"}}).body, R"({"tracking_flag":"PII"})");
    EXPECT_EQ(ask("GET", "/fetch_user_tracking_flag").status, 401);

    CollectorOptions failing = options();
    failing.identityStatus = 401;
    restart(failing);
    EXPECT_EQ(ask("GET", "/oswin/profile", {{"Authorization", "Bearer t"}}).status, 401);
    failing.profile = "no JSON";
    EXPECT_THROW(Collector{failing}, std::invalid_argument);
}

TEST_F(CollectorTest, HoldsKeysToTheirProjectsEnvironmentsAndRates) {
    CollectorOptions ruled = options();
    ruled.keysFile = (folder_ / "keys.json").string();
    ruled.retryAfter = 5;
    ruled.retrySpread = 1;
    test::writeFile(
        folder_ / "keys.json",
        R"({"keys":[{"key":"a","project":"p"},{"key":"b","environments":["prod"]},{"key":"c","rate":0.1}]})");
    restart(ruled);
    const auto status = [&](const char* key, const std::string& text) {
        return post(batch(text), {{"x-api-key", key}});
    };
    EXPECT_EQ(status("a", event("1")), 200);
    EXPECT_EQ(status("a", event("1", "w", "q")), 403);
    EXPECT_EQ(status("b", event("1")), 403);
    EXPECT_EQ(status("d", event("1")), 403);
    EXPECT_EQ(status("c", event("1") + "," + event("2")), 200);
    const HttpReply over = ask("POST", "/ingest", {{"x-api-key", "c"}}, batch(event("3")));
    EXPECT_EQ(over.status, 429);
    EXPECT_TRUE(over.retryAfter == "5" || over.retryAfter == "6") << over.retryAfter;
    EXPECT_EQ(stat("events"), 3);
    EXPECT_EQ(get("/rejections")["rejections"].Size(), 4U);

    test::writeFile(folder_ / "keys.json", R"({"keys":[{"key":"d","project":"other"},{"key":"dd"}]})");
    for (int tries = 0; tries < 100 && status("dd", event("4")) != 200; ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(status("a", event("1")), 403);
    test::writeFile(folder_ / "keys.json", "{\"keys\":[{}]}");
    EXPECT_THROW(Collector{ruled}, std::invalid_argument);
}

TEST_F(CollectorTest, KeepsOtherSitesOutAndPagesWithoutEnd) {
    std::string many = event("g0");
    for (int i = 1; i < 1300; ++i) many += "," + event("g" + std::to_string(i));
    EXPECT_EQ(post(gzip(batch(many)), kKey, "gzip"), 200);
    EXPECT_EQ(get("/events?limit=1300")["events"].Size(), 1300U);
    const JsonDocument page = get("/events");
    EXPECT_EQ(page["events"].Size(), 1000U);
    EXPECT_EQ(get("/events?since=" + std::to_string(page["next"].GetInt()))["events"].Size(), 300U);
    const HttpReply lines = ask("GET", "/events?format=ndjson");
    EXPECT_EQ(std::count(lines.body.begin(), lines.body.end(), '\n'), 1300);

    EXPECT_EQ(ask("GET", "/events", {{"Host", "evil.example"}}).status, 403);
    EXPECT_EQ(ask("DELETE", "/events", {{"Origin", "http://evil.example"}}).status, 403);
    CollectorOptions open = options();
    open.host = "0.0.0.0";
    open.token = "t0";
    restart(open);
    EXPECT_EQ(ask("DELETE", "/events").status, 401);
    EXPECT_EQ(ask("DELETE", "/events", {{"Authorization", "Bearer t0"}}).status, 200);
    EXPECT_EQ(stat("events"), 0);
}

TEST_F(CollectorTest, SharesItsPortWithNobodyAndBoundsWhatItHolds) {
    CollectorOptions second = options();
    second.port = collector_->port();
    EXPECT_THROW(Collector{second}, std::runtime_error);

    CollectorOptions tight = options();
    tight.server.maxMemory = 10000;
    restart(tight);
    EXPECT_EQ(post(batch(std::string(20000, ' ') + event("a"))), 503);
    EXPECT_EQ(ask("POST", "/script", {{"Content-Encoding", "gzip"}}, gzip(std::string(1 << 20, ' '))).status, 400);
    EXPECT_EQ(ask("GET", "/readyz").status, 200);
    EXPECT_NE(ask("GET", "/metrics").body.find("velmora_collect_requests_total{status=\"503\"} 1\n"),
              std::string::npos);
    EXPECT_EQ(post(batch(event("a"))), 200);
}

TEST_F(CollectorTest, AnswersWhatWasBegunWhenItStops) {
    collector_->playScript(R"({"lateAnswer":true,"delayMs":60000})");
    int status = -1;
    std::thread poster([&] { status = post(batch(event("a"))); });
    while (stat("events") == 0) std::this_thread::yield();
    collector_->stop();
    poster.join();
    EXPECT_EQ(status, 200);
}

}  // namespace
}  // namespace velmora::tool
