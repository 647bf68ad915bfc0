#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <qor/transport/detail/channel.hpp>
#include <qor/transport/http.hpp>

// The router's transport opening of an accepted connection: TLS, then the RawSocket or
// WebSocket handshake. The WAMP opening that follows is wamp::RouterOpening's.
namespace qor::router::detail {

using transport::detail::Channel;
using transport::detail::Framing;
using transport::detail::Opening;
using transport::detail::tcp;
using transport::detail::TlsContext;

/// A server context with a PEM certificate chain and key; null with the cause in `error`
/// ("TLS is not available in this build" without TLS).
std::shared_ptr<TlsContext> server_tls_context(const std::string& certificate_file,
                                               const std::string& key_file, std::string& error);

/// What an accepting server needs.
struct AcceptSettings {
    Framing framing = Framing::rawsocket;
    TlsContext* tls_context = nullptr;  ///< non-null: TLS first
    uint32_t max_message_size = 1u << 24;
    /// WebSocket only: answers requests that do not ask for an upgrade; unset, they get 400.
    transport::HttpHandler http;
    /// The server is full: the peer's handshake is answered with a refusal (RawSocket error
    /// "maximum connection count reached", HTTP 503 before any upgrade) and the link closed.
    bool refuse = false;
};

/// The cause an accepted opening reports when it refused the peer for `refuse`.
inline constexpr const char* kRefusedFull = "handshake refused: maximum connection count reached";

/// The cause an accepted opening reports when it answered a plain HTTP request instead.
inline constexpr const char* kServedHttp = "served a plain HTTP request";

/// An acceptor listening on `host`:`port` (0: a free port), or throws "transport server: invalid
/// listening address '…'" / "transport server: cannot listen on HOST:PORT: cause".
std::unique_ptr<tcp::acceptor> listen(boost::asio::io_context& io, const std::string& host,
                                      uint16_t port);

/// Runs TLS and the framing handshake on an accepted socket (TCP_NODELAY set), then calls
/// `done` with the channel, or with null and the cause.
std::shared_ptr<Opening> accept_server(
    tcp::socket socket, const AcceptSettings& settings,
    std::function<void(std::shared_ptr<Channel>, const std::string& cause)> done);

}  // namespace qor::router::detail
