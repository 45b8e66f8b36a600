#include "tools/velmora/httpserver.h"

#include <stdexcept>

#include "tools/velmora/httpconnection.h"

namespace velmora::tool {
namespace {

constexpr std::string_view kTooMany =
    "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 5\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool decode(std::string_view text, bool isQuery, std::string& decoded) {
    decoded.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            const int high = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
            const int low = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
            if (high < 0 || low < 0) return false;
            decoded += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            decoded += isQuery && text[i] == '+' ? ' ' : text[i];
        }
    }
    return true;
}

// On Windows two processes may share a port unless the first one says no; elsewhere the option only lets a restarted
// server have the port of the one before.
void claimPort(tcp::acceptor& acceptor) {
#ifdef SO_EXCLUSIVEADDRUSE
    acceptor.set_option(asio::detail::socket_option::boolean<SOL_SOCKET, SO_EXCLUSIVEADDRUSE>(true));
#else
    acceptor.set_option(tcp::acceptor::reuse_address(true));
#endif
}

void listen(HttpServerCore& core) {
    const std::string where = core.options.host + ":" + std::to_string(core.options.port);
    try {
        tcp::resolver resolver(core.context);
        const auto found =
            resolver.resolve(core.options.host, std::to_string(core.options.port), tcp::resolver::passive);
        const tcp::endpoint endpoint = *found.begin();
        core.acceptor.open(endpoint.protocol());
        claimPort(core.acceptor);
        core.acceptor.bind(endpoint);
        core.acceptor.listen(asio::socket_base::max_listen_connections);
    } catch (const boost::system::system_error& error) {
        const bool isTaken = error.code() == asio::error::address_in_use || error.code() == asio::error::access_denied;
        throw std::runtime_error(
            "can't listen on " + where + ": " + error.code().message() +
            (isTaken && core.options.port != 0 ? "; choose another --port, or 0 for a free one" : ""));
    }
}

}  // namespace

bool MemoryBudget::tryTake(uint64_t bytes) noexcept {
    if (used_.fetch_add(bytes) + bytes <= limit_) return true;
    used_ -= bytes;
    return false;
}

bool MemoryShare::tryGrow(uint64_t bytes) noexcept {
    if (!budget_->tryTake(bytes)) return false;
    bytes_ += bytes;
    return true;
}

std::string_view HttpRequest::header(std::string_view name) const {
    const auto found = message.find(boost::beast::string_view(name.data(), name.size()));
    if (found == message.end()) return {};
    return {found->value().data(), found->value().size()};
}

bool readTarget(std::string_view target, HttpRequest& request) {
    target = target.substr(0, target.find('#'));
    const size_t mark = target.find('?');
    if (!decode(target.substr(0, mark), false, request.path)) return false;
    if (mark == std::string_view::npos) return true;
    std::string_view rest = target.substr(mark + 1);
    while (!rest.empty()) {
        const std::string_view pair = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(rest.size(), pair.size() + 1));
        if (pair.empty()) continue;
        const size_t equals = pair.find('=');
        auto& [key, value] = request.query.emplace_back();
        if (!decode(pair.substr(0, equals), true, key)) return false;
        if (equals != std::string_view::npos && !decode(pair.substr(equals + 1), true, value)) return false;
    }
    return true;
}

void HttpServerCore::add(const std::shared_ptr<HttpConnectionBase>& connection) {
    const MutexLock lock(mutex);
    connections.emplace(connection.get(), connection);
}

void HttpServerCore::remove(HttpConnectionBase* connection) {
    const MutexLock lock(mutex);
    connections.erase(connection);
    changed.notifyAll();
}

std::vector<std::shared_ptr<HttpConnectionBase>> HttpServerCore::all() {
    const MutexLock lock(mutex);
    std::vector<std::shared_ptr<HttpConnectionBase>> found;
    for (const auto& [raw, weak] : connections) {
        if (auto connection = weak.lock()) found.push_back(std::move(connection));
    }
    return found;
}

void HttpServerCore::accept() {
    acceptor.async_accept(asio::make_strand(context), [this](ErrorCode error, tcp::socket socket) {
        if (isDraining || error == asio::error::operation_aborted) return;
        if (!error) {
            onAccepted(std::move(socket));
            return accept();
        }
        // Out of descriptors, most likely: at once it would only fail again.
        const auto pause = std::make_shared<asio::steady_timer>(acceptor.get_executor(), kAcceptPause);
        pause->async_wait([this, pause](ErrorCode) { accept(); });
    });
}

void HttpServerCore::onAccepted(tcp::socket socket) {
    bool isFull = false;
    {
        const MutexLock lock(mutex);
        isFull = connections.size() >= options.maxConnections;
    }
    if (isFull) {
        ErrorCode ignored;
        socket.non_blocking(true, ignored);
        socket.write_some(asio::buffer(kTooMany.data(), kTooMany.size()), ignored);
        socket.shutdown(tcp::socket::shutdown_send, ignored);
    } else if (tls) {
        tls->serve(std::move(socket), *this);
    } else {
        std::make_shared<HttpConnection<beast::tcp_stream>>(*this, std::move(socket))->run();
    }
}

HttpServer::HttpServer(const HttpServerOptions& options, HttpHandler& handler)
    : core_(std::make_unique<HttpServerCore>(options, handler)) {
    if (options.tlsCertificate.empty() != options.tlsKey.empty())
        throw std::runtime_error("TLS needs both --tls-certificate and --tls-key");
    if (!options.tlsCertificate.empty()) core_->tls = openTlsPort(options.tlsCertificate, options.tlsKey);
    listen(*core_);
}

HttpServer::~HttpServer() { stop(); }

int HttpServer::port() const { return core_->acceptor.local_endpoint().port(); }

std::string HttpServer::url() const {
    const std::string& host = core_->options.host;
    const bool isAddress6 = host.find(':') != std::string::npos;
    return (core_->tls ? "https://" : "http://") + (isAddress6 ? "[" + host + "]" : host) + ":" +
           std::to_string(port());
}

size_t HttpServer::connections() const {
    const MutexLock lock(core_->mutex);
    return core_->connections.size();
}

MemoryBudget& HttpServer::memory() { return core_->memory; }

void HttpServer::start() {
    core_->accept();
    for (int i = 0; i < core_->options.threads; ++i) core_->threads.emplace_back([this] { core_->context.run(); });
}

void HttpServer::after(std::chrono::milliseconds delay, std::function<void()> body) {
    const auto timer = std::make_shared<asio::steady_timer>(core_->context);
    {
        const MutexLock lock(core_->mutex);
        timer->expires_after(core_->isDraining ? std::chrono::milliseconds(0) : delay);
        core_->timers.insert(timer);
        timer->async_wait([this, timer, body = std::move(body)](ErrorCode) {
            {
                const MutexLock inner(core_->mutex);
                core_->timers.erase(timer);
            }
            body();
        });
    }
}

bool HttpServer::reloadCertificate(std::string& why) {
    try {
        if (core_->tls) core_->tls->reload();
        return true;
    } catch (const std::exception& error) {
        why = error.what();
        return false;
    }
}

void HttpServer::drain(std::chrono::milliseconds timeout) {
    if (core_->threads.empty()) return;
    core_->isDraining = true;
    asio::post(core_->acceptor.get_executor(), [this] {
        ErrorCode ignored;
        core_->acceptor.close(ignored);
    });
    for (const auto& connection : core_->all()) connection->drain();
    HttpServerCore& core = *core_;
    const MutexLock lock(core.mutex);
    for (const auto& timer : core.timers) timer->cancel();
    core.changed.waitUntil(core.mutex, std::chrono::steady_clock::now() + timeout,
                           [&]() VELMORA_REQUIRES(core.mutex) { return core.connections.empty(); });
}

void HttpServer::stop() {
    for (const auto& connection : core_->all()) connection->abort();
    core_->work.reset();
    core_->context.stop();
    for (std::thread& thread : core_->threads) thread.join();
    core_->threads.clear();
    std::set<std::shared_ptr<asio::steady_timer>> timers;
    const MutexLock lock(core_->mutex);
    timers.swap(core_->timers);  // before the context that they belong to
}

}  // namespace velmora::tool
