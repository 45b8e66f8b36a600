// The life of one connection, plain or TLS, and what all connections of a server share. Private to the server.
#pragma once

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/chunk_encode.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/write.hpp>
#include <set>
#include <thread>
#include <type_traits>
#include <unordered_map>

#include "core/types/mutex.h"
#include "tools/velmora/httpserver.h"

namespace velmora::tool {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;
using ErrorCode = boost::system::error_code;

// What the server asks of a connection, whatever it is made of. Threads: any.
class HttpConnectionBase {
public:
    virtual ~HttpConnectionBase() = default;
    virtual void drain() = 0;  // ends after the answer under way, if there is one
    virtual void abort() = 0;
};

// Makes connections out of accepted sockets that begin with a handshake.
class TlsPort {
public:
    virtual ~TlsPort() = default;
    virtual void serve(tcp::socket socket, HttpServerCore& core) = 0;
    virtual void reload() = 0;  // throws std::runtime_error, and nothing has changed then
};
// Throws std::runtime_error if the files can't be used, or there is no TLS on this system.
[[nodiscard]] std::unique_ptr<TlsPort> openTlsPort(const std::string& certificate, const std::string& key);

struct HttpServerCore {
    HttpServerCore(const HttpServerOptions& chosen, HttpHandler& receiver)
        : options(chosen), handler(receiver), memory(chosen.maxMemory), acceptor(asio::make_strand(context)) {}

    void add(const std::shared_ptr<HttpConnectionBase>& connection);
    void remove(HttpConnectionBase* connection);
    [[nodiscard]] std::vector<std::shared_ptr<HttpConnectionBase>> all();
    void accept();
    void onAccepted(tcp::socket socket);

    const HttpServerOptions options;
    HttpHandler& handler;
    MemoryBudget memory;
    std::atomic<bool> isDraining{false};  // set once, by drain()
    std::unique_ptr<TlsPort> tls;

    Mutex mutex;
    Condition changed;
    std::unordered_map<HttpConnectionBase*, std::weak_ptr<HttpConnectionBase>> connections VELMORA_GUARDED_BY(mutex);
    std::set<std::shared_ptr<asio::steady_timer>> timers VELMORA_GUARDED_BY(mutex);

    asio::io_context context;  // destroyed before what its pending operations use
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
    tcp::acceptor acceptor;
    std::vector<std::thread> threads;
};

// Splits and decodes the target. False if it can't be decoded.
[[nodiscard]] bool readTarget(std::string_view target, HttpRequest& request);

// Kept alive by its pending operation, or by the handler while that owes an answer. Everything runs on the stream's
// strand, so one step at a time: head, body, handler, answer, and again from the head.
template <typename Stream>
class HttpConnection final : public HttpConnectionBase, public std::enable_shared_from_this<HttpConnection<Stream>> {
public:
    template <typename... Arguments>
    explicit HttpConnection(HttpServerCore& core, Arguments&&... arguments)
        : core_(core), stream_(std::forward<Arguments>(arguments)...) {
        ErrorCode ignored;
        const auto endpoint = lowest().socket().remote_endpoint(ignored);
        if (!ignored) remote_ = endpoint.address().to_string();
        lowest().socket().set_option(tcp::no_delay(true), ignored);
    }
    ~HttpConnection() override { core_.remove(this); }

    // After a handshake, where the stream has one.
    void run() {
        core_.add(this->shared_from_this());
        lowest().expires_after(core_.options.headTimeout);
        readFirst();
    }

    void drain() override {
        asio::post(stream_.get_executor(), [self = this->shared_from_this()] {
            if (self->isIdle_ || self->isEndless_) self->close();
        });
    }
    void abort() override {
        asio::post(stream_.get_executor(), [self = this->shared_from_this()] { self->close(); });
    }

    Stream& stream() { return stream_; }
    beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream_); }

private:
    static constexpr size_t kFirstRead = 2048;
    static constexpr uint64_t kSkippedBody =
        1 << 20;  // a refused body up to this is read, for the sake of the connection
    static constexpr auto kLingering = std::chrono::seconds(3);

    // Waits for the first byte of a request, with as little memory as possible.
    void readFirst() {
        if (core_.isDraining) return close();
        parser_.reset();
        request_.reset();
        if (buffer_.size() > 0) return readHead();
        buffer_ = beast::flat_buffer();
        isIdle_ = true;
        stream_.async_read_some(buffer_.prepare(kFirstRead),
                                [self = this->shared_from_this()](ErrorCode error, size_t bytes) {
                                    self->isIdle_ = false;
                                    if (error) return self->close();
                                    self->buffer_.commit(bytes);
                                    self->readHead();
                                });
    }

    void readHead() {
        begun_ = std::chrono::steady_clock::now();
        bodyBytes_ = 0;
        parser_.emplace();
        parser_->header_limit(static_cast<uint32_t>(core_.options.maxHeadBytes));
        parser_->body_limit(boost::none);
        lowest().expires_after(core_.options.headTimeout);
        http::async_read_header(stream_, buffer_, *parser_,
                                [self = this->shared_from_this()](ErrorCode error, size_t) { self->onHead(error); });
    }

    void onHead(ErrorCode error) {
        if (error == beast::error::timeout) return fault(408, "the head did not arrive in time");
        if (error == http::error::header_limit) return fault(431, "the head is too large");
        if (error && error.category() == make_error_code(http::error::bad_method).category() &&
            error != http::error::end_of_stream && error != http::error::partial_message)
            return fault(400, "not HTTP: " + error.message());
        if (error) return close();
        request_ = std::make_shared<HttpRequest>(HttpRequest{{}, {}, {}, remote_, {}, MemoryShare(core_.memory)});
        request_->message.base() = parser_->get().base();
        if (parser_->content_length()) request_->announcedBytes = *parser_->content_length();
        const auto target = parser_->get().target();
        if (!readTarget({target.data(), target.size()}, *request_)) return fault(400, "the target can't be read");
        if (auto refusal = core_.handler.onHead(*request_)) return refuse(std::move(*refusal));
        if (request_->announcedBytes.value_or(0) > core_.options.maxBodyBytes)
            return fault(413, "the body is too large");
        readWholeBody();
    }

    void readWholeBody() {
        lowest().expires_after(core_.options.bodyTimeout);
        if (http::token_list(parser_->get()[http::field::expect]).exists("100-continue")) return sendContinue();
        readBody();
    }

    void sendContinue() {
        static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        asio::async_write(stream_, asio::buffer(kContinue.data(), kContinue.size()),
                          [self = this->shared_from_this()](ErrorCode error, size_t) {
                              if (error) return self->close();
                              self->readBody();
                          });
    }

    void readBody() {
        if (parser_->is_done()) return handOver();
        http::async_read_some(stream_, buffer_, *parser_,
                              [self = this->shared_from_this()](ErrorCode error, size_t) { self->onBody(error); });
    }

    void onBody(ErrorCode error) {
        if (error == beast::error::timeout) return fault(408, "the body did not arrive in time");
        if (error && error.category() == make_error_code(http::error::bad_method).category() &&
            error != http::error::partial_message)
            return fault(400, "the body can't be read: " + error.message());
        if (error) return close();
        auto& body = parser_->get().body();
        if (refusal_) body.clear();
        if (body.size() > core_.options.maxBodyBytes) return fault(413, "the body is too large");
        if (body.size() > bodyBytes_ && !request_->memory.tryGrow(body.size() - bodyBytes_))
            return fault(503, "too much is being received");
        bodyBytes_ = body.size();
        readBody();
    }

    void handOver() {
        if (refusal_) return answer(std::move(*std::exchange(refusal_, std::nullopt)));
        request_->message.body() = std::move(parser_->get().body());
        lowest().expires_never();
        core_.handler.onRequest(request_, [self = this->shared_from_this()](HttpAnswer given) {
            asio::post(self->stream_.get_executor(),
                       [self, given = std::move(given)]() mutable { self->answer(std::move(given)); });
        });
    }

    // Without its body, unless reading that is cheaper than a new connection.
    void refuse(HttpAnswer refusal) {
        const bool expectsContinue = http::token_list(parser_->get()[http::field::expect]).exists("100-continue");
        const bool isShort = request_->announcedBytes.value_or(0) <= kSkippedBody && !parser_->chunked();
        if (parser_->is_done() || (isShort && !expectsContinue)) {
            refusal_ = std::move(refusal);
            return readBody();
        }
        refusal.close = true;
        answer(std::move(refusal));
    }

    void fault(int status, const std::string& reason) {
        HttpAnswer given = core_.handler.onFault(status, reason, remote_, bodyBytes_);
        given.close = true;
        refusal_.reset();
        answer(std::move(given));
    }

    template <typename Body>
    http::response<Body> responseTo(const HttpAnswer& given) {
        const auto& head = parser_->get();
        http::response<Body> response(static_cast<http::status>(given.status), head.version() == 10 ? 10 : 11);
        response.set(http::field::content_type, given.type);
        for (const auto& [name, value] : given.headers) response.set(name, value);
        isLast_ = given.close || core_.isDraining || !head.keep_alive();
        response.keep_alive(!isLast_);
        return response;
    }

    void answer(HttpAnswer given) {
        lowest().expires_after(core_.options.writeTimeout);
        given_ = std::move(given);
        bytesOut_ = 0;
        if (given_.cut) return onAnswered(beast::error::timeout);
        if (given_.source) return answerInPieces();
        whole_ = responseTo<http::string_body>(given_);
        whole_->body() = std::move(given_.body);
        whole_->prepare_payload();
        bytesOut_ = whole_->body().size();
        http::async_write(stream_, *whole_, [self = this->shared_from_this()](ErrorCode error, size_t) {
            self->whole_.reset();
            self->onAnswered(error);
        });
    }

    void answerInPieces() {
        head_ = responseTo<http::empty_body>(given_);
        if (head_->version() == 11)
            head_->chunked(true);
        else
            isLast_ = true;
        isEndless_ = given_.isEndless;
        serializer_.emplace(*head_);
        http::async_write_header(stream_, *serializer_, [self = this->shared_from_this()](ErrorCode error, size_t) {
            if (error) return self->onAnswered(error);
            self->askForPiece();
        });
    }

    void askForPiece() {
        if (isEndless_ && core_.isDraining) return close();
        lowest().expires_never();
        given_.source->next([self = this->shared_from_this()](std::optional<std::string> piece) {
            asio::post(self->stream_.get_executor(),
                       [self, piece = std::move(piece)]() mutable { self->sendPiece(std::move(piece)); });
        });
    }

    void sendPiece(std::optional<std::string> piece) {
        const bool isChunked = head_->chunked();
        const bool isEnd = !piece;
        if (isEnd && !isChunked) return onAnswered({});
        if (!isEnd && piece->empty()) return askForPiece();
        lowest().expires_after(core_.options.writeTimeout);
        piece_ = isEnd ? std::string() : std::move(*piece);
        bytesOut_ += piece_.size();
        const auto sent = [self = this->shared_from_this(), isEnd](ErrorCode error, size_t) {
            if (error || isEnd) return self->onAnswered(error);
            self->askForPiece();
        };
        if (isEnd) return asio::async_write(stream_, http::make_chunk_last(), sent);
        if (!isChunked) return asio::async_write(stream_, asio::buffer(piece_), sent);
        asio::async_write(stream_, http::make_chunk(asio::buffer(piece_)), sent);
    }

    void onAnswered(ErrorCode error) {
        report();
        given_ = {};
        isEndless_ = false;
        if (error) return close();
        lowest().expires_after(core_.options.idleTimeout);
        if (!isLast_) return readFirst();
        endPolitely();
    }

    void report() {
        const auto& head = parser_->get();
        const auto duration = std::chrono::steady_clock::now() - begun_;
        core_.handler.onAnswered({remote_, std::string(head.method_string()), std::string(head.target()), given_.status,
                                  bodyBytes_, bytesOut_,
                                  std::chrono::duration_cast<std::chrono::microseconds>(duration), given_.note});
    }

    // A client that is still sending sees the answer only if its bytes are taken for a while.
    void endPolitely() {
        ErrorCode ignored;
        if constexpr (!std::is_same_v<Stream, beast::tcp_stream>) {
            lowest().expires_after(kLingering);
            return stream_.async_shutdown([self = this->shared_from_this()](ErrorCode) { self->close(); });
        }
        lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
        lowest().expires_after(kLingering);
        buffer_ = beast::flat_buffer();
        linger(core_.options.maxBodyBytes * 4);
    }

    void linger(uint64_t budget) {
        lowest().async_read_some(buffer_.prepare(1 << 16),
                                 [self = this->shared_from_this(), budget](ErrorCode error, size_t bytes) {
                                     if (error || bytes > budget) return self->close();
                                     self->linger(budget - bytes);
                                 });
    }

    // The shutdown tells the client even where a child process has inherited the socket and keeps it open: on Windows
    // a waiting accept's socket exists, and is inherited, before its connection does.
    void close() {
        ErrorCode ignored;
        lowest().socket().shutdown(tcp::socket::shutdown_both, ignored);
        lowest().close();
    }

    HttpServerCore& core_;
    Stream stream_;
    std::string remote_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    std::shared_ptr<HttpRequest> request_;
    std::optional<HttpAnswer> refusal_;  // given when the body has gone by
    std::chrono::steady_clock::time_point begun_;
    uint64_t bodyBytes_ = 0;

    HttpAnswer given_;
    std::optional<http::response<http::string_body>> whole_;
    std::optional<http::response<http::empty_body>> head_;
    std::optional<http::response_serializer<http::empty_body>> serializer_;
    std::string piece_;
    uint64_t bytesOut_ = 0;
    bool isIdle_ = false;
    bool isEndless_ = false;
    bool isLast_ = false;
};

}  // namespace velmora::tool
