#include <qor/transport/detail/streams.hpp>

#include <stdexcept>

#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <qor/transport/rawsocket.hpp>

// The client's transport opening: resolve, connect, TLS, then the RawSocket or WebSocket
// handshake. The WAMP opening that follows is wamp::ClientOpening's.
namespace qor::transport::detail {

namespace {

using Done = std::function<void(std::shared_ptr<Channel>, const std::string&)>;

// TLS (if any), then the framing handshake, as the client. `T` is the whole layered stream.
template <class T>
class ClientHandshake final : public Handshake<T>,
                              public std::enable_shared_from_this<ClientHandshake<T>> {
  public:
    ClientHandshake(std::unique_ptr<T> stream, const ClientSettings& settings, Done done)
        : Handshake<T>(std::move(stream), settings.max_message_size, std::move(done)),
          host_(settings.host),
          port_(settings.port),
          path_(settings.path) {}

    void run(bool verify) {
#if QOR_HAVE_TLS
        if constexpr (is_tls<T>::value) {
            TlsStream& tls = tls_layer(*this->stream_);
            // SNI, and the name the certificate must carry when verifying.
            SSL_set_tlsext_host_name(tls.native_handle(), host_.c_str());
            if (verify) {
                tls.set_verify_mode(ssl::verify_peer);
                tls.set_verify_callback(ssl::host_name_verification(host_));
            } else {
                tls.set_verify_mode(ssl::verify_none);
            }
        }
#else
        (void)verify;
#endif
        this->start(Side::client, this->shared_from_this());
    }

  private:
    void framing() override {
        if constexpr (is_ws<T>::value)
            websocket_handshake();
        else
            rawsocket_hello();
    }

    void rawsocket_hello() {
        this->hs_out_ = rawsocket::client_hello(rawsocket::exponent_for(this->max_in_));
        auto self = this->shared_from_this();
        asio::async_write(*this->stream_, asio::buffer(this->hs_out_),
                          [self](error_code ec, size_t) {
                              if (ec) self->fail(cause_of(ec));
                          });
        asio::async_read(*this->stream_, asio::buffer(this->hs_in_), [self](error_code ec, size_t) {
            if (ec) return self->fail("no handshake reply: " + cause_of(ec));
            self->rawsocket_check();
        });
    }

    void rawsocket_check() {
        rawsocket::Handshake h;
        try {
            h = rawsocket::parse_handshake(this->hs_in_.data());
        } catch (const std::exception& e) {
            return this->fail(std::string("bad handshake: ") + e.what());
        }
        if (h.serializer == 0)
            return this->fail("handshake refused: " + rawsocket::refusal_text(h.exponent));
        if (h.serializer != rawsocket::SERIALIZER_MSGPACK)
            return this->fail("handshake refused: unsupported serializer " +
                              std::to_string(h.serializer));
        this->complete_rs(rawsocket::max_length_of(h.exponent));
    }

    void websocket_handshake() {
        if constexpr (is_ws<T>::value) {
            T& ws = *this->stream_;
            ws.set_option(websocket::stream_base::decorator([](websocket::request_type& req) {
                req.set(http::field::sec_websocket_protocol, SUBPROTOCOL);
            }));
            ws.read_message_max(this->max_in_);
            ws.async_handshake(
                response_, host_ + ":" + port_, path_,
                [self = this->shared_from_this()](error_code ec) {
                    if (ec == websocket::error::upgrade_declined)
                        return self->fail("bad handshake: HTTP " +
                                          std::to_string(self->response_.result_int()) +
                                          " instead of a WebSocket upgrade");
                    if (ec) return self->fail("bad handshake: " + cause_of(ec));
                    if (self->response_[http::field::sec_websocket_protocol] != SUBPROTOCOL)
                        return self->fail("unsupported serializer: the server did not accept " +
                                          std::string(SUBPROTOCOL));
                    self->complete_ws(Side::client);
                });
        }
    }

    std::string host_, port_, path_;
    websocket::response_type response_;
};

// Resolves and connects, then runs the handshake of the stream the settings ask for.
class Connecting final : public Opening, public std::enable_shared_from_this<Connecting> {
  public:
    Connecting(asio::io_context& io, ClientSettings settings, Done done)
        : settings_(std::move(settings)), done_(std::move(done)), resolver_(io), socket_(io) {}

    void run() {
        // A synchronous lookup: Asio's asynchronous one runs on a thread of its own, and the
        // client library starts none. An address written as numbers costs no lookup at all.
        error_code ec;
        const auto results = resolver_.resolve(settings_.host, settings_.port, ec);
        if (ec) {
            // Reported from the io_context like every other outcome, never from inside
            // `open_client`.
            asio::post(socket_.get_executor(),
                       [self = shared_from_this(), cause = "cannot resolve host: " + ec.message()] {
                           self->fail(cause);
                       });
            return;
        }
        asio::async_connect(socket_, results,
                            [self = shared_from_this()](error_code ec, const tcp::endpoint&) {
                                self->connected(ec);
                            });
    }

    void cancel() override {
        if (inner_) inner_->cancel();
        fail("cancelled");
    }

  private:
    void connected(error_code ec) {
        if (finished_) return;
        if (ec) return fail(cause_of(ec));
        socket_.set_option(tcp::no_delay(true), ec);
        auto self = shared_from_this();
        Done forward = [self](std::shared_ptr<Channel> channel, const std::string& cause) {
            if (self->finished_) return;
            self->finished_ = true;
            self->inner_.reset();
            auto done = std::move(self->done_);
            done(std::move(channel), cause);
        };
        with_stream(std::move(socket_), settings_.framing,
                    settings_.tls ? settings_.tls_context : nullptr, [&](auto stream) {
                        using T = typename decltype(stream)::element_type;
                        auto handshake = std::make_shared<ClientHandshake<T>>(std::move(stream),
                                                                              settings_, forward);
                        inner_ = handshake;
                        handshake->run(settings_.verify_peer);
                    });
    }

    void fail(const std::string& cause) {
        if (finished_) return;
        finished_ = true;
        error_code ignored;
        socket_.close(ignored);
        auto done = std::move(done_);
        if (done) done(nullptr, cause);
    }

    ClientSettings settings_;
    Done done_;
    tcp::resolver resolver_;
    tcp::socket socket_;
    std::shared_ptr<Opening> inner_;
    bool finished_ = false;
};

}  // namespace

std::shared_ptr<Opening> open_client(asio::io_context& io, const ClientSettings& settings,
                                     Done done) {
    if (settings.tls && !settings.tls_context)
        throw std::logic_error("open_client: TLS requested without a context");
    auto opening = std::make_shared<Connecting>(io, settings, std::move(done));
    opening->run();
    return opening;
}

#if QOR_HAVE_TLS
std::shared_ptr<TlsContext> client_tls_context(const std::string& ca_file, std::string& error) {
    auto tls = std::make_shared<TlsContext>(TlsContext::tls_client);
    error_code ec;
    if (ca_file.empty())
        tls->set_default_verify_paths(ec);
    else
        tls->load_verify_file(ca_file, ec);
    if (ec) {
        error = "TLS error: cannot load CA file '" + ca_file + "': " + ec.message();
        return nullptr;
    }
    return tls;
}
#else
std::shared_ptr<TlsContext> client_tls_context(const std::string&, std::string& error) {
    error = "TLS is not available in this build";
    return nullptr;
}
#endif

}  // namespace qor::transport::detail
