// A small HTTP client for tests of services on this machine: one connection per request.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace velmora::test {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpReply {
    int status = 0;  // 0: no complete answer came
    std::string body;
    std::string retryAfter;
};

inline HttpReply exchange(int port, const std::string& method, const std::string& target,
                          const HttpHeaders& headers = {}, const std::string& body = "",
                          std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    namespace beast = boost::beast;
    namespace http = beast::http;
    boost::asio::io_context context;
    beast::tcp_stream stream(context);
    http::request<http::string_body> request;
    request.method_string(method);
    request.target(target);
    request.version(11);
    request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
    for (const auto& [name, value] : headers) request.set(name, value);
    request.body() = body;
    request.prepare_payload();
    http::response_parser<http::string_body> parser;
    parser.body_limit(boost::none);
    beast::flat_buffer buffer;
    HttpReply reply;
    stream.expires_after(limit);
    const auto onRead = [&](beast::error_code error, size_t) {
        if (error) return;
        const auto& message = parser.get();
        reply = {static_cast<int>(message.result_int()), message.body(), std::string(message["Retry-After"])};
    };
    // What is refused early may break the writing off and is answered nevertheless.
    const auto onWritten = [&](beast::error_code, size_t) { http::async_read(stream, buffer, parser, onRead); };
    const boost::asio::ip::tcp::endpoint server(boost::asio::ip::make_address("127.0.0.1"),
                                                static_cast<unsigned short>(port));
    stream.async_connect(server, [&](beast::error_code error) {
        if (!error) http::async_write(stream, request, onWritten);
    });
    context.run();
    return reply;
}

}  // namespace velmora::test
