// A server on loopback that answers each request with bytes of the test's choice, legal or not.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora::test {

struct ReceivedRequest {
    std::string method;
    std::string path;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
};

// Sent as it is; then the connection is closed, or, with `hang`, kept open and silent until the server ends.
struct ScriptedAnswer {
    std::string bytes;
    bool hang = false;
};

class ScriptedServer {
public:
    using Script = std::function<ScriptedAnswer(const ReceivedRequest&)>;

    // The script runs on the connections' threads.
    explicit ScriptedServer(Script script);
    ~ScriptedServer();

    [[nodiscard]] std::string url(const std::string& path = "") const;
    [[nodiscard]] std::vector<ReceivedRequest> received();
    bool waitForRequests(size_t count);

private:
    using Socket = boost::asio::ip::tcp::socket;

    void accept();
    void serve(Socket& socket);
    ReceivedRequest read(Socket& socket);

    const Script script_;
    boost::asio::io_context context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ending_ = false;
    std::vector<ReceivedRequest> received_;
    std::list<Socket> sockets_;
    std::vector<std::thread> connections_;
    std::thread acceptThread_;
};

// A complete response with a length and "connection: close".
[[nodiscard]] std::string httpAnswer(const std::string& status, const std::string& body, const std::string& more = "");

}  // namespace velmora::test
