#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#if QOR_HAVE_TLS
#include <boost/asio/ssl/context.hpp>
#endif

#include <qor/serialization/msgpack/buffer.hpp>

// Message-oriented links over RawSocket or WebSocket, plain or TLS, on one io_context. The
// client and the router side share them; everything here runs on the thread that runs the
// io_context, and nothing here is thread-safe.
namespace qor::transport::detail {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

enum class Framing { rawsocket, websocket };

// TLS is built in only where OpenSSL was found for the target; elsewhere no context can be
// made and every TLS pointer below stays null.
#if QOR_HAVE_TLS
using TlsContext = asio::ssl::context;
#else
class TlsContext;
#endif

/// A client context trusting `ca_file` (empty: the system store); null with the cause in
/// `error` when it cannot be made ("TLS is not available in this build" without TLS).
std::shared_ptr<TlsContext> client_tls_context(const std::string& ca_file, std::string& error);

/// An open link that carries whole WAMP messages.
class Channel {
  public:
    struct Handlers {
        std::function<void(const uint8_t*, size_t)>
            message;  ///< one whole message, bytes valid during the call
        /// Optional. RawSocket: a message larger than one read is gathered in storage of its
        /// own, sized to the message, and handed over with it here rather than copied out of
        /// the read buffer through `message`; smaller ones still take `message`.
        std::function<void(serialization::msgpack::buffer&&)> owned_message;
        std::function<void()> pong;  ///< a keepalive ping was answered
        std::function<void(const std::string&)> closed;  ///< the link ended (cause); at most once
        /// RawSocket: a frame announced `size` bytes, more than `limit_incoming` allows; it is
        /// not read, nor anything after it. Unset: the link ends ("rawsocket: frame too large").
        std::function<void(uint32_t size)> too_large;
    };
    virtual ~Channel() = default;
    /// Starts reading; handlers run inside the io_context.
    virtual void start(Handlers handlers) = 0;
    /// Queues one message; the write goes out with whatever else is queued.
    virtual void send(const uint8_t* data, size_t size) = 0;
    /// Queues one message of `size` bytes that `fill` writes straight into its frame in the
    /// outgoing queue, as `send` would queue it. False, with nothing queued and `fill` not
    /// called, on a link that does not frame in place or is closing: `send` does the rest.
    virtual bool send_in_place(size_t size, const std::function<void(uint8_t*)>& fill) {
        (void)size;
        (void)fill;
        return false;
    }
    /// Hands back a block that came through `owned_message`, once its message is handled: the
    /// next large message of at most its size is gathered there. Others ignore it.
    virtual void recycle(serialization::msgpack::buffer&& block) { (void)block; }
    /// Queues a keepalive ping.
    virtual void ping() = 0;
    /// Flushes what is queued, then closes; `closed` is reported with `cause`.
    virtual void close(const std::string& cause) = 0;
    /// Closes at once; `closed` is reported with `cause` unless it already was.
    virtual void abort(const std::string& cause) = 0;
    /// Lowers (or restores) the largest incoming message, up to the limit the link was opened
    /// with. Checked against a frame's header, before its bytes are buffered: RawSocket
    /// reports it to `too_large`; WebSocket closes with 1009 (message too big).
    virtual void limit_incoming(uint32_t max) = 0;
    /// A link whose unfinished frame (WebSocket: or fragmented message) receives no byte for
    /// `idle` ends ("unfinished frame idle for N ms"), so a trickling peer cannot hold its
    /// buffer for long. 0: no limit.
    virtual void limit_frame_idle(std::chrono::milliseconds idle) = 0;
    /// While paused nothing is read, so nothing is answered either.
    virtual void set_paused(bool paused) = 0;
    /// Bytes queued and not yet handed to the socket.
    virtual size_t queued() const = 0;
    /// The largest message the peer accepts: what a RawSocket peer announced; for WebSocket,
    /// which announces nothing, the limit this side applies to what it receives.
    virtual size_t max_send() const = 0;
    /// "rawsocket" or "websocket".
    virtual const char* kind() const = 0;
    /// Remote address and port.
    virtual std::string peer() const = 0;
};

/// What a client link needs.
struct ClientSettings {
    Framing framing = Framing::rawsocket;
    bool tls = false;
    std::string host;
    std::string port;
    std::string path = "/";                     ///< WebSocket request target
    uint32_t max_message_size = 1u << 24;       ///< larger incoming messages end the link
    TlsContext* tls_context = nullptr;          ///< required when `tls`
    bool verify_peer = true;
};

/// An opening in progress; `cancel` ends it (its callback then reports "cancelled").
class Opening {
  public:
    virtual ~Opening() = default;
    virtual void cancel() = 0;
};

/// Resolves, connects (TCP_NODELAY), runs TLS and the framing handshake, then calls `done`
/// with the channel, or with null and the cause.
std::shared_ptr<Opening> open_client(
    asio::io_context& io, const ClientSettings& settings,
    std::function<void(std::shared_ptr<Channel>, const std::string& cause)> done);

}  // namespace qor::transport::detail
