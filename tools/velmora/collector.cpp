#include "tools/velmora/collector.h"

#include <httplib.h>
#include <rapidjson/document.h>

#include <atomic>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "core/json/jsontext.h"
#include "core/json/textwriter.h"
#include "tools/velmora/eventdb.h"
#include "tools/velmora/script.h"

namespace velmora::tool {
namespace {

using httplib::ContentReader;
using httplib::Request;
using httplib::Response;

constexpr const char* kJsonType = "application/json";
constexpr int64_t kMaxLimit = 100000;
constexpr size_t kDrainFactor = 4;  // how much of a body that is too large is read for the sake of a clean answer
constexpr const char* kDefaultProfile =
    R"({"account_type":"type1","preferred_languages":["en-us"],"serviceAccounts":[{"ident":"1","serviceCode":"local",)"
    R"("serviceLevel":"CS_LVL_1","serviceStatus":"ACTIVE"}],"userId":"local-user@example","mrktPerm":"true",)"
    R"("mrktPermEmail":"true"})";

struct Rejection {
    int status;
    std::string reason;
};

using JsonOutput = TextWriter;

std::string jsonMember(const char* name, const std::string& value) {
    rapidjson::StringBuffer buffer;
    JsonOutput writer(buffer);
    writer.StartObject();
    writer.Key(name);
    writer.String(value);
    writer.EndObject();
    return buffer.GetString();
}

std::string toText(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    JsonOutput writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

std::string stringMember(const rapidjson::Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found != object.MemberEnd() && found->value.IsString() ? found->value.GetString() : "";
}

ReceivedEvent readEvent(const rapidjson::Value& value) {
    if (!value.IsObject()) throw Rejection{400, "an event is no JSON object"};
    const auto data = value.FindMember("data");
    const bool hasData = data != value.MemberEnd() && data->value.IsObject();
    return {stringMember(value, "project"), hasData ? stringMember(data->value, "event.guid") : "", toText(value)};
}

std::vector<ReceivedEvent> readBatch(const std::string& body) {
    rapidjson::Document document;
    if (parseValue(document, body).IsError() || !document.IsObject())
        throw Rejection{400, "the body is no JSON object"};
    const auto events = document.FindMember("events");
    if (events == document.MemberEnd() || !events->value.IsArray()) throw Rejection{400, "the body has no events"};
    std::vector<ReceivedEvent> batch;
    for (const auto& event : events->value.GetArray()) batch.push_back(readEvent(event));
    return batch;
}

int64_t readCount(const std::string& text, const char* name) {
    if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != std::string::npos)
        throw Rejection{400, std::string("bad number for ") + name};
    return std::stoll(text);
}

EventQuery readQuery(const Request& request) {
    EventQuery query;
    for (const auto& [key, value] : request.params) {
        if (key == "project") {
            query.project = value;
        } else if (key == "guid") {
            query.guid = value;
        } else if (key == "since") {
            query.since = value;
        } else if (key == "limit") {
            query.limit = std::min(readCount(value, "limit"), kMaxLimit);
        } else if (key == "offset") {
            query.offset = readCount(value, "offset");
        } else if (key.find('"') != std::string::npos) {
            throw Rejection{400, "bad key"};
        } else {
            query.data.emplace_back(key, value);
        }
    }
    return query;
}

std::string statsAsJson(const EventStats& stats) {
    rapidjson::StringBuffer buffer;
    JsonOutput writer(buffer);
    writer.StartObject();
    const std::pair<const char*, int64_t> members[] = {
        {"events", stats.events},   {"distinct", stats.distinct}, {"duplicates", stats.events - stats.distinct},
        {"batches", stats.batches}, {"rejected", stats.rejected}, {"scripted", stats.scripted}};
    for (const auto& [name, value] : members) {
        writer.Key(name);
        writer.Int64(value);
    }
    writer.EndObject();
    return buffer.GetString();
}

std::string checkedProfile(const std::string& profile) {
    if (profile.empty()) return kDefaultProfile;
    rapidjson::Document document;
    if (parseValue(document, profile).IsError() || !document.IsObject())
        throw std::invalid_argument("the profile is no JSON object");
    return profile;
}

}  // namespace

class Collector::Impl {
public:
    explicit Impl(const CollectorOptions& options)
        : options_(options), profile_(checkedProfile(options.profile)), db_(options.store) {
        server_.set_payload_max_length(options.maxBodyBytes);
        server_.set_keep_alive_timeout(1);
        server_.set_keep_alive_max_count(1000);
        server_.set_tcp_nodelay(true);
        addRoutes();
        bind();
    }
    ~Impl() { stop(); }

    int port() const { return port_; }
    const CollectorOptions& options() const { return options_; }
    void playScript(const std::string& json) { script_.play(parseScript(json)); }

    void start() {
        thread_ = std::thread([this] {
            server_.listen_after_bind();
            ended_ = true;
        });
    }

    void stop() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        stopped_.notify_all();
        if (!thread_.joinable()) return;
        // A server that is not yet listening does not hear a stop.
        while (!server_.is_running() && !ended_) std::this_thread::yield();
        server_.stop();
        thread_.join();
    }

private:
    void addRoutes() {
        server_.Post("/ingest", [this](const Request& request, Response& response, const ContentReader& reader) {
            guarded(response, [&] { onIngest(request, response, reader); });
        });
        server_.Get("/oswin/profile", [this](const Request& request, Response& response) {
            guarded(response, [&] { onProfile(request, response); });
        });
        server_.Get("/fetch_user_tracking_flag", [this](const Request& request, Response& response) {
            guarded(response, [&] { onTrackingFlag(request, response); });
        });
        server_.Get("/events", [this](const Request& request, Response& response) {
            guarded(response, [&] { response.set_content(db_.eventsAsJson(readQuery(request)), kJsonType); });
        });
        server_.Get("/stats", [this](const Request&, Response& response) {
            guarded(response, [&] { response.set_content(statsAsJson(db_.stats()), kJsonType); });
        });
        server_.Post("/script", [this](const Request& request, Response& response) {
            guarded(response, [&] { onScript(request, response); });
        });
    }

    void bind() {
        if (options_.port == 0) {
            port_ = server_.bind_to_any_port(options_.host);
        } else if (server_.bind_to_port(options_.host, options_.port)) {
            port_ = options_.port;
        }
        if (port_ <= 0)
            throw std::runtime_error("can't listen on " + options_.host + ":" + std::to_string(options_.port));
    }

    template <typename Body>
    void guarded(Response& response, Body body) {
        try {
            body();
        } catch (const Rejection& rejection) {
            reject(response, rejection);
        } catch (const std::exception& error) {
            reject(response, {500, error.what()});
        }
    }

    void reject(Response& response, const Rejection& rejection) {
        response.status = rejection.status;
        response.set_content(jsonMember("error", rejection.reason), kJsonType);
        log("rejected: status=" + std::to_string(rejection.status) + " reason=" + rejection.reason);
    }

    void onIngest(const Request& request, Response& response, const ContentReader& reader) {
        try {
            const std::string body = readBody(response, reader, request);
            requireKey(request);
            const auto step = script_.next();
            if (step) db_.addScripted();
            if (step && !step->lateAnswer) pause(step->delay);
            if (step && step->drop) return cutOff(response, *step);
            if (step && step->status >= 300) return answerByScript(response, *step);
            const std::vector<ReceivedEvent> batch = readBatch(body);
            db_.addBatch(batch);
            if (step && step->lateAnswer) pause(step->delay);
            response.status = step && step->status != 0 ? step->status : 200;
            response.set_content("{\"accepted\":" + std::to_string(batch.size()) + "}", kJsonType);
        } catch (const Rejection& rejection) {
            db_.addRejection(rejection.status, rejection.reason);
            throw;
        }
    }

    // The body after decompression. What is too large is read on for a while, so that the client gets to see the
    // answer.
    std::string readBody(const Response& response, const ContentReader& reader, const Request& request) const {
        std::string body;
        size_t total = 0;
        const bool isRead = reader([&](const char* data, size_t length) {
            total += length;
            if (total <= options_.maxBatchBytes) body.append(data, length);
            return total <= options_.maxBatchBytes * kDrainFactor;
        });
        if (total > options_.maxBatchBytes || (!isRead && response.status == 413))
            throw Rejection{413, "the body is too large"};
        if (isRead) return body;
        const std::string encoding = request.get_header_value("Content-Encoding");
        throw Rejection{400, encoding.empty() ? "the body can't be read" : "the body is no valid " + encoding};
    }

    void requireKey(const Request& request) const {
        const std::string key = request.get_header_value("x-api-key");
        if (key.empty()) throw Rejection{401, "x-api-key is missing"};
        if (!options_.apiKey.empty() && key != options_.apiKey) throw Rejection{403, "x-api-key is not known"};
    }

    void answerByScript(Response& response, const ScriptStep& step) const {
        response.status = step.status;
        if (step.retryAfter) response.set_header("Retry-After", std::to_string(*step.retryAfter));
        response.set_content(jsonMember("error", "scripted"), kJsonType);
    }

    // An answer whose body never comes: the connection is closed instead.
    void cutOff(Response& response, const ScriptStep& step) const {
        response.status = step.status != 0 ? step.status : 200;
        response.set_content_provider(100, kJsonType, [](size_t, size_t, httplib::DataSink&) { return false; });
    }

    void onProfile(const Request& request, Response& response) {
        if (request.get_header_value("Authorization").rfind("Bearer ", 0) != 0)
            throw Rejection{401, "the bearer token is missing"};
        response.status = options_.identityStatus;
        response.set_content(options_.identityStatus < 300 ? profile_ : jsonMember("error", "scripted"), kJsonType);
    }

    void onTrackingFlag(const Request& request, Response& response) {
        if (request.get_header_value("Access-Token").empty()) throw Rejection{401, "the access token is missing"};
        response.set_content(jsonMember("tracking_flag", options_.trackingFlag), kJsonType);
    }

    void onScript(const Request& request, Response& response) {
        try {
            playScript(request.body);
        } catch (const std::invalid_argument& error) {
            throw Rejection{400, std::string("script: ") + error.what()};
        }
        response.set_content("{}", kJsonType);
    }

    void pause(std::chrono::milliseconds delay) {
        std::unique_lock lock(mutex_);
        stopped_.wait_for(lock, delay, [this] { return stopping_; });
    }

    void log(const std::string& line) {
        if (options_.quiet) return;
        const std::lock_guard lock(logMutex_);
        std::cerr << line << std::endl;
    }

    const CollectorOptions options_;
    const std::string profile_;
    EventDb db_;
    Script script_;
    int port_ = 0;
    std::mutex mutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::mutex logMutex_;
    httplib::Server server_;
    std::atomic<bool> ended_{false};  // set by the serving thread, so that stop() does not wait for its beginning
    std::thread thread_;
};

Collector::Collector(const CollectorOptions& options) : impl_(std::make_unique<Impl>(options)) {}
Collector::~Collector() = default;
int Collector::port() const { return impl_->port(); }
std::string Collector::url() const { return "http://" + impl_->options().host + ":" + std::to_string(port()); }
void Collector::playScript(const std::string& json) { impl_->playScript(json); }
void Collector::start() { impl_->start(); }
void Collector::stop() { impl_->stop(); }

}  // namespace velmora::tool
