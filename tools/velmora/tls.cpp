#include <boost/asio/ssl/context.hpp>
#include <boost/beast/ssl.hpp>
#include <stdexcept>

#include "tools/velmora/httpconnection.h"

namespace velmora::tool {
namespace {

namespace ssl = boost::asio::ssl;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

// A TLS connection keeps the context it began with.
struct TlsConnection {
    std::shared_ptr<ssl::context> context;
    std::shared_ptr<HttpConnection<TlsStream>> connection;
};

class OpenSslPort final : public TlsPort {
public:
    OpenSslPort(std::string certificate, std::string key) : certificate_(std::move(certificate)), key_(std::move(key)) {
        reload();
    }

    void reload() override {
        const auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
        context->set_options(ssl::context::default_workarounds | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
        SSL_CTX_set_mode(context->native_handle(), SSL_MODE_RELEASE_BUFFERS);
        use("certificate " + certificate_, [&] { context->use_certificate_chain_file(certificate_); });
        use("key " + key_, [&] { context->use_private_key_file(key_, ssl::context::pem); });
        if (SSL_CTX_check_private_key(context->native_handle()) != 1)
            throw std::runtime_error("key " + key_ + " does not belong to certificate " + certificate_);
        const MutexLock lock(mutex_);
        context_ = context;
    }

    void serve(tcp::socket socket, HttpServerCore& core) override {
        TlsConnection made;
        {
            const MutexLock lock(mutex_);
            made.context = context_;
        }
        made.connection = std::make_shared<HttpConnection<TlsStream>>(core, std::move(socket), *made.context);
        core.add(made.connection);
        made.connection->lowest().expires_after(core.options.headTimeout);
        made.connection->stream().async_handshake(ssl::stream_base::server, [made](ErrorCode error) {
            if (!error) made.connection->run();
        });
    }

private:
    template <typename Body>
    static void use(const std::string& what, Body body) {
        try {
            body();
        } catch (const boost::system::system_error& error) {
            throw std::runtime_error("can't use " + what + ": " + error.code().message());
        }
    }

    const std::string certificate_;
    const std::string key_;
    Mutex mutex_;
    std::shared_ptr<ssl::context> context_ VELMORA_GUARDED_BY(mutex_);
};

}  // namespace

std::unique_ptr<TlsPort> openTlsPort(const std::string& certificate, const std::string& key) {
    return std::make_unique<OpenSslPort>(certificate, key);
}

}  // namespace velmora::tool
