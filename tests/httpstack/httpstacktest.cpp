#include "velmora/httpstack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <thread>

#include "httpstack/settings.h"
#include "tests/httpstack/fakelibrary.h"
#include "tests/httpstack/scriptedserver.h"

namespace velmora::test {
namespace {

// An installed stack for the length of a test; impatient, since some of the servers never answer.
class InstalledStack {
public:
    explicit InstalledStack(uint32_t totalTimeoutMs = 20000, const velmora_httpstack_route* route = nullptr) {
        velmora_httpstack_options options;
        velmora_httpstack_defaults(&options);
        options.totalTimeoutMs = totalTimeoutMs;
        options.proxy = "";
        options.routes = route;
        options.routeCount = route == nullptr ? 0 : 1;
        EXPECT_EQ(velmora_httpstack_install(&options), VELMORA_OK);
    }
    ~InstalledStack() { velmora_httpstack_uninstall(); }
};

std::string bigBody() {
    std::string body(300000, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 31 + i / 251);
    return body;
}

ScriptedAnswer answerByPath(const ReceivedRequest& request) {
    const std::string& path = request.path;
    if (path == "/chunked")
        return {
            "HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\nx-late: 1\r\n\r\n"};
    if (path == "/interim") return {"HTTP/1.1 103 Early Hints\r\nx-a: 1\r\n\r\n" + httpAnswer("200 OK", "hello world")};
    if (path == "/to-end") return {"HTTP/1.1 200 OK\r\nconnection: close\r\n\r\nhello world"};
    if (path == "/busy") return {httpAnswer("503 Service Unavailable", "hello world", "Retry-After: 7\r\n")};
    if (path == "/empty") return {httpAnswer("204 No Content", "")};
    if (path == "/moved") return {httpAnswer("302 Found", "elsewhere", "Location: /landed\r\n")};
    if (path == "/moved-permanently") return {httpAnswer("308 Permanent Redirect", "", "Location: /landed\r\n")};
    if (path == "/loop") return {httpAnswer("307 Temporary Redirect", "", "Location: /loop\r\n")};
    if (path == "/to-file") return {httpAnswer("302 Found", "", "Location: file:///etc/hostname\r\n")};
    if (path == "/silent-close") return {""};
    if (path == "/half-head") return {"HTTP/1.1 200 OK\r\ncontent-le"};
    if (path == "/only-interim") return {"HTTP/1.1 103 Early Hints\r\nx-a: 1\r\n\r\n"};
    if (path == "/half-body") return {"HTTP/1.1 200 OK\r\ncontent-length: 100\r\n\r\nhello"};
    if (path == "/half-chunk") return {"HTTP/1.1 200 OK\r\ntransfer-encoding: chunked\r\n\r\nff\r\nhello"};
    if (path == "/final-redirect") return {httpAnswer("304 Not Modified", "")};
    if (path == "/proxy") return {httpAnswer("407 Proxy Authentication Required", "log in")};
    if (path == "/long-head") return {httpAnswer("200 OK", "", "x-a: " + std::string(300000, 'a') + "\r\n")};
    if (path == "/long-heads") {
        std::string lines;
        for (int i = 0; i < 300; ++i) lines += "x-" + std::to_string(i) + ": " + std::string(1000, 'a') + "\r\n";
        return {httpAnswer("200 OK", "", lines)};
    }
    if (path == "/long-body") return {httpAnswer("200 OK", std::string(9 << 20, 'b'))};
    if (path == "/junk") return {"220 mail ready\r\n"};
    if (path == "/hang") return {"", true};
    if (path == "/hang-in-body") return {"HTTP/1.1 200 OK\r\ncontent-length: 100\r\n\r\nhello", true};
    return {httpAnswer("200 OK", "hello world", "X-Answer: yes\r\n")};
}

// What a system's own HTTP client makes of a response is not always in the stack's hands: docs/platforms.md names what
// such a client may pass off as complete, or may give up.
#ifdef VELMORA_TEST_SYSTEM_HTTP_CLIENT
constexpr bool kSystemClient = true;
#else
constexpr bool kSystemClient = false;
#endif

TEST(HttpStack, EveryServerGivesItsResponseOrARetriableError) {
    ScriptedServer server(answerByPath);
    const InstalledStack stack(8000);  // for all at once, on a busy machine
    const struct {
        const char* path;
        uint32_t result, status;
        const char* body;
    } rows[] = {
        {"/ok", VELMORA_HTTP_OK, 200, "hello world"},
        {"/chunked", VELMORA_HTTP_OK, 200, "hello world"},
        {"/interim", kSystemClient ? VELMORA_HTTP_RETRIABLE : VELMORA_HTTP_OK, kSystemClient ? 0U : 200U,
         kSystemClient ? "" : "hello world"},
        {"/to-end", VELMORA_HTTP_OK, 200, "hello world"},
        {"/busy", VELMORA_HTTP_OK, 503, "hello world"},
        {"/empty", VELMORA_HTTP_OK, 204, ""},
        {"/moved", VELMORA_HTTP_OK, 200, "hello world"},
        {"/moved-permanently", VELMORA_HTTP_OK, 200, "hello world"},
        {"/loop", VELMORA_HTTP_RETRIABLE, 0, ""},
        {"/silent-close", VELMORA_HTTP_RETRIABLE, 0, ""},
        {"/half-head", kSystemClient ? VELMORA_HTTP_OK : VELMORA_HTTP_RETRIABLE, kSystemClient ? 200U : 0U, ""},
        {"/only-interim", VELMORA_HTTP_RETRIABLE, 0, ""},
        {"/half-body", VELMORA_HTTP_RETRIABLE, 200, "hello"},
        {"/half-chunk", kSystemClient ? VELMORA_HTTP_OK : VELMORA_HTTP_RETRIABLE, 200, "hello"},
        {"/junk", VELMORA_HTTP_RETRIABLE, 0, ""},
        {"/hang", VELMORA_HTTP_RETRIABLE, 0, ""},
        {"/hang-in-body", VELMORA_HTTP_RETRIABLE, 200, "hello"},
        {"/to-file", VELMORA_HTTP_RETRIABLE, 0, ""},
        {"/final-redirect", VELMORA_HTTP_RETRIABLE, 304, ""},
        {"/proxy", VELMORA_HTTP_RETRIABLE, 407, "log in"},
        {"/long-head", kSystemClient ? VELMORA_HTTP_OK : VELMORA_HTTP_RETRIABLE, kSystemClient ? 200U : 0U, ""},
        {"/long-heads", VELMORA_HTTP_RETRIABLE, 0, ""},
        {"/long-body", VELMORA_HTTP_RETRIABLE, 200, nullptr},
    };
    std::deque<FakeExchange> exchanges;
    for (const auto& row : rows) {
        FakeExchange& exchange = exchanges.emplace_back();
        exchange.requestBody = "body";
        ASSERT_EQ(exchange.send(VELMORA_HTTP_POST, server.url(row.path)), VELMORA_HTTP_OK);
    }
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].path);
        FakeExchange& exchange = exchanges[i];
        ASSERT_TRUE(exchange.waitForEnd());
        EXPECT_EQ(exchange.result, rows[i].result);
        EXPECT_EQ(exchange.status, rows[i].status);
        if (rows[i].body == nullptr) {
            EXPECT_LE(exchange.responseBody.size(), size_t{8} << 20);
        } else {
            EXPECT_EQ(exchange.responseBody, rows[i].body);
        }
        EXPECT_EQ(exchange.message.empty(), rows[i].result == VELMORA_HTTP_OK);
        EXPECT_EQ(exchange.misuse, "");
    }
    EXPECT_EQ(exchanges[4].responseHeaders["Retry-After"], "7");
    EXPECT_EQ(exchanges[4].reason, "Service Unavailable");
    EXPECT_EQ(exchanges[2].responseHeaders.count("x-a"), 0U);
}

TEST(HttpStack, SendsVerbHeadersAndBodyAsTheLibraryGivesThem) {
    ScriptedServer server(answerByPath);
    const InstalledStack stack;
    FakeExchange post({{"content-type", "application/json"}, {"x-api-key", "k"}}, bigBody());
    FakeExchange get({{"Authorization", "Bearer t"}, {"x-empty", ""}}, "");
    ASSERT_EQ(post.send(VELMORA_HTTP_POST, server.url("/ok?a=b")), VELMORA_HTTP_OK);
    ASSERT_TRUE(post.waitForEnd());
    ASSERT_EQ(get.send(VELMORA_HTTP_GET, server.url("/ok")), VELMORA_HTTP_OK);
    ASSERT_TRUE(get.waitForEnd());

    const auto received = server.received();
    ASSERT_EQ(received.size(), 2U);
    EXPECT_EQ(received[0].method, "POST");
    EXPECT_EQ(received[0].path, "/ok?a=b");
    EXPECT_EQ(received[0].body, post.requestBody);
    EXPECT_EQ(received[0].headers.at("x-api-key"), "k");
    EXPECT_EQ(received[0].headers.at("content-type"), "application/json");
    EXPECT_EQ(received[0].headers.at("user-agent"), "velmora-httpstack");
    EXPECT_EQ(received[0].headers.count("expect"), 0U);
    EXPECT_EQ(received[1].method, "GET");
    EXPECT_EQ(received[1].headers.at("authorization"), "Bearer t");
    EXPECT_EQ(received[1].headers.count("x-empty"), 1U);
}

TEST(HttpStack, RedirectedPostArrivesWhole) {
    ScriptedServer server(answerByPath);
    const InstalledStack stack;
    for (const char* path : {"/moved", "/moved-permanently"}) {
        SCOPED_TRACE(path);
        FakeExchange exchange({{"x-api-key", "k"}}, bigBody());
        ASSERT_EQ(exchange.send(VELMORA_HTTP_POST, server.url(path)), VELMORA_HTTP_OK);
        ASSERT_TRUE(exchange.waitForEnd());
        const ReceivedRequest last = server.received().back();
        EXPECT_EQ(last.path, "/landed");
        EXPECT_EQ(last.method, "POST");
        EXPECT_EQ(last.body, exchange.requestBody);
        EXPECT_EQ(last.headers.at("x-api-key"), "k");
    }
}

// Neither body nor key reach another server, and a header that smuggles another one in is not sent at all.
TEST(HttpStack, WhatIsMeantForOneServerReachesNoOther) {
    ScriptedServer foreign(answerByPath);
    ScriptedServer server([&](const ReceivedRequest&) {
        return ScriptedAnswer{httpAnswer("307 Temporary Redirect", "", "Location: " + foreign.url("/stolen") + "\r\n")};
    });
    const InstalledStack stack;
    FakeExchange redirected({{"x-api-key", "k"}}, "body");
    ASSERT_EQ(redirected.send(VELMORA_HTTP_POST, server.url("/ok")), VELMORA_HTTP_OK);
    ASSERT_TRUE(redirected.waitForEnd());
    EXPECT_EQ(redirected.result, static_cast<uint32_t>(VELMORA_HTTP_RETRIABLE));
    EXPECT_EQ(redirected.message, "redirected to another server");
    FakeExchange smuggling({{"x-bad", "a\r\nx-smuggled: 1"}}, "");
    ASSERT_EQ(smuggling.send(VELMORA_HTTP_GET, foreign.url("/ok")), VELMORA_HTTP_OK);
    ASSERT_TRUE(smuggling.waitForEnd());
    EXPECT_EQ(smuggling.message, "a request header holds a line break");
    EXPECT_EQ(foreign.received().size(), 0U);
}

TEST(HttpStack, AnOriginIsSchemeHostAndPort) {
    const struct {
        const char* from;
        const char* to;
        bool isSame;
    } rows[] = {
        {"https://a.example/x", "HTTPS://A.example:443/y?z", true},
        {"http://a.example:80", "http://a.example/", true},
        {"http://[::1]:8080/x", "http://[::1]:8080/y", true},
        {"http://[::1]/x", "http://[::1]:80/y", true},
        {"https://a.example:8443/x", "http://a.example:8443/x", false},
        {"https://a.example/", "http://a.example/", false},
        {"https://a.example/", "https://a.example:444/", false},
        {"https://a.example/", "https://a.example.evil/", false},
        {"https://a.example/", "https://a.example@evil/", false},
        {"https://a.example/", "https://evil\\@a.example/", false},
        {"https://a.example/", "file:///a.example", false},
    };
    for (const auto& row : rows) EXPECT_EQ(httpstack::isSameOrigin(row.from, row.to), row.isSame) << row.to;
}

TEST(HttpStack, UnreachableAndMalformedUrls) {
    std::string refused;
    { refused = ScriptedServer(answerByPath).url("/ok"); }
    const InstalledStack stack;
    const struct {
        std::string url;
        uint32_t result;
    } rows[] = {
        {refused, VELMORA_HTTP_RETRIABLE},
        {"", VELMORA_HTTP_NON_RETRIABLE},
        {"no url", VELMORA_HTTP_NON_RETRIABLE},
        {"http://", VELMORA_HTTP_NON_RETRIABLE},
        {"http:///ingest", VELMORA_HTTP_NON_RETRIABLE},
        {"http://a b/", VELMORA_HTTP_NON_RETRIABLE},
        {"http://127.0.0.1:99999/", VELMORA_HTTP_NON_RETRIABLE},
        {"file:///etc/hostname", VELMORA_HTTP_NON_RETRIABLE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        FakeExchange exchange;
        ASSERT_EQ(exchange.send(VELMORA_HTTP_GET, row.url), VELMORA_HTTP_OK);
        ASSERT_TRUE(exchange.waitForEnd());
        EXPECT_EQ(exchange.result, row.result);
        EXPECT_NE(exchange.message, "");
    }
}

TEST(HttpStack, CancelEndsARunningRequestAndKnowsNoOther) {
    ScriptedServer server(answerByPath);
    const InstalledStack stack;
    FakeExchange hanging;
    ASSERT_EQ(hanging.send(VELMORA_HTTP_GET, server.url("/hang")), VELMORA_HTTP_OK);
    ASSERT_TRUE(server.waitForRequests(1));
    EXPECT_EQ(hanging.cancel(), VELMORA_HTTP_OK);
    ASSERT_TRUE(hanging.waitForEnd());
    EXPECT_EQ(hanging.result, static_cast<uint32_t>(VELMORA_HTTP_CANCELLED));

    FakeExchange unknown;
    unknown.requestId = hanging.requestId + 1000;
    EXPECT_EQ(unknown.cancel(), VELMORA_HTTP_INVALID_INPUT);
}

// Whatever the moment of the cancel: an accepted one is reported as such, a refused one leaves the result alone, and
// each request ends once.
TEST(HttpStack, CancelsThatRaceWithTheEndAreDecidedOnce) {
    ScriptedServer server(answerByPath);
    const InstalledStack stack;
    int accepted = 0;
    for (int i = 0; i < 200; ++i) {
        FakeExchange exchange;
        ASSERT_EQ(exchange.send(VELMORA_HTTP_GET, server.url("/ok")), VELMORA_HTTP_OK);
        exchange.waitForEnd(std::chrono::microseconds(i * 10));
        const int32_t answer = exchange.cancel();
        ASSERT_TRUE(exchange.waitForEnd());
        accepted += answer == VELMORA_HTTP_OK ? 1 : 0;
        EXPECT_EQ(exchange.result == VELMORA_HTTP_CANCELLED, answer == VELMORA_HTTP_OK);
        EXPECT_EQ(exchange.misuse, "");
    }
    EXPECT_GT(accepted, 0);
}

TEST(HttpStack, ThreadsSendAtTheSameTimeAndNoneWaitsForAnother) {
    ScriptedServer server(answerByPath);
    const InstalledStack stack;
    FakeExchange hanging;
    ASSERT_EQ(hanging.send(VELMORA_HTTP_GET, server.url("/hang")), VELMORA_HTTP_OK);
    constexpr size_t kThreads = 6;
    constexpr size_t kEach = 15;
    std::deque<FakeExchange> exchanges(kThreads * kEach);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < kEach; ++i) {
                FakeExchange& exchange = exchanges[t * kEach + i];
                exchange.requestBody = std::to_string(t * kEach + i);
                EXPECT_EQ(exchange.send(VELMORA_HTTP_POST, server.url("/ok")), VELMORA_HTTP_OK);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<uint32_t> ids;
    for (FakeExchange& exchange : exchanges) {
        ASSERT_TRUE(exchange.waitForEnd());
        EXPECT_EQ(exchange.result, static_cast<uint32_t>(VELMORA_HTTP_OK)) << exchange.message;
        ids.push_back(exchange.requestId);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
    EXPECT_NE(ids.front(), 0U);
    EXPECT_EQ(hanging.completions, 0);
}

TEST(HttpStack, UninstallCompletesWhatIsUnderWayAndCanBeUndone) {
    ScriptedServer server(answerByPath);
    for (int round = 0; round < 2; ++round) {
        std::deque<FakeExchange> hanging(5);
        {
            const InstalledStack stack;
            EXPECT_TRUE(hasCallbacks());
            EXPECT_EQ(velmora_httpstack_install(nullptr), VELMORA_ERROR_PRECONDITION_FAILED);
            for (FakeExchange& exchange : hanging) exchange.send(VELMORA_HTTP_GET, server.url("/hang"));
        }
        EXPECT_FALSE(hasCallbacks());
        for (FakeExchange& exchange : hanging) {
            EXPECT_EQ(exchange.completions, 1);
            EXPECT_EQ(exchange.result, static_cast<uint32_t>(VELMORA_HTTP_CANCELLED));
        }
    }
    velmora_httpstack_uninstall();
}

TEST(HttpStack, RoutesABaseUrlAndNothingElse) {
    ScriptedServer server(answerByPath);
    const std::string to = server.url("/base/");
    const velmora_httpstack_route route{"https://ingest.example", to.c_str()};
    const InstalledStack stack(20000, &route);
    const struct {
        const char* url;
        const char* arrives;  // path; null for "does not arrive here"
    } rows[] = {
        {"https://ingest.example/ingest?x=1", "/base/ingest?x=1"},
        {"https://ingest.example", "/base/"},
        {"https://ingest.example.invalid/ingest", nullptr},
    };
    size_t arrived = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        FakeExchange exchange;
        ASSERT_EQ(exchange.send(VELMORA_HTTP_GET, row.url), VELMORA_HTTP_OK);
        ASSERT_TRUE(exchange.waitForEnd());
        if (row.arrives != nullptr) ++arrived;
        ASSERT_EQ(server.received().size(), arrived);
        if (row.arrives == nullptr) continue;
        EXPECT_EQ(server.received().back().path, row.arrives);
    }
}

TEST(HttpStack, RefusesBadOptions) {
    const velmora_httpstack_route noTarget{"https://ingest.example", nullptr};
    const velmora_httpstack_route emptySource{"", "http://127.0.0.1"};
    velmora_httpstack_options good;
    velmora_httpstack_defaults(&good);
    const velmora_httpstack_route noScheme{"ingest.example", "127.0.0.1"};
    velmora_httpstack_options rows[6] = {good, good, good, good, good, good};
    rows[4].routes = &noScheme;
    rows[4].routeCount = 1;
    rows[5].caBundle = "/nowhere/at/all.pem";
    rows[0].size = 4;
    rows[1].routeCount = 1;
    rows[2].routes = &noTarget;
    rows[2].routeCount = 1;
    rows[3].routes = &emptySource;
    rows[3].routeCount = 1;
    for (const auto& options : rows) EXPECT_EQ(velmora_httpstack_install(&options), VELMORA_ERROR_INVALID_ARGUMENT);
    velmora_httpstack_options badProxy = good;
    badProxy.proxy = "::::";
    EXPECT_EQ(velmora_httpstack_install(&badProxy) == VELMORA_ERROR_INVALID_ARGUMENT, !kSystemClient);
    velmora_httpstack_uninstall();
    EXPECT_FALSE(hasCallbacks());
}

TEST(HttpStack, LaterOptionsCountWhereTheSizeReachesOverThem) {
    ScriptedServer server(answerByPath);
    for (const bool reachesOver : {true, false}) {
        velmora_httpstack_options options{};
        velmora_httpstack_defaults(&options);
        EXPECT_LT(options.size, sizeof options);
        options.proxy = "";
        options.maxResponseBytes = 5;
        if (reachesOver) options.size = sizeof options;
        ASSERT_EQ(velmora_httpstack_install(&options), VELMORA_OK);
        FakeExchange exchange;
        ASSERT_EQ(exchange.send(VELMORA_HTTP_GET, server.url("/ok")), VELMORA_HTTP_OK);
        ASSERT_TRUE(exchange.waitForEnd());
        EXPECT_EQ(exchange.result == VELMORA_HTTP_OK, !reachesOver) << exchange.message;
        velmora_httpstack_uninstall();
    }
}

}  // namespace
}  // namespace velmora::test
