#include "tests/httpstack/scriptedserver.h"

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <istream>

namespace velmora::test {

namespace asio = boost::asio;
using asio::ip::tcp;

ScriptedServer::ScriptedServer(Script script)
    : script_(std::move(script)),
      acceptor_(context_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
      acceptThread_([this] { accept(); }) {}

ScriptedServer::~ScriptedServer() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        boost::system::error_code ignored;
        for (Socket& socket : sockets_) socket.shutdown(tcp::socket::shutdown_both, ignored);
    }
    changed_.notify_all();
    boost::system::error_code ignored;
    tcp::socket waker(context_);
    waker.connect(acceptor_.local_endpoint(), ignored);
    acceptThread_.join();
    for (std::thread& connection : connections_) connection.join();
}

std::string ScriptedServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()) + path;
}

std::vector<ReceivedRequest> ScriptedServer::received() {
    const std::lock_guard lock(mutex_);
    return received_;
}

bool ScriptedServer::waitForRequests(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return received_.size() >= count; });
}

void ScriptedServer::accept() {
    for (;;) {
        boost::system::error_code failure;
        Socket socket(context_);
        acceptor_.accept(socket, failure);
        const std::lock_guard lock(mutex_);
        if (ending_) return;
        if (failure) continue;
        Socket& kept = sockets_.emplace_back(std::move(socket));
        connections_.emplace_back([this, &kept] { serve(kept); });
    }
}

void ScriptedServer::serve(Socket& socket) {
    boost::system::error_code ignored;
    try {
        const ReceivedRequest request = read(socket);
        {
            const std::lock_guard lock(mutex_);
            received_.push_back(request);
        }
        changed_.notify_all();
        const ScriptedAnswer answer = script_(request);
        asio::write(socket, asio::buffer(answer.bytes), ignored);
        std::unique_lock lock(mutex_);
        if (answer.hang) changed_.wait(lock, [this] { return ending_; });
    } catch (const boost::system::system_error&) {
        // The client has gone; there is nobody left to answer.
    }
    const std::lock_guard lock(mutex_);
    socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
}

ReceivedRequest ScriptedServer::read(Socket& socket) {
    asio::streambuf buffer;
    asio::read_until(socket, buffer, "\r\n\r\n");
    std::istream in(&buffer);
    ReceivedRequest request;
    std::string line;
    in >> request.method >> request.path;
    std::getline(in, line);
    while (std::getline(in, line) && line != "\r") {
        const size_t colon = line.find(':');
        std::string key = line.substr(0, colon);
        std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
        const size_t value = line.find_first_not_of(' ', colon + 1);
        request.headers[key] = line.substr(value, line.find_last_not_of("\r") - value + 1);
    }
    const auto length = request.headers.find("content-length");
    const size_t wanted = length == request.headers.end() ? 0 : std::stoul(length->second);
    if (buffer.size() < wanted) asio::read(socket, buffer, asio::transfer_exactly(wanted - buffer.size()));
    request.body.resize(wanted);
    in.read(request.body.data(), static_cast<std::streamsize>(wanted));
    return request;
}

std::string httpAnswer(const std::string& status, const std::string& body, const std::string& more) {
    return "HTTP/1.1 " + status + "\r\ncontent-length: " + std::to_string(body.size()) + "\r\nconnection: close\r\n" +
           more + "\r\n" + body;
}

}  // namespace velmora::test
