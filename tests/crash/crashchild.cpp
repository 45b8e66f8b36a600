// The process that a crash test starts and kills: a host with one instance.
//
//     velmora_crashchild submit|adopt root=FOLDER ledger=FILE config=GUID process=N NAME=VALUE...
//
// `submit` hands over events from four threads, without a pause, up to limit=N on each, and then waits to be killed;
// two of them use the line of the signed-in user. With online=1 it delivers at the same time. `adopt` delivers what it
// finds and goes off and on line again and again, as every time it comes back it looks for folders of dead processes;
// it stops in order when its standard input ends. Everything it sees goes to the ledger. It says "ready" when it may be
// killed.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/filesystem/filesystem.h"
#include "tests/crash/ledger.h"
#include "tests/support/appendfile.h"
#include "tests/support/fakehost.h"
#include "velmora/velmora.h"

namespace velmora::test {
namespace {

using std::chrono::milliseconds;

constexpr int kThreads = 4;
constexpr int kExitRejected = 3;
constexpr int kExitAbandoned = 4;
constexpr int kExitNotDelivered = 5;
constexpr milliseconds kStay{VELMORA_CRASH_STAY_MS};
constexpr milliseconds kPause{3};

using Options = std::map<std::string, std::string>;

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 2; i < argc; ++i) {
        const std::string text = argv[i];
        const size_t equals = text.find('=');
        if (equals == std::string::npos) throw std::invalid_argument(text);
        options[text.substr(0, equals)] = text.substr(equals + 1);
    }
    return options;
}

void require(int32_t result, const char* what) {
    if (result != VELMORA_OK) throw std::runtime_error(std::string(what) + ": result " + std::to_string(result));
}

class Child {
public:
    explicit Child(Options options)
        : options_(std::move(options)), process_(std::stoi(options_.at("process"))), ledger_(options_.at("ledger")) {}

    [[noreturn]] void submit() {
        if (options_["early"] == "1") sayReady();
        std::thread([] {
            waitForEndOfInput();
            std::_Exit(kExitAbandoned);
        }).detach();
        setUp(options_["online"] == "1");
        start();
        if (options_["early"] != "1") sayReady();
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) threads.emplace_back([this, thread] { submitAll(thread); });
        for (std::thread& thread : threads) thread.join();
        while (true) std::this_thread::sleep_for(std::chrono::hours(1));
    }

    int adopt() {
        std::atomic<bool> finished = false;
        std::thread watch([&finished] {
            waitForEndOfInput();
            finished = true;
        });
        setUp(true);
        start();
        sayReady();
        while (!finished) comeAndGo();
        watch.join();
        const bool delivered = deliverTheRest();
        stop();
        return delivered ? 0 : kExitNotDelivered;
    }

private:
    static void waitForEndOfInput() {
        while (std::cin.get() != std::char_traits<char>::eof()) continue;
    }

    static void sayReady() { std::cout << "ready" << std::endl; }

    void note(Deed deed, std::vector<EventId> events = {}) {
        ledger_.append(toRecord({deed, process_, std::move(events)}));
    }

    void set(int32_t key, const std::string& value) {
        require(velmora_setConfig(options_.at("config").c_str(), key, value.c_str()), "setConfig");
    }

    void setUp(bool online) {
        require(velmora_setLogCallback(nullptr), "setLogCallback");
        Filesystem::setRootPath(options_.at("root"));
        host_.answerBy([this](const HostRequest& request) { return answer(request); });
        require(velmora_init(), "init");
        require(velmora_setIngestConfig(options_.at("config").c_str(), VELMORA_ENVIRONMENT_PROD, "crash", "key",
                                        VELMORA_SOURCE_COMPONENT, VELMORA_CATEGORY_DESKTOP, VELMORA_CONSENT_GRANTED),
                "setIngestConfig");
        set(VELMORA_CONFIG_RETRY_INTERVAL, "[20]");
        set(VELMORA_CONFIG_BATCH_SIZE, options_.at("batch"));
        set(VELMORA_CONFIG_BATCH_INTERVAL, "10");
        set(VELMORA_CONFIG_EVENT_FILE_ROTATION_SIZE, options_.at("rotation"));
        set(VELMORA_CONFIG_EVENT_FOLDER_SIZE, "10000000000");
        require(velmora_setAccessToken("token"), "setAccessToken");
        if (online) require(velmora_online(), "online");
    }

    void start() {
        require(velmora_ingest_start(options_.at("config").c_str(), nullptr, nullptr, &instance_), "start");
    }

    // Runs before the service's answer is reported, so the ledger knows of every event that the service could have.
    Answer answer(const HostRequest& request) {
        if (request.verb == VELMORA_HTTP_GET) return {.body = R"({"account_type":"type1"})"};
        std::vector<EventId> events = namesIn(request.text());
        if (!events.empty()) note(Deed::delivered, std::move(events));
        return {};
    }

    void submitAll(int thread) {
        const bool auth = thread % 2 == 1;
        const int64_t limit = std::stoll(options_.at("limit"));
        for (EventId id{{process_, thread}, 0}; id.sequence < limit; ++id.sequence) {
            const int32_t result =
                velmora_ingest_submitEvent(instance_, eventNamed(id).c_str(), 1, auth, VELMORA_VALIDATE_CONFIGURED);
            if (result != VELMORA_OK) {
                std::cerr << "event " << toString(id) << " was rejected with result " << result << std::endl;
                std::_Exit(kExitRejected);
            }
            note(Deed::accepted, {id});
        }
    }

    // Off line and on again, which makes the instance give up an adopted folder and look for one again, in its own
    // time; then the same by a stop, which is through when it returns.
    void comeAndGo() {
        std::this_thread::sleep_for(kStay);
        note(Deed::leaving);
        require(velmora_offline(), "offline");
        std::this_thread::sleep_for(kPause);
        require(velmora_online(), "online");
        std::this_thread::sleep_for(kStay);
        stop();
        note(Deed::returning);
        start();
    }

    void stop() {
        note(Deed::leaving);
        require(velmora_ingest_stop(instance_), "stop");
    }

    bool deliverTheRest() {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (velmora_ingest_flush(instance_, nullptr, nullptr) != VELMORA_OK) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(milliseconds(1));
        }
        return true;
    }

    Options options_;
    const int process_;
    AppendFile ledger_;
    FakeHost host_{2};
    velmora_ingest_instance instance_ = nullptr;
};

}  // namespace
}  // namespace velmora::test

int main(int argc, char** argv) {
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        velmora::test::Child child(velmora::test::parseOptions(argc, argv));
        if (mode == "submit") child.submit();
        if (mode == "adopt") return child.adopt();
        std::cerr << "usage: velmora_crashchild submit|adopt NAME=VALUE...\n";
    } catch (const std::exception& e) {
        std::cerr << "velmora_crashchild: " << e.what() << std::endl;
    }
    return 1;
}
