#include "tools/velmora/sender.h"

#include <deployment.h>
#include <algorithm>

#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "tools/velmora/eventline.h"
#include "tools/velmora/files.h"
#include "tools/velmora/stopsignal.h"
#include "tools/velmora/storecount.h"
#include "velmora/httpstack.h"
#include "velmora/velmora.h"

namespace velmora::tool {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kRetryPause = std::chrono::milliseconds(50);
constexpr uint64_t kProgressStep = 1000;
constexpr const char* kServiceHosts[] = {
    "https://" VELMORA_INGEST_PROD_HOST,     "https://" VELMORA_INGEST_STAGE_HOST,
    "https://" VELMORA_IDENTITY_PROD_HOST,   "https://" VELMORA_IDENTITY_STAGE_HOST,
    "https://" VELMORA_PERMISSION_PROD_HOST, "https://" VELMORA_PERMISSION_STAGE_HOST,
};

void require(int32_t result, const std::string& what) {
    if (result != VELMORA_OK) throw std::runtime_error(what + ": " + resultName(result));
}

// The ready HTTP stack, installed for the length of a run.
class HttpStack {
public:
    explicit HttpStack(const SendOptions& options) {
        std::vector<velmora_httpstack_route> routes;
        if (!options.endpoint.empty()) {
            for (const char* host : kServiceHosts) routes.push_back({host, options.endpoint.c_str()});
        }
        velmora_httpstack_options stack;
        velmora_httpstack_defaults(&stack);
        if (!options.caBundle.empty()) stack.caBundle = options.caBundle.c_str();
        if (options.proxy)
            stack.proxy = options.proxy->c_str();
        else if (!options.endpoint.empty())
            stack.proxy = "";
        stack.routes = routes.data();
        stack.routeCount = static_cast<uint32_t>(routes.size());
        require(velmora_httpstack_install(&stack), "HTTP stack");
    }
    ~HttpStack() { velmora_httpstack_uninstall(); }
    HttpStack(const HttpStack&) = delete;
    HttpStack& operator=(const HttpStack&) = delete;
};

// The guids of accepted events, one a line, each of them with the system before the next event is submitted.
class Journal {
public:
    explicit Journal(const std::string& path) {
        if (!path.empty()) openToWrite(file_, path, std::ios::app);
    }

    void add(const std::string& guid) {
        if (!file_.is_open()) return;
        file_ << guid << '\n';
        if (!file_.flush()) throw std::runtime_error("the journal can't be written");
    }

private:
    std::ofstream file_;
};

// A running instance; stopped at the end.
class Instance {
public:
    explicit Instance(const std::string& configGuid) {
        require(velmora_ingest_start(configGuid.c_str(), nullptr, nullptr, &handle_), "start");
    }
    ~Instance() { velmora_ingest_stop(handle_); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    [[nodiscard]] velmora_ingest_instance handle() const { return handle_; }

private:
    velmora_ingest_instance handle_ = nullptr;
};

void configure(const SendOptions& options) {
    require(velmora_init(), "init");
    const char* const guid = options.configGuid.c_str();
    require(velmora_setIngestConfig(guid, options.environment, options.project.c_str(), options.apiKey.c_str(),
                                    VELMORA_SOURCE_HOST, VELMORA_CATEGORY_SERVICE, VELMORA_CONSENT_DEFAULT),
            "configuration");
    for (const auto& [key, value] : options.config)
        require(velmora_setConfig(guid, key, value.c_str()), "configuration key " + std::to_string(key));
    if (!options.token.empty()) require(velmora_setAccessToken(options.token.c_str()), "access token");
    require(velmora_online(), "online");
}

EventLine eventOf(const std::string& line, const SendOptions& options) {
    return options.workflow.empty() ? identifiedEvent(line) : eventOfText(line, options.workflow);
}

// Submits at the rate that the options ask for, from the first event on.
class Pacer {
public:
    explicit Pacer(double rate) : rate_(rate), start_(Clock::now()) {}
    void waitForTurn(uint64_t number) const {
        if (rate_ <= 0) return;
        const auto offset = std::chrono::duration<double>(static_cast<double>(number) / rate_);
        std::this_thread::sleep_until(start_ + std::chrono::duration_cast<Clock::duration>(offset));
    }

private:
    const double rate_;
    const Clock::time_point start_;
};

void submitLine(const SendOptions& options, const Instance& instance, const std::string& line, uint64_t number,
                Journal& journal, SendReport& report) {
    const EventLine event = eventOf(line, options);
    const int32_t result = velmora_ingest_submitEvent(instance.handle(), event.json.c_str(), options.batch ? 1 : 0,
                                                      options.auth ? 1 : 0, options.validate);
    if (result == VELMORA_OK) {
        ++report.accepted;
        return journal.add(event.guid);
    }
    ++report.rejected;
    if (report.firstRejected.size() < SendReport::kMaxListed) report.firstRejected.push_back({number, result});
}

bool isBlank(const std::string& line) { return line.find_first_not_of(" \t\r") == std::string::npos; }

void submitAll(const SendOptions& options, const Instance& instance, std::istream& input, Journal& journal,
               SendReport& report) {
    const Pacer pacer(options.rate);
    std::string line;
    for (uint64_t number = 1; !stopWanted() && std::getline(input, line); ++number) {
        if (line.ends_with('\r')) line.pop_back();
        if (isBlank(line)) continue;
        pacer.waitForTurn(report.accepted + report.rejected);
        submitLine(options, instance, line, number, journal, report);
        if (options.progress && number % kProgressStep == 0) std::cerr << "submitted " << number << " lines\n";
    }
}

void deliver(const Instance& instance, Clock::time_point deadline) {
    while (!stopWanted() && velmora_ingest_flush(instance.handle(), nullptr, nullptr) != VELMORA_OK) {
        if (Clock::now() >= deadline) return;
        std::this_thread::sleep_for(kRetryPause);
    }
}

// A flush knows of what is queued; events on their way at once come back to the queue when the instance stops before
// their answer. A fresh instance delivers those.
void deliverWhatCameBack(const SendOptions& options, Clock::time_point deadline) {
    while (!stopWanted() && Clock::now() < deadline && countEventsOnDisk(options.configGuid) > 0) {
        const Instance instance(options.configGuid);
        deliver(instance, deadline);
    }
}

void run(const SendOptions& options, std::istream& input, SendReport& report) {
    Journal journal(options.journal);
    const HttpStack stack(options);
    configure(options);
    Clock::time_point deadline;
    {
        const Instance instance(options.configGuid);
        submitAll(options, instance, input, journal, report);
        deadline = Clock::now() + options.timeout;
        if (options.flush) deliver(instance, deadline);
    }
    if (options.flush) deliverWhatCameBack(options, deadline);
}

}  // namespace

SendReport sendEvents(const SendOptions& options, std::istream& input) {
    if (!options.dataRoot.empty()) {
        boost::filesystem::create_directories(options.dataRoot);
        Filesystem::setRootPath(Path(options.dataRoot));
    }
    SendReport report;
    report.foundOnDisk = countEventsOnDisk(options.configGuid);
    run(options, input, report);
    report.leftOnDisk = countEventsOnDisk(options.configGuid);
    const uint64_t known = report.foundOnDisk + report.accepted;
    report.delivered = known - std::min(known, report.leftOnDisk);
    return report;
}

std::string resultName(int32_t result) {
    return make_error_code(static_cast<VelmoraError>(result)).message() + " (" + std::to_string(result) + ")";
}

}  // namespace velmora::tool
