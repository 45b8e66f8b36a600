#include "tools/velmora/collector.h"

#include <array>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>

#include "core/filesystem/path.h"
#include "core/types/mutex.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"
#include "tools/velmora/files.h"
#include "tools/velmora/keys.h"
#include "tools/velmora/script.h"

namespace velmora::tool {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr int64_t kDefaultLimit = 1000;
constexpr int64_t kRowsAtOnce = 500;
constexpr auto kWatchInterval = std::chrono::milliseconds(1000);  // for files that may have changed
constexpr auto kStreamInterval = std::chrono::milliseconds(100);
constexpr int kStreamIdleTurns = 150;
constexpr const char* kDefaultProfile =
    R"({"account_type":"type1","preferred_languages":["en-us"],"serviceAccounts":[{"ident":"1","serviceCode":"local",)"
    R"("serviceLevel":"CS_LVL_1","serviceStatus":"ACTIVE"}],"userId":"local-user@example","mrktPerm":"true",)"
    R"("mrktPermEmail":"true"})";

struct Rejection {
    int status;
    std::string reason;
};

std::string dump(const json& document) { return document.dump(-1, ' ', false, json::error_handler_t::replace); }

int64_t readCount(const std::string& text, const std::string& name) {
    if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != std::string::npos)
        throw Rejection{400, name + " is not a number: " + text};
    return std::stoll(text);
}

struct EventsWish {
    EventQuery query;
    int64_t limit = kDefaultLimit;
    bool asLines = false;
};

bool readKnown(const std::string& key, const std::string& value, EventsWish& wish, bool& hasLimit) {
    EventQuery& query = wish.query;
    if (key == "project") return query.project = value, true;
    if (key == "guid") return query.guid = value, true;
    if (key == "since") return query.since = value, true;
    if (key == "text") return query.text = value, true;
    if (key == "batch") return query.batch = readCount(value, key), true;
    if (key == "before") return query.before = readCount(value, key), true;
    if (key == "offset") return query.offset = readCount(value, key), true;
    if (key == "limit") return wish.limit = readCount(value, key), hasLimit = true;
    if (key == "signedIn") return query.signedIn = value == "1", true;
    if (key == "order") return query.newestFirst = value == "desc", true;
    if (key == "format") return wish.asLines = value == "ndjson", true;
    return false;
}

EventsWish readWish(const HttpRequest& request) {
    EventsWish wish;
    bool hasLimit = false;
    for (const auto& [key, value] : request.query) {
        if (readKnown(key, value, wish, hasLimit)) continue;
        if (key.find('"') != std::string::npos) throw Rejection{400, "bad key"};
        wish.query.data.emplace_back(key, value);
    }
    if (wish.asLines && !hasLimit) wish.limit = INT64_MAX;
    return wish;
}

// The answer of /events, some rows at a time, however many there are. Read on the thread of the queries.
class EventsSource final : public HttpBodySource {
public:
    EventsSource(StoreView& view, EventsWish wish, boost::asio::thread_pool& queries)
        : view_(view), wish_(std::move(wish)), queries_(queries) {}

    void next(Give give) override {
        boost::asio::post(queries_, [this, give = std::move(give)] {
            try {
                give(isOver_ ? std::nullopt : std::optional(piece()));
            } catch (const std::exception&) {
                give(std::nullopt);
            }
        });
    }

private:
    std::string piece() {
        std::string text;
        if (isFirst_ && !wish_.asLines)
            text = "{\"total\":" + std::to_string(view_.countEvents(wish_.query)) + ",\"events\":[";
        const int64_t wanted = std::min(kRowsAtOnce, wish_.limit - given_);
        int64_t rows = 0;
        const int64_t last = view_.readEvents(wish_.query, wanted, [&](std::string_view event) {
            if (!wish_.asLines && given_ + rows > 0) text += ',';
            text += event;
            if (wish_.asLines) text += '\n';
            ++rows;
        });
        given_ += rows;
        isFirst_ = false;
        isOver_ = rows < kRowsAtOnce || given_ >= wish_.limit;
        if (rows > 0) goOnBehind(last);
        if (isOver_ && !wish_.asLines) text += "]" + following(rows, last) + "}";
        return text;
    }

    void goOnBehind(int64_t last) {
        wish_.query.offset = 0;
        if (wish_.query.newestFirst)
            wish_.query.before = last;
        else
            wish_.query.after = last;
    }

    std::string following(int64_t rows, int64_t last) {
        const bool isMore = rows > 0 && view_.readEvents(wish_.query, 1, [](std::string_view) {}) != 0;
        return isMore ? ",\"next\":" + std::to_string(last) : "";
    }

    StoreView& view_;
    EventsWish wish_;
    boost::asio::thread_pool& queries_;
    int64_t given_ = 0;
    bool isFirst_ = true;
    bool isOver_ = false;
};

std::string checkedProfile(const std::string& profile) {
    if (profile.empty()) return kDefaultProfile;
    const json document = json::parse(profile, nullptr, false);
    if (!document.is_object()) throw std::invalid_argument("--profile: is not a JSON object");
    return profile;
}

bool isLoopbackAddress(const std::string& host) {
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address(host, error);
    return error ? host == "localhost" : address.is_loopback();
}

bool isAddress(const std::string& host) {
    boost::system::error_code error;
    (void)boost::asio::ip::make_address(host, error);
    return !error;
}

// "[::1]:80" gives "::1", "localhost:80" gives "localhost".
std::string hostOf(std::string_view authority) {
    if (authority.starts_with('[')) return std::string(authority.substr(1, authority.find(']') - 1));
    return std::string(authority.substr(0, authority.find(':')));
}

std::string modifiedAt(const std::string& path) {
    boost::system::error_code error;
    const auto time = boost::filesystem::last_write_time(Path(path).native(), error);
    const auto size = boost::filesystem::file_size(Path(path).native(), error);
    return std::to_string(time) + "/" + std::to_string(size);
}

}  // namespace

class Collector::Impl final : public HttpHandler {
public:
    explicit Impl(const CollectorOptions& options)
        : options_(options),
          profile_(checkedProfile(options.profile)),
          isLocal_(isLoopbackAddress(options.host)),
          token_(isLocal_                ? ""
                 : options.token.empty() ? makeGuid()
                                         : options.token) {
        readKeys();
        openAccessLog();
        StoreOptions storage = options.storage;
        storage.target = options.store;
        store_ = openStore(storage);
        HttpServerOptions serving = options.server;
        serving.host = options.host;
        serving.port = options.port;
        serving.maxBodyBytes = options.maxBodyBytes;
        server_ = std::make_unique<HttpServer>(serving, *this);
    }
    ~Impl() override { stop(); }

    const HttpServer& server() const { return *server_; }
    const std::string& token() const { return token_; }
    void playScript(const std::string& text) { script_.play(parseScript(text)); }

    void start() {
        watchFiles();
        server_->start();
    }

    void stop() {
        if (isStopped_) return;
        isStopped_ = true;
        isDraining_ = true;
        server_->drain(options_.drainTimeout);
        server_->stop();
        queries_.join();
        store_->stop();
    }

    std::optional<HttpAnswer> onHead(const HttpRequest& request) override {
        try {
            if (request.path == "/ingest") return admit(request), std::nullopt;
            if (request.path == "/oswin/profile" || request.path == "/fetch_user_tracking_flag") return std::nullopt;
            checkBrowser(request);
            return std::nullopt;
        } catch (const Rejection& rejection) {
            return reject(request, rejection);
        }
    }

    void onRequest(std::shared_ptr<HttpRequest> request, HttpRespond respond) override {
        try {
            route(request, respond);
        } catch (const Rejection& rejection) {
            respond(reject(*request, rejection));
        } catch (const std::exception& error) {
            respond(reject(*request, {500, error.what()}));
        }
    }

    HttpAnswer onFault(int status, const std::string& reason, const std::string& remote, uint64_t bytes) override {
        return rejected({status, reason, remote, bytes});
    }

    void onAnswered(const HttpExchange& exchange) override {
        {
            const MutexLock lock(metricsMutex_);
            ++answers_[exchange.status];
            const double seconds = std::chrono::duration<double>(exchange.duration).count();
            durationSum_ += seconds;
            for (size_t i = 0; i < kBuckets.size(); ++i) durations_[i] += seconds <= kBuckets[i] ? 1 : 0;
        }
        if (options_.accessLog.empty()) return;
        const json line{{"time", currentTimeUtcMicros()}, {"remote", exchange.remote},
                        {"method", exchange.method},      {"target", exchange.target},
                        {"status", exchange.status},      {"bytesIn", exchange.bytesIn},
                        {"bytesOut", exchange.bytesOut},  {"ms", static_cast<double>(exchange.duration.count()) / 1000},
                        {"note", exchange.note}};
        const MutexLock lock(logMutex_);
        (options_.accessLog == "-" ? std::cout : accessLog_) << dump(line) << std::endl;
    }

private:
    using Request = std::shared_ptr<HttpRequest>;
    static constexpr std::array<double, 8> kBuckets{0.001, 0.005, 0.01, 0.05, 0.1, 0.5, 1, 5};

    void openAccessLog() {
        const MutexLock lock(logMutex_);
        if (!options_.accessLog.empty() && options_.accessLog != "-")
            openToWrite(accessLog_, options_.accessLog, std::ios::app);
    }

    void readKeys() {
        if (!options_.apiKey.empty()) keys_.replace({{options_.apiKey, {}}});
        if (options_.keysFile.empty()) return;
        keysSeen_ = modifiedAt(options_.keysFile);
        try {
            auto rules = parseKeys(readWhole(options_.keysFile));
            if (!options_.apiKey.empty()) rules.emplace(options_.apiKey, KeyRule());
            keys_.replace(std::move(rules));
        } catch (const std::invalid_argument& error) {
            throw std::invalid_argument("--keys: " + options_.keysFile + ": " + error.what());
        }
    }

    // Keys and certificate are taken over when their files have changed; broken ones change nothing.
    void watchFiles() {
        const auto certificate = [this] {
            return modifiedAt(options_.server.tlsCertificate) + modifiedAt(options_.server.tlsKey);
        };
        if (certificateSeen_.empty()) certificateSeen_ = certificate();
        if (const std::string seen = certificate(); seen != certificateSeen_) {
            certificateSeen_ = seen;
            std::string why;
            log(server_->reloadCertificate(why) ? "certificate: read again" : "certificate: the old one stays: " + why);
        }
        if (!options_.keysFile.empty() && modifiedAt(options_.keysFile) != keysSeen_) {
            try {
                readKeys();
                log("keys: read again");
            } catch (const std::exception& error) {
                log(std::string("keys: the old ones stay: ") + error.what());
            }
        }
        if (!isDraining_) server_->after(kWatchInterval, [this] { watchFiles(); });
    }

    // -- who may ----------------------------------------------------------------------------------------------------

    void admit(const HttpRequest& request) {
        if (request.message.method() != boost::beast::http::verb::post) throw Rejection{405, "post a batch"};
        const std::string key(request.header("x-api-key"));
        if (key.empty()) throw Rejection{401, "x-api-key is missing"};
        const auto verdict = keys_.admit(key, Clock::now());
        if (verdict == KeyRing::Verdict::unknown) throw Rejection{403, "x-api-key is not known"};
        if (verdict == KeyRing::Verdict::exhausted) throw Rejection{429, "the key is over its rate"};
    }

    // A page of some other site must neither read what has arrived nor change it, also not under a name of its own that
    // it has pointed here.
    void checkBrowser(const HttpRequest& request) const {
        const std::string_view authority = request.header("Host");
        const std::string host = hostOf(authority);
        const auto& names = options_.names;
        const bool isOurs = host == "localhost" || isAddress(host) || host == options_.host ||
                            std::find(names.begin(), names.end(), host) != names.end();
        if (!isOurs) throw Rejection{403, "the Host " + host + " is not known; see --name"};
        const std::string_view origin = request.header("Origin");
        const size_t slashes = origin.find("://");
        if (!origin.empty() && (slashes == std::string_view::npos || origin.substr(slashes + 3) != authority))
            throw Rejection{403, "the Origin is another site"};
        const bool isChange = request.message.method() != boost::beast::http::verb::get;
        if (isChange && !isLocal_ && request.header("Authorization") != "Bearer " + token_)
            throw Rejection{401, "the token is missing or wrong; it was printed at the start"};
    }

    // -- requests ---------------------------------------------------------------------------------------------------

    void route(const Request& request, const HttpRespond& respond) {
        using boost::beast::http::verb;
        const struct {
            verb method;
            const char* path;
            void (Impl::*handle)(const Request&, const HttpRespond&);
        } routes[] = {
            {verb::get, "/", &Impl::onPage},
            {verb::post, "/ingest", &Impl::onIngest},
            {verb::get, "/oswin/profile", &Impl::onProfile},
            {verb::get, "/fetch_user_tracking_flag", &Impl::onTrackingFlag},
            {verb::get, "/events", &Impl::onEvents},
            {verb::delete_, "/events", &Impl::onClear},
            {verb::get, "/rejections", &Impl::onRejections},
            {verb::get, "/stats", &Impl::onStats},
            {verb::get, "/stream", &Impl::onStream},
            {verb::post, "/script", &Impl::onScript},
            {verb::get, "/healthz", &Impl::onHealth},
            {verb::get, "/readyz", &Impl::onReady},
            {verb::get, "/metrics", &Impl::onMetrics},
        };
        bool isKnown = false;
        for (const auto& known : routes) {
            if (request->path != known.path) continue;
            isKnown = true;
            if (request->message.method() == known.method) return (this->*known.handle)(request, respond);
        }
        respond(plain(isKnown ? 405 : 404, dump({{"error", isKnown ? "another method, please" : "nothing here"}})));
    }

    static HttpAnswer plain(int status, std::string body, const char* type = "application/json") {
        HttpAnswer answer;
        answer.status = status;
        answer.body = std::move(body);
        answer.type = type;
        return answer;
    }

    HttpAnswer reject(const HttpRequest& request, const Rejection& rejection) {
        return rejected({rejection.status, rejection.reason, request.remote,
                         request.announcedBytes.value_or(request.message.body().size())});
    }

    HttpAnswer rejected(RejectionRecord record) {
        HttpAnswer answer = plain(record.status, dump({{"error", record.reason}}));
        if (record.status == 429 || record.status == 503)
            answer.headers.emplace_back("Retry-After", std::to_string(spreadPause()));
        answer.note = record.reason;
        log("rejected: status=" + std::to_string(record.status) + " reason=" + record.reason);
        if (StoreView* const view = store_->view()) view->addRejection(std::move(record));
        return answer;
    }

    // Clients that were refused together do not come back together.
    int spreadPause() {
        const MutexLock lock(metricsMutex_);
        return options_.retryAfter + std::uniform_int_distribution<int>(0, options_.retrySpread)(random_);
    }

    void onIngest(const Request& request, const HttpRespond& respond) {
        const auto step = script_.next();
        if (!step) return takeBatch(request, respond, {});
        if (StoreView* const view = store_->view()) view->addRejection({0, "scripted", request->remote, 0});
        if (step->lateAnswer) {
            const HttpRespond late = [this, respond, delay = step->delay](HttpAnswer answer) {
                server_->after(delay, [respond, answer = std::move(answer)] { respond(answer); });
            };
            return takeBatch(request, late, *step);
        }
        server_->after(step->delay, [this, request, respond, step = *step] {
            if (!step.drop && step.status < 300) return takeGuarded(request, respond, step);
            HttpAnswer answer = plain(step.status != 0 ? step.status : 200, dump({{"error", "scripted"}}));
            if (step.retryAfter) answer.headers.emplace_back("Retry-After", std::to_string(*step.retryAfter));
            answer.cut = step.drop;
            answer.note = "scripted";
            respond(std::move(answer));
        });
    }

    void takeGuarded(const Request& request, const HttpRespond& respond, const ScriptStep& step) {
        try {
            takeBatch(request, respond, step);
        } catch (const Rejection& rejection) {
            respond(reject(*request, rejection));
        }
    }

    void takeBatch(const Request& request, const HttpRespond& respond, const ScriptStep& step) {
        const std::shared_ptr<const Batch> batch = unpack(*request);
        if (auto why = keys_.charge(std::string(request->header("x-api-key")), *batch)) throw Rejection{403, *why};
        const int status = step.status >= 200 ? step.status : 200;
        store_->append(batch, [this, request, batch, respond, status](const AppendResult& result) {
            if (result.outcome == AppendOutcome::refused) return respond(reject(*request, {413, result.reason}));
            if (result.outcome != AppendOutcome::stored) return respond(reject(*request, {503, result.reason}));
            HttpAnswer answer = plain(status, "{\"accepted\":" + std::to_string(batch->events.size()) + "}");
            answer.note = countTaken(*batch);
            respond(std::move(answer));
        });
    }

    std::shared_ptr<const Batch> unpack(HttpRequest& request) const {
        std::string body = std::move(request.message.body());
        const std::string_view encoding = request.header("Content-Encoding");
        try {
            if (encoding == "gzip") {
                body = inflateGzip(body, options_.maxBatchBytes);
                if (!request.memory.tryGrow(body.size())) throw Rejection{503, "too much is being received"};
            } else if (!encoding.empty() && encoding != "identity") {
                throw Rejection{415, "the Content-Encoding is not gzip"};
            }
            if (body.size() > options_.maxBatchBytes) throw Rejection{413, "the body is too large"};
            return readBatch(std::move(body));
        } catch (const std::length_error& error) {
            throw Rejection{413, error.what()};
        } catch (const std::invalid_argument& error) {
            throw Rejection{400, error.what()};
        }
    }

    // The line that the terminal shows for a batch, and the access log as its note.
    std::string countTaken(const Batch& batch) {
        takenEvents_ += batch.events.size();
        const uint64_t number = ++takenBatches_;
        std::string note = std::to_string(batch.events.size()) + (batch.events.size() == 1 ? " event" : " events");
        if (!batch.events.empty() && !batch.events.front().project.empty())
            note += " of " + batch.events.front().project + " " + batch.events.front().environment;
        log("batch " + std::to_string(number) + ": " + note);
        return note;
    }

    void onProfile(const Request& request, const HttpRespond& respond) {
        if (!request->header("Authorization").starts_with("Bearer "))
            return respond(reject(*request, {401, "the bearer token is missing"}));
        const bool isGood = options_.identityStatus < 300;
        respond(plain(options_.identityStatus, isGood ? profile_ : dump({{"error", "scripted"}})));
    }

    void onTrackingFlag(const Request& request, const HttpRespond& respond) {
        if (request->header("Access-Token").empty())
            return respond(reject(*request, {401, "the access token is missing"}));
        respond(plain(200, dump({{"tracking_flag", options_.trackingFlag}})));
    }

    void onScript(const Request& request, const HttpRespond& respond) {
        std::string text = request->message.body();
        try {
            if (request->header("Content-Encoding") == "gzip") text = inflateGzip(text, options_.maxBodyBytes);
            playScript(text);
        } catch (const std::logic_error& error) {
            throw Rejection{400, std::string("script: ") + error.what()};
        }
        respond(plain(200, "{}"));
    }

    // -- the view ---------------------------------------------------------------------------------------------------

    StoreView& requireView() const {
        if (StoreView* const view = store_->view()) return *view;
        throw Rejection{501, "this store can't be read here"};
    }

    // Runs a question to the store where it may take its time.
    template <typename Question>
    void ask(const Request& request, const HttpRespond& respond, Question question) {
        StoreView& view = requireView();
        boost::asio::post(queries_, [this, request, respond, question, &view] {
            try {
                respond(plain(200, question(view)));
            } catch (const std::exception& error) {
                respond(reject(*request, {500, error.what()}));
            }
        });
    }

    // The page runs its own script and asks this server, nothing else, whatever an event's text says.
    void onPage(const Request&, const HttpRespond& respond) {
        HttpAnswer answer = plain(200, std::string(kCollectorPage), "text/html; charset=utf-8");
        answer.headers.emplace_back("Content-Security-Policy",
                                    "default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
                                    "connect-src 'self'; frame-ancestors 'none'");
        respond(std::move(answer));
    }

    void onEvents(const Request& request, const HttpRespond& respond) {
        HttpAnswer answer;
        EventsWish wish = readWish(*request);
        if (wish.asLines) answer.type = "application/x-ndjson";
        answer.source = std::make_shared<EventsSource>(requireView(), std::move(wish), queries_);
        respond(std::move(answer));
    }

    void onRejections(const Request& request, const HttpRespond& respond) {
        int64_t since = 0;
        int64_t limit = kDefaultLimit;
        for (const auto& [key, value] : request->query) {
            if (key == "since") since = readCount(value, key);
            if (key == "limit") limit = readCount(value, key);
        }
        ask(request, respond, [since, limit](StoreView& view) {
            std::string text = "{\"rejections\":[";
            bool isFirst = true;
            view.readRejections(since, limit, [&](std::string_view rejection) {
                if (!std::exchange(isFirst, false)) text += ',';
                text += rejection;
            });
            return text + "]}";
        });
    }

    static std::string statsAsJson(const EventStats& stats) {
        return dump({{"events", stats.events},
                     {"distinct", stats.distinct},
                     {"duplicates", stats.events - stats.distinct},
                     {"batches", stats.batches},
                     {"rejected", stats.rejected},
                     {"scripted", stats.scripted},
                     {"lastEvent", stats.lastEvent},
                     {"lastRejection", stats.lastRejection}});
    }

    void onStats(const Request& request, const HttpRespond& respond) {
        ask(request, respond, [](StoreView& view) { return statsAsJson(view.stats()); });
    }

    void onClear(const Request& request, const HttpRespond& respond) {
        ask(request, respond, [](StoreView& view) {
            view.clear();
            return "{}";
        });
    }

    // The figures whenever they have changed; a slow reader misses steps, never the last one.
    class StatsSource final : public HttpBodySource, public std::enable_shared_from_this<StatsSource> {
    public:
        explicit StatsSource(Impl& collector) : collector_(collector) {}

        void next(Give give) override {
            collector_.server_->after(kStreamInterval, [self = shared_from_this(), give = std::move(give)] {
                if (self->collector_.isDraining_) return give(std::nullopt);
                boost::asio::post(self->collector_.queries_, [self, give] { self->look(give); });
            });
        }

    private:
        void look(const Give& give) {
            try {
                std::string now = statsAsJson(collector_.requireView().stats());
                if (now == last_) {
                    if (++idle_ < kStreamIdleTurns) return next(give);
                    idle_ = 0;
                    return give(": still here\n\n");
                }
                idle_ = 0;
                last_ = now;
                give("event: stats\ndata: " + now + "\n\n");
            } catch (const std::exception&) {
                give(std::nullopt);
            }
        }

        Impl& collector_;
        std::string last_;
        int idle_ = 0;
    };

    void onStream(const Request&, const HttpRespond& respond) {
        requireView();
        HttpAnswer answer;
        answer.type = "text/event-stream";
        answer.headers.emplace_back("Cache-Control", "no-store");
        answer.source = std::make_shared<StatsSource>(*this);
        answer.isEndless = true;
        respond(std::move(answer));
    }

    // -- for those who run it ---------------------------------------------------------------------------------------

    void onHealth(const Request&, const HttpRespond& respond) { respond(plain(200, R"({"status":"alive"})")); }

    void onReady(const Request&, const HttpRespond& respond) {
        std::string why = isDraining_ ? "it is being stopped" : "";
        const bool isReady = why.empty() && store_->ready(why);
        respond(plain(isReady ? 200 : 503, dump({{"status", isReady ? "ready" : why}})));
    }

    void onMetrics(const Request&, const HttpRespond& respond) {
        std::string text;
        const auto add = [&](const std::string& name, const char* type, const auto value) {
            text += "# TYPE velmora_collect_" + name + " " + type + "\nvelmora_collect_" + name + " " +
                    std::to_string(value) + "\n";
        };
        add("events_total", "counter", takenEvents_.load());
        add("batches_total", "counter", takenBatches_.load());
        add("connections", "gauge", server_->connections());
        add("body_bytes", "gauge", server_->memory().used());
        for (const auto& [name, value] : store_->figures()) add(name, "gauge", value);
        respond(plain(200, text + requestMetrics(), "text/plain; version=0.0.4"));
    }

    std::string requestMetrics() {
        const MutexLock lock(metricsMutex_);
        std::string text = "# TYPE velmora_collect_requests_total counter\n";
        uint64_t all = 0;
        for (const auto& [status, count] : answers_) {
            text += "velmora_collect_requests_total{status=\"" + std::to_string(status) + "\"} " +
                    std::to_string(count) + "\n";
            all += count;
        }
        const std::string name = "velmora_collect_request_seconds";
        text += "# TYPE " + name + " histogram\n";
        for (size_t i = 0; i < kBuckets.size(); ++i)
            text += name + "_bucket{le=\"" + dump(kBuckets[i]) + "\"} " + std::to_string(durations_[i]) + "\n";
        return text + name + "_bucket{le=\"+Inf\"} " + std::to_string(all) + "\n" + name + "_sum " +
               std::to_string(durationSum_) + "\n" + name + "_count " + std::to_string(all) + "\n";
    }

    void log(const std::string& line) {
        if (options_.quiet) return;
        const MutexLock lock(logMutex_);
        std::cerr << line << std::endl;
    }

    const CollectorOptions options_;
    const std::string profile_;
    const bool isLocal_;
    const std::string token_;
    KeyRing keys_;
    std::string keysSeen_;  // of the file that was read last; the watching timer alone
    std::string certificateSeen_;
    Script script_;
    std::unique_ptr<Store> store_;
    std::atomic<bool> isDraining_{false};  // set once, by stop()
    bool isStopped_ = false;
    std::atomic<uint64_t> takenEvents_{0};  // by whichever thread the store answers on
    std::atomic<uint64_t> takenBatches_{0};

    Mutex metricsMutex_;
    std::map<int, uint64_t> answers_ VELMORA_GUARDED_BY(metricsMutex_);
    std::array<uint64_t, kBuckets.size()> durations_ VELMORA_GUARDED_BY(metricsMutex_){};
    double durationSum_ VELMORA_GUARDED_BY(metricsMutex_) = 0;
    std::minstd_rand random_ VELMORA_GUARDED_BY(metricsMutex_){std::random_device{}()};

    Mutex logMutex_;  // one line at a time, here and on the standard streams
    std::ofstream accessLog_ VELMORA_GUARDED_BY(logMutex_);
    boost::asio::thread_pool queries_{1};  // questions to the store
    std::unique_ptr<HttpServer> server_;
};

Collector::Collector(const CollectorOptions& options) : impl_(std::make_unique<Impl>(options)) {}
Collector::~Collector() = default;
int Collector::port() const { return impl_->server().port(); }
std::string Collector::url() const { return impl_->server().url(); }
std::string Collector::token() const { return impl_->token(); }
void Collector::playScript(const std::string& json) { impl_->playScript(json); }
void Collector::start() { impl_->start(); }
void Collector::stop() { impl_->stop(); }

}  // namespace velmora::tool
