#include <qor/router/detail/accept.hpp>

#include <stdexcept>

#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <qor/transport/detail/streams.hpp>
#include <qor/transport/rawsocket.hpp>

namespace qor::router::detail {

namespace {

using namespace transport::detail;
namespace rawsocket = transport::rawsocket;
using Done = std::function<void(std::shared_ptr<Channel>, const std::string&)>;

// A comma separated list; each token is compared without its blanks.
bool offers_wamp(beast::string_view offered) {
    std::string list(offered);
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == std::string::npos) end = list.size();
        std::string token = list.substr(start, end - start);
        const auto first = token.find_first_not_of(" \t");
        const auto last = token.find_last_not_of(" \t");
        if (first != std::string::npos && token.substr(first, last - first + 1) == SUBPROTOCOL)
            return true;
        start = end + 1;
    }
    return false;
}

// TLS (if any), then the framing handshake, as the accepting side. `T` is the whole layered
// stream.
template <class T>
class ServerHandshake final : public Handshake<T>,
                              public std::enable_shared_from_this<ServerHandshake<T>> {
  public:
    ServerHandshake(std::unique_ptr<T> stream, const AcceptSettings& settings, Done done)
        : Handshake<T>(std::move(stream), settings.max_message_size, std::move(done)),
          http_(settings.http),
          refuse_(settings.refuse) {}

    void run() { this->start(Side::server, this->shared_from_this()); }

  private:
    void framing() override {
        if constexpr (is_ws<T>::value)
            read_upgrade();
        else
            rawsocket_hello();
    }

    void rawsocket_hello() {
        asio::async_read(*this->stream_, asio::buffer(this->hs_in_),
                         [self = this->shared_from_this()](error_code ec, size_t) {
                             if (ec) return self->fail(cause_of(ec));
                             self->rawsocket_answer();
                         });
    }

    void rawsocket_answer() {
        rawsocket::Handshake h;
        try {
            h = rawsocket::parse_handshake(this->hs_in_.data());
        } catch (const std::exception& e) {
            // A peer that is not speaking RawSocket gets no reply, only a closed socket.
            return this->fail(std::string("bad handshake: ") + e.what());
        }
        auto self = this->shared_from_this();
        if (refuse_) {
            this->hs_out_ = rawsocket::server_refuse(rawsocket::ERROR_CONNECTION_COUNT);
            asio::async_write(*this->stream_, asio::buffer(this->hs_out_),
                              [self](error_code, size_t) { self->fail(kRefusedFull); });
            return;
        }
        if (h.serializer != rawsocket::SERIALIZER_MSGPACK) {
            this->hs_out_ = rawsocket::server_refuse(rawsocket::ERROR_SERIALIZER_UNSUPPORTED);
            asio::async_write(*this->stream_, asio::buffer(this->hs_out_),
                              [self](error_code, size_t) {
                                  self->fail("handshake refused: serializer unsupported");
                              });
            return;
        }
        const uint32_t peer_max = rawsocket::max_length_of(h.exponent);
        this->hs_out_ = rawsocket::server_accept(rawsocket::exponent_for(this->max_in_));
        asio::async_write(*this->stream_, asio::buffer(this->hs_out_),
                          [self, peer_max](error_code ec, size_t) {
                              if (ec) return self->fail(cause_of(ec));
                              self->complete_rs(peer_max);
                          });
    }

    void read_upgrade() {
        if constexpr (is_ws<T>::value) {
            http::async_read(this->stream_->next_layer(), http_in_, request_,
                             [self = this->shared_from_this()](error_code ec, size_t) {
                                 if (ec) return self->fail("bad handshake: " + cause_of(ec));
                                 self->answer_upgrade();
                             });
        }
    }

    // Every HTTP request that reaches the WebSocket port is answered here: a WAMP upgrade is
    // accepted, a plain request goes to the owner's HTTP handler when there is one, anything
    // else gets a plain-text 400.
    void answer_upgrade() {
        if constexpr (is_ws<T>::value) {
            if (refuse_) return answer_full();
            if (!websocket::is_upgrade(request_) && http_) return answer_http();
            T& ws = *this->stream_;
            std::string refusal;
            if (!websocket::is_upgrade(request_))
                refusal = "not a WebSocket upgrade";
            else if (!offers_wamp(request_[http::field::sec_websocket_protocol]))
                refusal = "subprotocol wamp.2.msgpack not offered";
            if (!refusal.empty()) {
                auto res = std::make_shared<http::response<http::string_body>>(
                    http::status::bad_request, request_.version());
                res->set(http::field::content_type, "text/plain");
                res->body() = refusal;
                res->prepare_payload();
                http::async_write(
                    ws.next_layer(), *res,
                    [self = this->shared_from_this(), res, refusal](error_code, size_t) {
                        self->fail("bad handshake: " + refusal);
                    });
                return;
            }
            ws.set_option(websocket::stream_base::decorator([](websocket::response_type& res) {
                res.set(http::field::sec_websocket_protocol, SUBPROTOCOL);
            }));
            ws.read_message_max(this->max_in_);
            ws.async_accept(request_, [self = this->shared_from_this()](error_code ec) {
                if (ec) return self->fail("bad handshake: " + cause_of(ec));
                // A client may send its first frames right behind the upgrade request.
                const auto early = self->http_in_.cdata();
                const auto* first = static_cast<const uint8_t*>(early.data());
                self->complete_ws(Side::server,
                                  std::vector<uint8_t>(first, first + early.size()));
            });
        }
    }

    // Before any upgrade, so a browser or WAMP client sees an ordinary HTTP refusal.
    void answer_full() {
        if constexpr (is_ws<T>::value) {
            auto res = std::make_shared<http::response<http::string_body>>(
                http::status::service_unavailable, request_.version());
            res->set(http::field::content_type, "text/plain");
            res->set(http::field::retry_after, "1");
            res->keep_alive(false);
            res->body() = "maximum connection count reached";
            res->prepare_payload();
            auto self = this->shared_from_this();
            http::async_write(this->stream_->next_layer(), *res,
                              [self, res](error_code ec, size_t) {
                                  if (ec) return self->fail(kRefusedFull);
                                  self->stream_->next_layer().when_drained([self](error_code) {
                                      close_socket(beast::get_lowest_layer(*self->stream_), true);
                                      self->fail(kRefusedFull);
                                  });
                              });
        }
    }

    void answer_http() {
        if constexpr (is_ws<T>::value) {
            transport::HttpRequest in;
            in.method = std::string(request_.method_string());
            in.target = std::string(request_.target());
            transport::HttpResponse out;
            try {
                out = http_(in);
            } catch (const std::exception& e) {
                out = transport::HttpResponse{500, "text/plain; charset=utf-8", e.what()};
            }
            auto res = std::make_shared<http::response<http::string_body>>(
                static_cast<http::status>(out.status), request_.version());
            res->set(http::field::content_type, out.content_type);
            res->set(http::field::cache_control, "no-cache");
            res->set("X-Content-Type-Options", "nosniff");
            res->keep_alive(false);
            const size_t length = out.body.size();
            if (request_.method() != http::verb::head) res->body() = std::move(out.body);
            res->content_length(length);
            auto self = this->shared_from_this();
            // The answer only collects in the layer below; it must have left before the close.
            http::async_write(this->stream_->next_layer(), *res,
                              [self, res](error_code ec, size_t) {
                                  if (ec) return self->fail(kServedHttp);
                                  self->stream_->next_layer().when_drained([self](error_code) {
                                      close_socket(beast::get_lowest_layer(*self->stream_), true);
                                      self->fail(kServedHttp);
                                  });
                              });
        }
    }

    transport::HttpHandler http_;
    bool refuse_;
    http::request<http::string_body> request_;
    beast::flat_buffer http_in_;
};

}  // namespace

std::unique_ptr<tcp::acceptor> listen(boost::asio::io_context& io, const std::string& host,
                                      uint16_t port) {
    boost::system::error_code ec;
    const auto address = boost::asio::ip::make_address(host, ec);
    if (ec) throw std::runtime_error("transport server: invalid listening address '" + host + "'");
    const tcp::endpoint endpoint(address, port);
    auto acceptor = std::make_unique<tcp::acceptor>(io);
    acceptor->open(endpoint.protocol(), ec);
    if (!ec) acceptor->set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor->bind(endpoint, ec);
    if (!ec) acceptor->listen(boost::asio::socket_base::max_listen_connections, ec);
    if (ec)
        throw std::runtime_error("transport server: cannot listen on " + host + ":" +
                                 std::to_string(port) + ": " + ec.message());
    return acceptor;
}

std::shared_ptr<Opening> accept_server(tcp::socket socket, const AcceptSettings& settings,
                                       Done done) {
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    std::shared_ptr<Opening> result;
    with_stream(std::move(socket), settings.framing, settings.tls_context, [&](auto stream) {
        using T = typename decltype(stream)::element_type;
        auto handshake =
            std::make_shared<ServerHandshake<T>>(std::move(stream), settings, std::move(done));
        result = handshake;
        handshake->run();
    });
    return result;
}

#if QOR_HAVE_TLS
std::shared_ptr<TlsContext> server_tls_context(const std::string& certificate_file,
                                               const std::string& key_file, std::string& error) {
    auto tls = std::make_shared<TlsContext>(TlsContext::tls_server);
    try {
        tls->use_certificate_chain_file(certificate_file);
        tls->use_private_key_file(key_file, TlsContext::pem);
    } catch (const std::exception& e) {
        error = std::string("cannot load TLS certificate or key: ") + e.what();
        return nullptr;
    }
    return tls;
}
#else
std::shared_ptr<TlsContext> server_tls_context(const std::string&, const std::string&,
                                               std::string& error) {
    error = "TLS is not available in this build";
    return nullptr;
}
#endif

}  // namespace qor::router::detail
