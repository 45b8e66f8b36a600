// From the collector's store through a real NATS JetStream log to a real PostgreSQL and to a file. The servers are
// children on free ports and end with their test.
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <cstdlib>
#include <fstream>
#include <future>
#include <sstream>

#include "tests/support/childprocess.h"
#include "tests/support/tempfolder.h"
#include "tools/velmora/deliver/deliverer.h"
#include "tools/velmora/deliver/filetarget.h"
#include "tools/velmora/deliver/postgrestarget.h"
#include "tools/velmora/jetstream/eventaddress.h"
#include "tools/velmora/jetstream/jetstreamstore.h"

namespace velmora::tool {
namespace {

using namespace std::chrono_literals;

std::string freePort() {
    boost::asio::io_context context;
    const boost::asio::ip::tcp::endpoint any(boost::asio::ip::make_address("127.0.0.1"), 0);
    return std::to_string(boost::asio::ip::tcp::acceptor(context, any).local_endpoint().port());
}

std::unique_ptr<test::ChildProcess> shell(const std::string& command) {
    return std::make_unique<test::ChildProcess>("/bin/sh", std::vector<std::string>{"-c", command});
}

std::string event(const std::string& guid, const std::string& more = "",
                  const std::string& time = "2026-03-01T10:00:00.5+0100") {
    return R"({"project":"p","environment":"prod","time":")" + time + R"(","data":{"event.guid":")" + guid + "\"" +
           more + "}}";
}

class ServiceSide : public testing::Test {
protected:
    ServiceSide() { startLog(); }

    void startLog() {
        log_ = shell("exec setpriv --pdeathsig KILL nats-server -a 127.0.0.1 -p " + logPort_ + " -js -sd " +
                     folder_.string() + "/log >/dev/null 2>&1");
    }

    // Not as root, which PostgreSQL refuses.
    std::string startDatabase() {
        const std::string data = folder_.string() + "/database";
        boost::filesystem::permissions(folder_.string(), boost::filesystem::others_exe | boost::filesystem::owner_all);
        const std::string user = ::geteuid() == 0 ? "--reuid=postgres --regid=postgres --clear-groups " : "";
        const std::string bin = "$(ls -d /usr/lib/postgresql/*/bin | tail -1)";
        const std::string port = freePort();
        database_ = shell("mkdir " + data + "; [ $(id -u) != 0 ] || chown postgres " + data + "; setpriv " + user +
                          bin + "/initdb -D " + data + " -A trust -U velmora --no-sync >/dev/null 2>&1; exec setpriv " +
                          user + "--pdeathsig KILL " + bin + "/postgres -D " + data + " -p " + port +
                          " -c listen_addresses=127.0.0.1 -c fsync=off -k '' >/dev/null 2>&1");
        return "postgresql://velmora@127.0.0.1:" + port + "/postgres";
    }

    StreamAddress address() const { return StreamAddress::parse("jetstream:nats://127.0.0.1:" + logPort_ + "/EVENTS"); }

    AppendResult append(Store& store, const std::vector<std::string>& events) {
        std::string body = "{\"events\":[";
        for (const std::string& text : events) body += (&text == &events.front() ? "" : ",") + text;
        std::promise<AppendResult> promise;
        store.append(readBatch(body + "]}"), [&promise](AppendResult result) { promise.set_value(std::move(result)); });
        return promise.get_future().get();
    }

    DeliveryCounts deliver(Target& target, const std::string& name) {
        Stream stream(address(), "test", 30s);
        Consumer consumer(stream, name, target.wantsOrder() ? Consumer::Begin::inOrder : Consumer::Begin::shared,
                          target.lastSequence());
        return Deliverer(
                   consumer, target, {3, true}, [] { return false; }, [](const std::string&) {})
            .run();
    }

    test::TempFolder folder_;
    const std::string logPort_ = freePort();
    std::unique_ptr<test::ChildProcess> log_;
    std::unique_ptr<test::ChildProcess> database_;
};

std::string ask(const std::string& uri, const std::string& sql) {
    const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(PQconnectdb(uri.c_str()), PQfinish);
    const std::unique_ptr<PGresult, decltype(&PQclear)> result(PQexec(connection.get(), sql.c_str()), PQclear);
    EXPECT_EQ(PQresultStatus(result.get()), PGRES_TUPLES_OK) << PQerrorMessage(connection.get());
    return PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
}

TEST_F(ServiceSide, EveryEventIsInTheDatabaseOnceUnlessItsUserIsForgotten) {
    ASSERT_TRUE(boost::filesystem::status("/dev/null").permissions() & boost::filesystem::others_write)
        << "the database's own scripts write to /dev/null, and they do not run as root";
    const std::string uri = startDatabase();
    JetStreamStore store(address(), 5s, 1 << 20);
    const std::string user = R"(,"event.user_guid":"u@example")";
    const std::vector<std::string> events{event("a"),
                                          event("b", user),
                                          event("c", "", "1970-01-01T00:00:00Z"),
                                          event("d", "", "no time"),
                                          event("e", R"(,"x":"1\u0000\\u0000")"),
                                          R"({"project":"\u0000","data":{"event.guid":"h"}})",
                                          R"({"project":"p","data":{}})"};
    ASSERT_EQ(append(store, events).outcome, AppendOutcome::stored);
    ASSERT_EQ(append(store, {event("a"), event("f", user)}).outcome, AppendOutcome::stored);
    PostgresTarget target(uri, 60s);
    EXPECT_EQ(target.forget("u@example"), 0U);
    ASSERT_EQ(append(store, {event("g", user)}).outcome, AppendOutcome::stored);

    DeliveryCounts counts = deliver(target, "first");
    EXPECT_EQ(counts.stored, 6U);    // a, c, d, e, the one without a guid, g
    EXPECT_EQ(counts.repeated, 2U);  // b and f; the second a never got past the log
    EXPECT_EQ(counts.setAside, 1U);
    EXPECT_EQ(ask(uri, "SELECT count(*) FROM velmora_events_default"), "3");
    EXPECT_EQ(ask(uri, "SELECT extract(epoch FROM time) FROM velmora_events_20260301 WHERE guid = 'a'"),
              "1772355600.500000");
    EXPECT_EQ(ask(uri, "SELECT event->'data'->>'x' FROM velmora_events WHERE guid = 'e'"), "1\uFFFD\\u0000");
    EXPECT_EQ(ask(uri, "SELECT event->'data'->>'event.guid' FROM velmora_events WHERE \"user\" = 'u@example'"), "g");

    // The log has forgotten what was delivered, the database has not.
    store.stop();
    Stream stream(address(), "test", 5s);
    ASSERT_EQ(js_DeleteStream(stream.context(), "EVENTS", nullptr, nullptr), NATS_OK);
    JetStreamStore again(address(), 5s, 1 << 20);
    ASSERT_EQ(append(again, events).outcome, AppendOutcome::stored);
    counts = deliver(target, "second");
    EXPECT_EQ(counts.stored, 1U);  // b: it was published after its user was forgotten
    EXPECT_EQ(counts.repeated, 6U);
    EXPECT_EQ(target.forget("u@example"), 2U);
}

TEST_F(ServiceSide, AFileHoldsEachEventOnceInOrderWhereverItWasCut) {
    const std::string path = folder_.string() + "/events";
    JetStreamStore store(address(), 5s, 1 << 20);
    std::string expected;
    for (const char* guid : {"a", "b", "c", "d", "e"}) {
        ASSERT_EQ(append(store, {event(guid)}).outcome, AppendOutcome::stored);
        expected += event(guid) + "\n";
        FileTarget target(path);
        EXPECT_EQ(deliver(target, "file").stored, 1U);
        EXPECT_THROW(FileTarget{path}, std::runtime_error);
        std::ofstream(path, std::ios::app) << "a torn line";
    }
    const FileTarget target(path);
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_EQ(text.str(), expected);
}

TEST_F(ServiceSide, ALogThatIsAwayOrDifferentIsToldAndNothingIsAcknowledged) {
    JetStreamStore store(address(), 500ms, 1 << 20);
    std::string why;
    EXPECT_TRUE(store.ready(why));
    EXPECT_EQ(append(store, {event("big", ",\"x\":\"" + std::string(2 << 20, 'x') + "\"")}).outcome,
              AppendOutcome::refused);
    StreamAddress other = address();
    other.settings.replicas = 3;
    EXPECT_THROW(Stream(other, "test", 5s), std::runtime_error);

    log_->kill();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(append(store, {event("a")}).outcome, AppendOutcome::away);
    startLog();
    AppendResult result;
    for (int i = 0; i < 100 && append(store, {event("a")}).outcome != AppendOutcome::stored; ++i)
        std::this_thread::sleep_for(100ms);
    EXPECT_EQ(append(store, {event("a")}).outcome, AppendOutcome::stored);
    FileTarget target(folder_.string() + "/events");
    EXPECT_EQ(deliver(target, "file").stored, 1U);
}

TEST(ServiceSideTexts, TimesAndSubjects) {
    const struct {
        const char* text;
        std::optional<int64_t> micros;
    } rows[] = {
        {"2023-03-14T11:15:30.123+0100", 1678788930123000},
        {"2023-03-14T10:15:30Z", 1678788930000000},
        {"1969-12-31T23:59:59.999999", -1},
        {"2023-02-29T10:00:00Z", std::nullopt},
        {"2023-03-14T10:15:30.Z", std::nullopt},
        {"2023-03-14", std::nullopt},
    };
    for (const auto& row : rows) EXPECT_EQ(parseEventTime(row.text), row.micros) << row.text;
    EXPECT_EQ(eventSubject("a.b >*", "", true), "velmora.a%2Eb%20%3E%2A.%.auth");
    EXPECT_NE(subjectToken(std::string(65, 'a')), subjectToken(std::string(66, 'a')));
    for (const char* bad :
         {"jetstream:nats://h:1", "jetstream:nats:///S", "jetstream:http://h:1/S", "jetstream:nats://h,/S"})
        EXPECT_THROW((void)StreamAddress::parse(bad), std::invalid_argument) << bad;
}

}  // namespace
}  // namespace velmora::tool
