// The three services that the library talks to, on one local port: ingest, identity and tracking; and a view of what
// has arrived.
//
//   POST /ingest                     a batch, gzip or plain, with x-api-key
//   GET  /oswin/profile              the profile of the options, for any bearer token
//   GET  /fetch_user_tracking_flag   the tracking flag of the options
//   GET  /events                     what has arrived; see EventQuery, any other parameter is a key of the data
//   GET  /stats                      how much has arrived
//   POST /script                     see parseScript
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace velmora::tool {

struct CollectorOptions {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: any free one
    std::string store;
    std::string apiKey;                       // empty: any key will do
    size_t maxBodyBytes = 8 * 1024 * 1024;    // as sent
    size_t maxBatchBytes = 64 * 1024 * 1024;  // after decompression
    std::string profile;                      // JSON object; empty: a made-up user
    std::string trackingFlag = "PII";
    int identityStatus = 200;  // of the profile's answer
    bool quiet = false;        // no log lines
};

class Collector {
public:
    // Opens the store and binds the port. Throws std::runtime_error if one of them can't be had, std::invalid_argument
    // for a profile that is no JSON object.
    explicit Collector(const CollectorOptions& options);
    ~Collector();  // stops
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    [[nodiscard]] int port() const;
    [[nodiscard]] std::string url() const;

    // As POST /script. Throws std::invalid_argument.
    void playScript(const std::string& json);

    // Serves on threads of its own until stop().
    void start();
    void stop();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace velmora::tool
