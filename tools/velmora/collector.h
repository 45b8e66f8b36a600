// The three services that the library talks to, on one port: ingest, identity and tracking; and a view of what has
// arrived, for developers, and of itself, for those who run it.
//
//   GET  /                           a page that shows what arrives as it arrives
//   POST /ingest                     a batch, gzip or plain, with x-api-key
//   GET  /oswin/profile              the profile of the options, for any bearer token
//   GET  /fetch_user_tracking_flag   the tracking flag of the options
//   GET  /events                     what has arrived: limit, offset, since, before, batch, project, guid, text,
//                                    signedIn=0|1, order=desc; any other parameter is a key of the data, with * for any
//                                    value and !V for any but V. "next" is the number of the last event if there are
//                                    more; format=ndjson gives one a line and has no limit unless one is asked for
//   DELETE /events                   forgets all of it
//   GET  /rejections                 what was refused, and why: since, limit
//   GET  /stats                      how much has arrived
//   GET  /stream                     the same as server-sent events "stats", a while after there is something new
//   POST /script                     see parseScript
//   GET  /healthz /readyz /metrics   alive; able to take events; Prometheus text
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tools/velmora/httpserver.h"
#include "tools/velmora/store.h"

namespace velmora::tool {

struct CollectorOptions {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: any free one
    std::string store;
    std::string apiKey;                       // empty: any key will do
    std::string keysFile;                     // see parseKeys; read again when it changes
    size_t maxBodyBytes = 8 * 1024 * 1024;    // as sent
    size_t maxBatchBytes = 64 * 1024 * 1024;  // after decompression
    std::string profile;                      // JSON object; empty: a made-up user
    std::string trackingFlag = "PII";
    int identityStatus = 200;        // of the profile's answer
    bool quiet = false;              // no log lines
    std::string accessLog;           // file for one JSON object per request, - for standard output; empty: none
    std::string token;               // for changes from beyond loopback; empty: a random one
    std::vector<std::string> names;  // of this machine, under which a browser may look at it
    int retryAfter = 2;              // seconds that a refused client is told to wait at least
    int retrySpread = 30;            // and at most so many more, at random
    std::chrono::milliseconds drainTimeout{10000};
    HttpServerOptions server;  // host, port and maxBodyBytes are taken from above
    StoreOptions storage;      // the target is taken from above
};

// The page, from page.html.
extern const std::string_view kCollectorPage;

class Collector {
public:
    // Opens the store and binds the port. Throws std::runtime_error if one of them can't be had, std::invalid_argument
    // for a profile or keys that can't be read.
    explicit Collector(const CollectorOptions& options);
    ~Collector();  // stops
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    [[nodiscard]] int port() const;
    [[nodiscard]] std::string url() const;
    // What a change from beyond loopback has to bring as bearer token; empty if none is asked for.
    [[nodiscard]] std::string token() const;

    // As POST /script. Throws std::invalid_argument.
    void playScript(const std::string& json);

    // Serves on threads of its own until stop(), which answers what was begun and keeps what was taken.
    void start();
    void stop();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace velmora::tool
