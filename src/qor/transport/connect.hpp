#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <qor/qor_client.hpp>
#include <qor/transport/reconnect.hpp>
#include <qor/wamp/client.hpp>
#include <qor/wamp/connection.hpp>

namespace spdlog {
class logger;
}

namespace qor::transport {

/// How an endpoint opens and keeps its session.
struct ConnectOptions {
    std::string realm = "realm1";          ///< the realm joined by HELLO
    std::string authid;                    ///< announced in HELLO when not empty
    std::vector<std::string> authmethods;  ///< e.g. {"wampcra", "ticket"}; empty: anonymous
    std::string ticket;                    ///< answer to a "ticket" challenge
    std::string secret;                    ///< "wampcra" secret (salted keys are derived)
    std::string tls_ca_file;               ///< PEM file of trusted CAs; empty: system store
    bool tls_verify = true;                ///< check the server certificate and its name
    std::chrono::milliseconds connect_timeout{5000};  ///< whole opening, TCP to WELCOME
    uint32_t max_message_size = 16u * 1024u * 1024u;  ///< larger incoming messages end the link
    /// Idle time after which a ping is sent; 0 turns keepalive off.
    std::chrono::milliseconds keepalive_interval{0};
    /// A ping unanswered for this long means the link is dead.
    std::chrono::milliseconds keepalive_timeout{5000};
    ReconnectPolicy reconnect;  ///< automatic reopening after a loss
    /// Device topics the server endpoint relays; `connect` declares them, which runs the
    /// device bindings waiting for them (a DaxClient made afterwards binds them at once).
    std::vector<std::string> served_topics;
    std::string name = "server";       ///< endpoint name in log lines
    spdlog::logger* logger = nullptr;  ///< may be null
};

/// Where an endpoint's link stands.
enum class LinkState { connecting, connected, disconnected, closed };

/// One change of an endpoint's link, as told to `Endpoint::on_state_change`.
struct LinkEvent {
    LinkState state = LinkState::disconnected;  ///< the new state
    std::string reason;       ///< why it changed (loss cause, ABORT reason...); may be empty
    bool will_retry = false;  ///< an automatic attempt is scheduled
    std::chrono::milliseconds delay{0};  ///< time until that attempt
    int attempt = 0;                     ///< automatic attempts made since the loss
};

/// A transport endpoint: the `qor::wamp::Connection` behind one `qor::wamp::Client`, which
/// it owns together with the peer. Created by `connect` or `connect_device_source` and kept
/// alive by the `QorClient`. Its passes never block; state callbacks run inside them.
/// One thread at a time, the one that pumps the peer.
class Endpoint : public wamp::Connection {
  public:
    ~Endpoint() override;
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    /// Reads what arrived, dispatches it, runs keepalive and automatic reconnection.
    bool update_first() override;
    /// Same work again, so that writes queued in between go out within the same pump.
    bool update_second() override;
    /// Sleeps in the OS until this link has something for the next pass (a message, the end
    /// of the link or of an opening, a due keepalive ping or reconnection attempt) or `timeout`
    /// passes; true when woken by work. Dispatches nothing: the next pass does. Same thread
    /// as the passes; nothing wakes it from another thread.
    bool wait(std::chrono::nanoseconds timeout) override;

    /// The WAMP endpoint (caller, subscriber) this link carries.
    wamp::Client& client();
    /// The address it was opened with.
    const std::string& url() const;
    /// Current state.
    LinkState state() const;
    /// True while the session is established.
    bool connected() const;
    /// The session id from WELCOME (0 when not connected).
    uint64_t session_id() const;
    /// Why the link went down last; empty if it never did.
    const std::string& last_error() const;
    /// Called on every state change (inside the pump, or inside `reconnect`/`close`).
    void on_state_change(std::function<void(const LinkEvent&)> callback);
    /// Opens a new session on the same address now, blocking up to the connect time-out;
    /// restores every subscription. Throws like `connect`.
    void reconnect();
    /// Says GOODBYE, waits up to the connect time-out for the answer, closes. No reconnect follows.
    void close(const std::string& reason = "wamp.close.close_realm");

  private:
    struct Impl;
    explicit Endpoint(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
    friend Endpoint& open_endpoint(QorClient&, const std::string&, const ConnectOptions&,
                                   const std::vector<std::string>*);
};

/// Opens the server endpoint of `peer` at `url` (rs, rss, ws, wss), blocking until WELCOME
/// or failure; then sets `server_endpoint`, `has_server` and `server_connected`. Failures
/// throw std::runtime_error "cannot connect to '<url>': <cause>". Calling it again opens a
/// new endpoint that takes over `server_endpoint`; `Endpoint::reconnect` reopens the same one.
Endpoint& connect(QorClient& peer, const std::string& url, const ConnectOptions& options = {});

/// Opens an extra endpoint (a device source) and declares the device topics it serves, which
/// runs the device bindings waiting for them.
Endpoint& connect_device_source(QorClient& peer, const std::string& url,
                                const std::vector<std::string>& topics,
                                const ConnectOptions& options = {});

/// The error text pending calls of a lost endpoint complete with (`wamp::CONNECTION_LOST`).
inline constexpr const char* CONNECTION_LOST = wamp::CONNECTION_LOST;

}  // namespace qor::transport
