// From the command line, or from an example host, through the library and real HTTP to the collector.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <boost/process.hpp>
#include <chrono>
#include <codecvt>
#include <fstream>
#include <set>
#include <sstream>

#include "core/json/jsontext.h"
#include "tests/support/files.h"
#include "tests/support/tempfolder.h"
#include "tests/tools/httpclient.h"
#include "tools/velmora/collector.h"

namespace velmora::tool {
namespace {

namespace bp = boost::process;

struct Outcome {
    int exitCode = -1;
    std::string output;
};

class EndToEnd : public testing::Test {
protected:
    EndToEnd() {
        // Arguments are UTF-8 here, as they are everywhere in the tool.
        bp::imbue(std::locale(std::locale::classic(), new std::codecvt_utf8_utf16<wchar_t>));
        startCollector();
    }

    void startCollector(int port = 0, const std::string& trackingFlag = "PII") {
        CollectorOptions options;
        options.port = port;
        options.store = folder_.string() + "/events.db";
        options.quiet = true;
        options.trackingFlag = trackingFlag;
        collector_ = std::make_unique<Collector>(options);
        collector_->start();
        url_ = collector_->url();
    }

    static Outcome run(const std::string& program, const std::vector<std::string>& arguments, const std::string& home) {
        bp::ipstream output;
        bp::environment environment = boost::this_process::environment();
        environment["XDG_DATA_HOME"] = home;
        environment["TMPDIR"] = home;
        bp::child child(program, bp::args(arguments), environment, bp::std_out > output, bp::std_in < bp::null);
        std::stringstream text;
        text << output.rdbuf();
        child.wait();
        return {child.exit_code(), text.str()};
    }

    Outcome send(std::vector<std::string> more) const {
        std::vector<std::string> arguments{"send", "--endpoint", url_, "--data-root", root()};
        for (const char* fast : {"retryInterval=[100,200]", "batchSize=20"}) {
            arguments.emplace_back("--config");
            arguments.emplace_back(fast);
        }
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(VELMORA_TOOL, arguments, folder_.string());
    }

    // A name that no code page holds.
    std::string root() const {
        return folder_.string() + "/\u0434\u0430\u043d\u043d\u044b\u0435 \u6570\u636e \U0001F680";
    }

    std::string write(const std::string& name, const std::string& text) const {
        test::writeFile(folder_ / name, text);
        return (folder_ / name).string();
    }

    std::string writeEvents(int count) const {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += R"({"event.workflow":"Count","event.type":"success","event.value":")" + std::to_string(i) + "\"}\n";
        return write("events.jsonl", text);
    }

    JsonDocument get(const std::string& path) const {
        JsonDocument document;
        const test::HttpReply reply = test::exchange(collector_->port(), "GET", path);
        EXPECT_EQ(reply.status, 200) << path;
        EXPECT_FALSE(parseValue(document, reply.body).IsError());
        return document;
    }

    std::vector<std::string> values(const std::string& query) const {
        std::vector<std::string> found;
        const JsonDocument answer = get("/events?limit=100000&" + query);
        for (const auto& event : answer["events"].GetArray())
            found.emplace_back(event["event"]["data"]["event.value"].GetString());
        return found;
    }

    std::set<std::string> guids() const {
        std::set<std::string> found;
        const JsonDocument answer = get("/events?limit=100000");
        for (const auto& event : answer["events"].GetArray()) found.insert(event["guid"].GetString());
        return found;
    }

    test::TempFolder folder_;
    std::unique_ptr<Collector> collector_;
    std::string url_;
};

std::vector<std::string> numbers(int count) {
    std::vector<std::string> all;
    for (int i = 0; i < count; ++i) all.push_back(std::to_string(i));
    return all;
}

TEST_F(EndToEnd, EveryEventArrivesOnceAndInOrder) {
    const Outcome sent = send({writeEvents(333)});
    EXPECT_EQ(sent.exitCode, 0) << sent.output;
    EXPECT_EQ(sent.output, "accepted=333 rejected=0 found=0 delivered=333 left=0\n");
    EXPECT_EQ(values("event.workflow=Count"), numbers(333));
}

TEST_F(EndToEnd, RejectedLinesAreCountedAndTheOthersArrive) {
    const std::string input =
        write("mixed.jsonl",
              "{\"event.value\":\"a\",\"event.workflow\":\"Mixed\"}\n\nno JSON\n"
              "{\"event.type\":\"BAD TYPE\"}\n{\"event.value\":\"b\",\"event.workflow\":\"Mixed\"}\n");
    const Outcome sent = send({input});
    EXPECT_EQ(sent.exitCode, 1);
    EXPECT_EQ(sent.output, "accepted=2 rejected=2 found=0 delivered=2 left=0\n");
    EXPECT_EQ(values("event.workflow=Mixed"), (std::vector<std::string>{"a", "b"}));
}

TEST_F(EndToEnd, AServiceThatIsAwayGetsTheEventsLater) {
    const int port = collector_->port();
    collector_.reset();
    const std::string journal = folder_.string() + "/journal";
    const Outcome away = send({writeEvents(100), "--journal", journal, "--timeout", "1"});
    EXPECT_EQ(away.exitCode, 1);
    EXPECT_EQ(away.output, "accepted=100 rejected=0 found=0 delivered=0 left=100\n");

    startCollector(port);
    const Outcome later = send({write("empty", "")});
    EXPECT_EQ(later.exitCode, 0);
    EXPECT_EQ(later.output, "accepted=0 rejected=0 found=100 delivered=100 left=0\n");
    EXPECT_EQ(values("event.workflow=Count"), numbers(100));

    const auto arrived = guids();
    std::ifstream accepted(journal);
    size_t lines = 0;
    for (std::string guid; std::getline(accepted, guid); ++lines) EXPECT_EQ(arrived.count(guid), 1U) << guid;
    EXPECT_EQ(lines, 100U);
}

TEST_F(EndToEnd, ServicesThatMisbehaveLoseNothing) {
    for (const char* script : {R"({"fail":3,"status":503,"retryAfter":1})", R"({"fail":3,"drop":true})",
                               R"({"fail":2,"status":429})", R"({"fail":1,"delayMs":300})"}) {
        SCOPED_TRACE(script);
        const size_t before = values("event.workflow=Count").size();
        collector_->playScript(script);
        const Outcome sent = send({writeEvents(100)});
        EXPECT_EQ(sent.exitCode, 0) << sent.output;
        EXPECT_EQ(values("event.workflow=Count").size(), before + 100);
    }
}

TEST_F(EndToEnd, SignedInEventsCarryTheIdentity) {
    const Outcome sent = send({writeEvents(10), "--auth", "--token", "secret-token"});
    EXPECT_EQ(sent.exitCode, 0) << sent.output;
    EXPECT_EQ(values("event.workflow=Count&event.user_guid=local-user@example").size(), 10U);
}

TEST_F(EndToEnd, AnyTextCanBeSentLineByLine) {
    const Outcome sent = send({"--lines", "Text", write("text", "plain\r\n{\"looks\":\"like JSON\"}\n\xff\"\\\n")});
    EXPECT_EQ(sent.exitCode, 0) << sent.output;
    EXPECT_EQ(values("event.workflow=Text"), (std::vector<std::string>{"plain", R"({"looks":"like JSON"})", "?\"\\"}));
}

// An event whose answer is still out when the sender stops is sent again: it may arrive twice, never not at all.
TEST_F(EndToEnd, DirectEventsAllArrive) {
    const Outcome sent = send({writeEvents(20), "--direct"});
    EXPECT_EQ(sent.exitCode, 0) << sent.output;
    const auto arrived = values("event.workflow=Count");
    EXPECT_EQ(std::set<std::string>(arrived.begin(), arrived.end()).size(), 20U);
}

TEST_F(EndToEnd, WrongUsageAndMissingInput) {
    EXPECT_EQ(send({"/nonexistent"}).exitCode, 2);
    EXPECT_EQ(send({"--config", "noSuchName=1", write("empty", "")}).exitCode, 2);
    EXPECT_EQ(send({"--no-such-option"}).exitCode, 2);
}

#ifdef VELMORA_EXAMPLE_C
TEST_F(EndToEnd, ExampleHostsDeliver) {
    // The user's own data folder can't be put elsewhere on every system: a first run takes along what earlier ones
    // left.
    const auto newEvents = [&](const std::string& program, const std::string& query) {
        int totals[2] = {};
        for (int& total : totals) {
            const Outcome outcome = run(program, {url_}, folder_.string());
            EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
            total = get("/events?event.workflow=Export&" + query)["total"].GetInt();
        }
        return totals[1] - totals[0];
    };
    EXPECT_EQ(newEvents(VELMORA_EXAMPLE_C, "project=example-c"), 100);
    // One more if the end of the first run cut off the event that is posted at once: the second one sends it again.
    const int withCpp = newEvents(VELMORA_EXAMPLE_CPP, "project=example-cpp&source.name=example");
    EXPECT_TRUE(withCpp == 51 || withCpp == 52) << withCpp;

    collector_.reset();
    EXPECT_EQ(run(VELMORA_EXAMPLE_CPP, {url_}, folder_.string()).exitCode, 1);
}
#endif

}  // namespace
}  // namespace velmora::tool
