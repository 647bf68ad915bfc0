#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/transport/http.hpp>
#include <qor/wamp/opening.hpp>

namespace spdlog {
class logger;
}

namespace qor::router {

/// What the server accepts from one authid (see `wamp::Credential`).
using Credential = wamp::Credential;

/// Listening and session-opening settings of a `Server`.
struct ServerOptions {
    std::string host = "127.0.0.1";  ///< address both listeners bind
    bool rawsocket = true;           ///< accept WAMP over RawSocket
    uint16_t rawsocket_port = 0;     ///< 0 picks a free port (see `Server::rawsocket_port`)
    bool websocket = true;           ///< accept WAMP over WebSocket ("wamp.2.msgpack")
    uint16_t websocket_port = 0;     ///< 0 picks a free port (see `Server::websocket_port`)
    std::string realm = "realm1";    ///< the one realm sessions may join
    /// Empty: anyone joins anonymously. Otherwise only these authids join, by their method.
    std::vector<Credential> credentials;
    std::string tls_certificate_file;  ///< PEM chain; with the key, both listeners speak TLS
    std::string tls_private_key_file;  ///< PEM private key
    uint32_t max_message_size = 16u * 1024u * 1024u;  ///< larger incoming messages end the session
    /// Connections held at once, opening or joined. Beyond it a new peer's handshake is
    /// refused (RawSocket: "maximum connection count reached"; WebSocket: HTTP 503 before the
    /// upgrade), logged once per burst of refusals. 0: no limit.
    size_t max_connections = 1024;
    /// Before WELCOME a peer is unknown: a message larger than this (a HELLO stuffed with
    /// details) is refused by its frame header, before its bytes are buffered: with ABORT
    /// "wamp.error.protocol_violation" over RawSocket, with close code 1009 over WebSocket.
    uint32_t max_opening_message_size = 64u * 1024u;
    /// A peer that has not finished the opening (transport handshake to WELCOME) by then is
    /// dropped.
    std::chrono::milliseconds opening_timeout{10000};
    /// A connection whose unfinished frame (WebSocket: or fragmented message) gets no byte for
    /// this long is dropped, so a peer that announces a large frame and trickles it cannot hold
    /// the buffer. 0: no limit.
    std::chrono::milliseconds frame_idle_timeout{3000};
    /// A session with more than this many bytes waiting to be sent (a peer that stopped
    /// reading) is dropped, with the reason logged, rather than growing without bound.
    /// 0: no limit.
    size_t max_send_queue = 64u * 1024u * 1024u;
    std::shared_ptr<spdlog::logger> logger;  ///< may be null: nothing is logged
    /// Optional: sees the bytes of every received message before parsing, the opening's
    /// included (tracing, capture). Runs on the I/O thread.
    std::function<void(const uint8_t* data, size_t size)> tap;
    /// Optional: answers requests on the WebSocket listener that ask for no upgrade (a
    /// browser opening a page there). Unset, they get 400 "not a WebSocket upgrade".
    transport::HttpHandler http;
};

/// A session that has joined (WELCOME sent).
struct SessionInfo {
    uint64_t id = 0;         ///< the WAMP session id sent in WELCOME
    std::string transport;   ///< "rawsocket" or "websocket"
    std::string peer;        ///< remote address and port
    std::string authid;      ///< empty for anonymous sessions
    std::string authrole;    ///< "anonymous" for anonymous sessions
    std::string authmethod;  ///< "anonymous", "ticket" or "wampcra"
};

/// The router half of WAMP over RawSocket and WebSocket (optionally TLS): accepts
/// connections, checks the realm and credentials, answers WELCOME or ABORT, answers
/// GOODBYE and keepalive pings, and hands every other message of a joined session to the
/// owner. Routing (calls, subscriptions) is the owner's business.
///
/// Threading: `start` spawns one I/O thread; every handler runs on it, one at a time, and
/// must not block. `send`, `send_encoded`, `close`, `drop`, `post`, `sessions` and
/// `set_silent` may be called from any thread, handlers included. Handlers are set before
/// `start`. An exception escaping a handler is logged and closes that session.
class Server {
  public:
    using JoinHandler = std::function<void(const SessionInfo&)>;
    /// The message is the handler's to keep: it may move from it (a large CALL queued for a
    /// worker is not copied).
    using MessageHandler = std::function<void(uint64_t session, wamp::Message&)>;
    using LeaveHandler = std::function<void(uint64_t session, const std::string& reason)>;

    /// A stopped server with these settings.
    explicit Server(ServerOptions options = {});
    /// Stops the server (see `stop`).
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Called once per session after its WELCOME was sent.
    void on_join(JoinHandler handler);
    /// Called with each message of a joined session other than GOODBYE.
    void on_message(MessageHandler handler);
    /// Called once per joined session when it ends; `reason` is the GOODBYE reason or the cause.
    void on_leave(LeaveHandler handler);

    /// Binds the listeners and starts the I/O thread; throws std::runtime_error when it cannot.
    void start();
    /// Closes every connection at once, without GOODBYE (`on_leave` runs for each joined
    /// session), and joins the I/O thread. Idempotent; not from a handler.
    void stop();
    /// Sends GOODBYE with `reason` to every session, waits up to `grace` for them to go, then
    /// stops.
    void shutdown(const std::string& reason = "wamp.close.system_shutdown",
                  std::chrono::milliseconds grace = std::chrono::milliseconds(1000));

    /// The bound RawSocket port (0 when not listening).
    uint16_t rawsocket_port() const;
    /// The bound WebSocket port (0 when not listening).
    uint16_t websocket_port() const;

    /// Queues one message to a joined session; false when no such session exists.
    bool send(uint64_t session, const wamp::Message& message);
    /// Queues `message` with `last`, one more encoded positional argument, both written on
    /// the I/O thread straight into the outgoing frame; false when no such session exists.
    bool send(uint64_t session, wamp::Message&& message, std::vector<uint8_t>&& last);
    /// Queues one already serialized message (lets one EVENT be encoded once for many sessions).
    bool send_encoded(uint64_t session, const serialization::msgpack::buffer& encoded);
    /// Same, taking the bytes: from another thread they travel to the I/O thread uncopied.
    bool send_encoded(uint64_t session, serialization::msgpack::buffer&& encoded);
    /// Queues one serialized message to each of `sessions`, the bytes shared by all of them
    /// on their way to the I/O thread; returns how many of them are joined.
    size_t send_encoded(const std::vector<uint64_t>& sessions,
                        serialization::msgpack::buffer&& encoded);
    /// The largest message the session's peer accepts (0 when no such session exists): a
    /// larger one would be refused on the way out (RawSocket) or end the link (WebSocket).
    size_t max_send(uint64_t session) const;
    /// Sends GOODBYE with `reason` and ends the session once the peer answers (or at once if it is
    /// gone).
    void close(uint64_t session, const std::string& reason = "wamp.close.close_realm");
    /// Ends a session at once, without GOODBYE, as if the network broke.
    void drop(uint64_t session);
    /// Runs `task` on the I/O thread (for owners that keep their state on it).
    void post(std::function<void()> task);
    /// The ids of the sessions joined now.
    std::vector<uint64_t> sessions() const;
    /// Connections held now: joined, still opening, or being refused.
    size_t connections() const;
    /// While true the server reads nothing and answers nothing, pings included, like a hung
    /// process; connections stay open. Lets clients' keepalive be exercised. A WebSocket
    /// session silenced while it was reading does not come back: it ends when resumed.
    void set_silent(bool silent);

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace qor::router
