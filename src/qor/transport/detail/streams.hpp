#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#if QOR_HAVE_TLS
#include <boost/asio/ssl.hpp>
#include <boost/beast/websocket/ssl.hpp>
#endif

#include <qor/transport/detail/channel.hpp>
#include <qor/transport/detail/coalescing.hpp>
#include <qor/transport/rawsocket.hpp>

// The layered streams a channel runs on, what both openings (client and router) share about
// them, and the one place where a stream error becomes the text a user reads.
namespace qor::transport::detail {

namespace http = beast::http;

inline constexpr const char* SUBPROTOCOL = "wamp.2.msgpack";

/// Which end of the handshake this side plays.
enum class Side { client, server };

using WsPlain = websocket::stream<Coalescing<tcp::socket>>;

template <class T>
struct is_tls : std::false_type {};

#if QOR_HAVE_TLS
namespace ssl = asio::ssl;
using TlsStream = ssl::stream<tcp::socket>;
using WsTls = websocket::stream<Coalescing<TlsStream>>;
template <>
struct is_tls<TlsStream> : std::true_type {};
template <>
struct is_tls<WsTls> : std::true_type {};
#endif

template <class T>
struct is_ws : std::false_type {};
template <class S>
struct is_ws<websocket::stream<S>> : std::true_type {};

#if QOR_HAVE_TLS
inline TlsStream& tls_layer(TlsStream& s) {
    return s;
}
inline TlsStream& tls_layer(WsTls& s) {
    return s.next_layer().next_layer();
}
#endif

/// The text of a stream error ("connection closed by peer", "TLS error: ...", ...).
std::string cause_of(const error_code& ec);
#if QOR_HAVE_TLS
/// A failed TLS handshake is a TLS error whatever broke it (a plain peer usually hangs up).
std::string tls_cause(const error_code& ec);
#endif
/// "address:port" of the remote end, or "unknown".
std::string peer_of(const tcp::socket& s);
/// Closes `s`; `graceful` sends FIN first so the bytes already written reach the peer.
void close_socket(tcp::socket& s, bool graceful);

/// Builds the layered stream `framing` and `tls` ask for around a connected socket and hands
/// it to `start` (a generic callable taking the `std::unique_ptr` of the stream).
template <class Start>
void with_stream(tcp::socket socket, Framing framing, TlsContext* tls, Start&& start) {
#if QOR_HAVE_TLS
    if (tls) {
        if (framing == Framing::rawsocket)
            start(std::make_unique<TlsStream>(std::move(socket), *tls));
        else
            start(std::make_unique<WsTls>(std::move(socket), *tls));
        return;
    }
#else
    (void)tls;  // always null: no context can be made without TLS
#endif
    if (framing == Framing::rawsocket)
        start(std::make_unique<tcp::socket>(std::move(socket)));
    else
        start(std::make_unique<WsPlain>(std::move(socket)));
}

/// A RawSocket channel on a stream whose handshake is done; `max_out` is what the peer
/// accepts.
std::shared_ptr<Channel> rawsocket_channel(std::unique_ptr<tcp::socket> stream, uint32_t max_in,
                                           uint32_t max_out);
/// A WebSocket channel on a stream whose upgrade is done, playing `side`; `early` holds bytes
/// that arrived behind the upgrade request.
std::shared_ptr<Channel> websocket_channel(std::unique_ptr<WsPlain> stream, Side side,
                                           uint32_t max_in, const std::vector<uint8_t>& early);
#if QOR_HAVE_TLS
std::shared_ptr<Channel> rawsocket_channel(std::unique_ptr<TlsStream> stream, uint32_t max_in,
                                           uint32_t max_out);
std::shared_ptr<Channel> websocket_channel(std::unique_ptr<WsTls> stream, Side side,
                                           uint32_t max_in, const std::vector<uint8_t>& early);
#endif

/// One opening's handshake on a layered stream `T`, with what the client and the router
/// sides share: the one-shot result and turning the stream into a channel.
template <class T>
class Handshake : public Opening {
  public:
    using Done = std::function<void(std::shared_ptr<Channel>, const std::string&)>;

    Handshake(std::unique_ptr<T> stream, uint32_t max_in, Done done)
        : stream_(std::move(stream)), max_in_(max_in), done_(std::move(done)) {}

    void cancel() override { fail("cancelled"); }

  protected:
    /// The framing handshake (RawSocket hello or WebSocket upgrade) of this side.
    virtual void framing() = 0;

    /// Runs TLS first when the stream has it, as `side`, then `framing`. `self` keeps this
    /// opening alive while the handshake is in flight.
    void start(Side side, std::shared_ptr<Handshake> self) {
#if QOR_HAVE_TLS
        if constexpr (is_tls<T>::value) {
            const auto role =
                side == Side::client ? ssl::stream_base::client : ssl::stream_base::server;
            tls_layer(*stream_).async_handshake(role, [self](error_code ec) {
                if (ec) return self->fail(tls_cause(ec));
                if (!self->finished_) self->framing();
            });
            return;
        }
#endif
        (void)side;
        (void)self;
        framing();
    }

    void fail(const std::string& cause) {
        if (finished_) return;
        finished_ = true;
        close_socket(beast::get_lowest_layer(*stream_), false);
        auto done = std::move(done_);
        if (done) done(nullptr, cause);
    }

    void complete_rs(uint32_t peer_max) {
        if constexpr (!is_ws<T>::value) {
            if (finished_) return;
            finished_ = true;
            // The peer may announce more than the 24-bit length field can carry.
            const uint32_t max_out = std::min(peer_max, rawsocket::MAX_FRAME_LENGTH - 1);
            auto done = std::move(done_);
            done(rawsocket_channel(std::move(stream_), max_in_, max_out), "");
        }
    }

    void complete_ws(Side side, const std::vector<uint8_t>& early = {}) {
        if constexpr (is_ws<T>::value) {
            if (finished_) return;
            finished_ = true;
            auto done = std::move(done_);
            done(websocket_channel(std::move(stream_), side, max_in_, early), "");
        }
    }

    std::unique_ptr<T> stream_;
    uint32_t max_in_;
    Done done_;
    bool finished_ = false;
    std::array<uint8_t, 4> hs_out_{};
    std::array<uint8_t, 4> hs_in_{};
};

}  // namespace qor::transport::detail
