// An HTTP/1.1 server with bounds on everything a client can make it hold: connections, bytes of bodies in memory, and
// the time for heads, bodies, answers and idling. A few threads serve all connections.
#pragma once

#include <atomic>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velmora::tool {

struct HttpServerOptions {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: any free one
    int threads = 2;
    size_t maxConnections = 10000;  // further ones are answered 503 and closed
    size_t maxHeadBytes = 16 * 1024;
    size_t maxBodyBytes = 8 * 1024 * 1024;  // as sent
    uint64_t maxMemory = 256u << 20;        // of all requests' bodies, until they are answered
    std::chrono::milliseconds headTimeout{10000};
    std::chrono::milliseconds bodyTimeout{60000};
    std::chrono::milliseconds writeTimeout{30000};  // for an answer, or a piece of a streamed one
    std::chrono::milliseconds idleTimeout{60000};   // between two requests
    std::string tlsCertificate;                     // PEM files; both or none
    std::string tlsKey;
};

// Bytes held on behalf of clients, over all of them. Threads: any.
class MemoryBudget {
public:
    explicit MemoryBudget(uint64_t limit) : limit_(limit) {}
    [[nodiscard]] bool tryTake(uint64_t bytes) noexcept;
    void give(uint64_t bytes) noexcept { used_ -= bytes; }
    [[nodiscard]] uint64_t used() const noexcept { return used_; }

private:
    const uint64_t limit_;
    std::atomic<uint64_t> used_{0};  // by every thread that serves
};

// What one request holds of the budget; given back with the object.
class MemoryShare {
public:
    explicit MemoryShare(MemoryBudget& budget) : budget_(&budget) {}
    MemoryShare(MemoryShare&& other) noexcept : budget_(other.budget_), bytes_(std::exchange(other.bytes_, 0)) {}
    MemoryShare& operator=(MemoryShare&&) = delete;
    ~MemoryShare() { budget_->give(bytes_); }

    [[nodiscard]] bool tryGrow(uint64_t bytes) noexcept;

private:
    MemoryBudget* budget_;
    uint64_t bytes_ = 0;
};

struct HttpRequest {
    boost::beast::http::request<boost::beast::http::string_body> message;  // in onHead without its body
    std::string path;                                                      // decoded, without the query
    std::vector<std::pair<std::string, std::string>> query;                // decoded
    std::string remote;                                                    // the client's address
    std::optional<uint64_t> announcedBytes;                                // Content-Length
    MemoryShare memory;

    [[nodiscard]] std::string_view header(std::string_view name) const;  // empty if it is missing
};

// The text of an answer that comes in pieces. Lives until the answer has ended, however that ends.
class HttpBodySource {
public:
    using Give = std::function<void(std::optional<std::string>)>;  // nothing: that was all

    virtual ~HttpBodySource() = default;
    // Calls `give` once, on any thread, now or later. Asked again when that piece is on its way.
    virtual void next(Give give) = 0;
};

struct HttpAnswer {
    int status = 200;
    std::string body;
    const char* type = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;
    std::shared_ptr<HttpBodySource> source;  // instead of the body
    bool isEndless = false;                  // the source ends only with the client or the server
    bool cut = false;                        // break the connection off in the middle of the answer
    bool close = false;
    std::string note;  // for the log
};
using HttpRespond = std::function<void(HttpAnswer)>;

struct HttpExchange {  // that is over, for the log
    std::string remote, method, target;
    int status = 0;
    uint64_t bytesIn = 0;  // of the bodies
    uint64_t bytesOut = 0;
    std::chrono::microseconds duration{0};  // from the first byte of the head to the last of the answer
    std::string note;
};

// Called on the server's threads, at the same time for different connections; nothing here may wait.
class HttpHandler {
public:
    virtual ~HttpHandler() = default;
    // Before the body is read: an answer refuses the request.
    virtual std::optional<HttpAnswer> onHead(const HttpRequest& request) = 0;
    // `respond` is to be called once, on any thread, at any time before the server is destroyed.
    virtual void onRequest(std::shared_ptr<HttpRequest> request, HttpRespond respond) = 0;
    // The answer to what is no request that can be handed on: 400, 408, 413, 431 or 503.
    virtual HttpAnswer onFault(int status, const std::string& reason, const std::string& remote, uint64_t bytes) = 0;
    virtual void onAnswered(const HttpExchange& exchange) = 0;
};

struct HttpServerCore;

// Owns the listening socket, the threads and, through their pending operations, the connections. Constructed it is
// bound but serves nobody; start, drain and stop follow one another, each once, from one thread.
class HttpServer {
public:
    // Throws std::runtime_error if the address can't be had, be it that another process listens there, or if the
    // certificate or its key can't be used. The handler outlives the server.
    HttpServer(const HttpServerOptions& options, HttpHandler& handler);
    ~HttpServer();  // stops
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    [[nodiscard]] int port() const;
    [[nodiscard]] std::string url() const;
    [[nodiscard]] size_t connections() const;
    [[nodiscard]] MemoryBudget& memory();

    void start();
    // Calls `body` on a thread of the server when the time is over, or the server is draining.
    void after(std::chrono::milliseconds delay, std::function<void()> body);
    // Reads certificate and key again for connections to come. False with the reason, and the old ones stay in use, if
    // they can't be used. Nothing to do without TLS.
    bool reloadCertificate(std::string& why);

    // Takes no more connections, closes the idle ones, and waits until what was begun is answered, at most that long.
    void drain(std::chrono::milliseconds timeout);
    // Breaks off what is left and ends the threads. Responses after that go nowhere.
    void stop();

private:
    std::unique_ptr<HttpServerCore> core_;
};

}  // namespace velmora::tool
