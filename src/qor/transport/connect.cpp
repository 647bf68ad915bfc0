#include <qor/transport/connect.hpp>

#include <algorithm>
#include <deque>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

#include <spdlog/spdlog.h>

#include <qor/serialization/msgpack.hpp>
#include <qor/transport/detail/channel.hpp>
#include <qor/transport/url.hpp>
#include <qor/version.hpp>
#include <qor/wamp/message.hpp>
#include <qor/wamp/opening.hpp>
#include <qor/wamp/receive.hpp>

namespace qor::transport {

namespace asio = boost::asio;
namespace msgpack = serialization::msgpack;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

// Where the session stands: the transport opening, then the WAMP opening, then use.
enum class Stage { down, transport, hello, established, goodbye, closed };

}  // namespace

struct Endpoint::Impl {
    QorClient& peer;
    std::string url_text;
    Url url;
    ConnectOptions options;
    bool is_server;
    std::unique_ptr<wamp::Client> owned_client;  // handed to the peer once opened
    wamp::Client* client = nullptr;

    asio::io_context io;
    std::shared_ptr<detail::TlsContext> tls;
    std::shared_ptr<detail::Opening> opening;
    std::shared_ptr<detail::Channel> channel;
    std::deque<msgpack::buffer> inbox;
    std::optional<std::string> lost;  // set by the channel, acted on by the pump

    Stage stage = Stage::down;
    std::optional<wamp::ClientOpening> wamp_opening;  // while stage is hello
    LinkState link = LinkState::disconnected;
    uint64_t session = 0;
    std::string last_error;
    std::string failure;        // why the current opening failed
    bool auth_refused = false;  // the last opening failed on credentials
    Clock::time_point opening_deadline;
    bool opening_blocking = false;
    bool opening_failed = false;  // an opening ended in failure and the pump has not seen it

    Clock::time_point last_heard;
    bool awaiting_pong = false;
    Clock::time_point ping_sent;

    std::optional<Clock::time_point> next_attempt;
    int attempt = 0;
    std::mt19937 jitter_random{std::random_device{}()};
    std::function<void(const LinkEvent&)> on_change;

    Impl(QorClient& p, const std::string& text, const ConnectOptions& o, bool server)
        : peer(p), url_text(text), url(parse_url(text)), options(o), is_server(server) {
        owned_client = std::make_unique<wamp::Client>(options.name, options.logger);
        client = owned_client.get();
        if (url.tls) {
            std::string cause;
            tls = detail::client_tls_context(options.tls_ca_file, cause);
            if (!tls) throw std::runtime_error("cannot connect to '" + url_text + "': " + cause);
        }
        client->session.write = [this](const uint8_t* data, uint64_t size) { write(data, size); };
        client->session.write_in_place = [this](uint64_t size,
                                                const std::function<void(uint8_t*)>& fill) {
            return channel && stage == Stage::established && channel->send_in_place(size, fill);
        };
    }

    ~Impl() {
        if (opening) opening->cancel();
        if (channel) channel->abort("endpoint destroyed");
        // Let the cancelled operations finish before their sockets go away.
        io.restart();
        io.poll();
        if (client) {
            client->session.write = nullptr;
            client->session.write_in_place = nullptr;
        }
    }

    template <class... Args>
    void log(spdlog::level::level_enum level, const char* format, const Args&... args) {
        if (options.logger) options.logger->log(level, fmt::runtime(format), args...);
    }

    void write(const uint8_t* data, uint64_t size) {
        if (channel && stage == Stage::established) {
            channel->send(data, size);
            return;
        }
        // Nothing is lost by dropping here: pending calls are failed by the pump and
        // subscriptions are sent again when the session reopens.
        log(spdlog::level::debug, "[{}] not connected, message dropped", options.name);
    }

    void send(const wamp::Message& message) {
        const msgpack::buffer bytes = wamp::serialize(message);
        if (channel) channel->send(bytes.data, bytes.size);
    }

    void tell(LinkState state, const std::string& reason, bool will_retry = false,
              milliseconds delay = milliseconds(0)) {
        link = state;
        if (!on_change) return;
        LinkEvent event;
        event.state = state;
        event.reason = reason;
        event.will_retry = will_retry;
        event.delay = delay;
        event.attempt = attempt;
        on_change(event);
    }

    // ---- opening ------------------------------------------------------------------------

    void start_opening() {
        stage = Stage::transport;
        failure.clear();
        auth_refused = false;
        inbox.clear();
        lost.reset();
        session = 0;
        opening_deadline = Clock::now() + options.connect_timeout;
        detail::ClientSettings settings;
        settings.framing = url.websocket ? detail::Framing::websocket : detail::Framing::rawsocket;
        settings.tls = url.tls;
        settings.host = url.host;
        settings.port = url.port;
        settings.path = url.path;
        settings.max_message_size = options.max_message_size;
        settings.tls_context = tls.get();
        settings.verify_peer = options.tls_verify;
        tell(LinkState::connecting, "");
        opening = detail::open_client(
            io, settings,
            [this](std::shared_ptr<detail::Channel> opened, const std::string& cause) {
                opening.reset();
                if (!opened) return fail_opening(cause);
                transport_ready(std::move(opened));
            });
    }

    void transport_ready(std::shared_ptr<detail::Channel> opened) {
        channel = std::move(opened);
        detail::Channel::Handlers handlers;
        handlers.message = [this](const uint8_t* data, size_t size) {
            last_heard = Clock::now();
            awaiting_pong = false;
            inbox.emplace_back(data, size);
        };
        // A large message arrives in a block of its own, which the inbox takes as it is.
        handlers.owned_message = [this](msgpack::buffer&& bytes) {
            last_heard = Clock::now();
            awaiting_pong = false;
            inbox.push_back(std::move(bytes));
        };
        handlers.pong = [this] {
            last_heard = Clock::now();
            awaiting_pong = false;
        };
        handlers.closed = [this](const std::string& cause) {
            if (!lost) lost = cause;
        };
        channel->start(std::move(handlers));
        stage = Stage::hello;
        wamp::ClientCredentials credentials;
        credentials.realm = options.realm;
        credentials.authid = options.authid;
        credentials.authmethods = options.authmethods;
        credentials.ticket = options.ticket;
        credentials.secret = options.secret;
        wamp_opening.emplace(std::move(credentials));
        send(wamp_opening->hello());
    }

    void fail_opening(const std::string& cause) {
        // Cancelling below reports "cancelled" back here; the first cause is the one kept.
        if (stage == Stage::down) return;
        stage = Stage::down;
        failure = cause.empty() ? "failed" : cause;
        if (opening) {
            auto o = std::move(opening);
            o->cancel();
        }
        if (channel) {
            auto c = std::move(channel);
            c->abort(failure);
        }
        inbox.clear();
        lost.reset();
        opening_failed = true;
    }

    // One message received while the session opens.
    void opening_message(const wamp::Message& m) {
        for (const wamp::Message& reply : wamp_opening->receive(m)) send(reply);
        switch (wamp_opening->stage()) {
            case wamp::ClientOpening::Stage::established:
                session = wamp_opening->session();
                stage = Stage::established;
                last_heard = Clock::now();
                awaiting_pong = false;
                break;
            case wamp::ClientOpening::Stage::failed:
                auth_refused = wamp_opening->auth_refused();
                fail_opening(wamp_opening->failure());
                break;
            default:
                break;
        }
    }

    // Parses and handles the messages received so far; returns how many.
    size_t drain() {
        size_t handled = 0;
        while (!inbox.empty() && channel) {
            msgpack::buffer bytes = std::move(inbox.front());
            inbox.pop_front();
            ++handled;
            std::optional<wamp::Message> parsed;
            try {
                parsed.emplace(wamp::parse_message(std::move(bytes)));
            } catch (const std::exception& e) {
                const std::string cause = std::string("protocol error: ") + e.what();
                if (stage == Stage::established) {
                    channel->abort(cause);
                } else {
                    fail_opening(cause);
                }
                break;
            }
            const wamp::Message& m = *parsed;
            if (stage == Stage::hello) {
                opening_message(m);
                if (stage == Stage::established) {
                    // What follows WELCOME waits until the session is fully set up.
                    if (opening_blocking) break;
                    opened();
                }
            } else if (stage == Stage::established) {
                if (m.type == wamp::GOODBYE) {
                    wamp::Message reply(wamp::GOODBYE);
                    reply.reason = "wamp.close.goodbye_and_out";
                    send(reply);
                    channel->close("closed by the server: " + m.reason);
                    inbox.clear();
                    break;
                }
                if (m.type == wamp::ABORT) {
                    // The router gave up on the session (a message it could not accept): no
                    // reply is due, and nothing after it belongs to the session.
                    // Its reason says more than the end of the stream that follows it,
                    // which may already have been seen.
                    lost = "aborted by the server: " + m.reason;
                    channel->abort(*lost);
                    inbox.clear();
                    break;
                }
                // Handlers may throw (a blocking call's server error): the rest of the
                // inbox stays for the next pass.
                client->dispatch(m);
                if (channel) channel->recycle(std::move(parsed->raw));
            } else if (stage == Stage::goodbye) {
                if (m.type == wamp::GOODBYE) channel->close("closed");
            }
        }
        return handled;
    }

    // Only the endpoint the peer calls its server speaks for the server's state; an older
    // server endpoint replaced by a second `connect` no longer does.
    void set_server_connected(bool connected) {
        if (is_server) peer.set_endpoint_connected(client, connected);
    }

    // The session is established: flags, subscriptions, observers.
    void opened() {
        const bool again = !client->subscriber.topics.empty();
        attempt = 0;
        next_attempt.reset();
        set_server_connected(true);
        log(spdlog::level::info, "[{}] session {} open on {}", options.name, session, url_text);
        if (again) client->subscriber.resubscribe();
        tell(LinkState::connected, "");
    }

    std::string timed_out() const {
        return "timed out after " + std::to_string(options.connect_timeout.count()) + " ms";
    }

    // Runs an opening to its end on this thread; throws with the cause on failure.
    void open_blocking() {
        opening_blocking = true;
        opening_failed = false;
        struct Reset {
            bool& flag;
            ~Reset() { flag = false; }
        } reset{opening_blocking};
        if (io.stopped()) io.restart();
        start_opening();
        while (stage == Stage::transport || stage == Stage::hello) {
            const auto now = Clock::now();
            if (now >= opening_deadline) {
                fail_opening(timed_out());
                break;
            }
            io.run_one_for(std::min<Clock::duration>(opening_deadline - now, milliseconds(50)));
            drain();
            if (lost && stage != Stage::down) fail_opening(*lost);
        }
        opening_failed = false;
        if (stage != Stage::established) {
            last_error = failure;
            tell(LinkState::disconnected, failure);
            throw std::runtime_error("cannot connect to '" + url_text + "': " + failure);
        }
        opened();
    }

    // ---- the pump -----------------------------------------------------------------------

    bool pass() {
        bool work = false;
        if (opening || channel) {
            if (io.stopped()) io.restart();
            work = io.poll() > 0;
        }
        if (drain() > 0) work = true;
        if (stage == Stage::established) keepalive();
        if (lost) {
            work = true;
            const std::string cause = *lost;
            lost.reset();
            if (stage == Stage::established || stage == Stage::goodbye) {
                link_lost(cause);
            } else if (stage == Stage::hello || stage == Stage::transport) {
                fail_opening(cause);
            }
        }
        if ((stage == Stage::transport || stage == Stage::hello) &&
            Clock::now() >= opening_deadline)
            fail_opening(timed_out());
        if (opening_failed) {
            opening_failed = false;
            work = true;
            attempt_failed();
        }
        if (stage == Stage::down && next_attempt && Clock::now() >= *next_attempt) {
            work = true;
            next_attempt.reset();
            ++attempt;
            log(spdlog::level::info, "[{}] reconnecting to {} (attempt {})", options.name, url_text,
                attempt);
            start_opening();
        }
        // Calls still waiting on a dead link are failed, also when an earlier failure
        // handler threw and left some behind.
        if (stage != Stage::established && !client->caller.pending.empty()) {
            work = true;
            client->caller.fail_all(CONNECTION_LOST);
        }
        return work;
    }

    // What the next pass will act on without anything new arriving.
    bool pass_due() const { return !inbox.empty() || lost || opening_failed; }

    // The earliest moment the pump's own timers (keepalive, opening time-out, next automatic
    // attempt) need a pass.
    Clock::time_point next_timer(Clock::time_point limit) const {
        if (stage == Stage::established && channel && options.keepalive_interval.count() > 0)
            limit = std::min(limit, awaiting_pong ? ping_sent + options.keepalive_timeout
                                                  : last_heard + options.keepalive_interval);
        if (stage == Stage::transport || stage == Stage::hello)
            limit = std::min(limit, opening_deadline);
        if (stage == Stage::down && next_attempt) limit = std::min(limit, *next_attempt);
        return limit;
    }

    bool wait(Clock::duration timeout) {
        if (pass_due()) return true;
        const Clock::time_point until = Clock::now() + timeout;
        const Clock::time_point wake = next_timer(until);
        const Stage before = stage;
        // Handlers that only move a frame along (a partial read, a finished write) do not
        // need a pass; the sleep goes on until one leaves something for it.
        while ((opening || channel) && !pass_due() && stage == before) {
            if (io.stopped()) io.restart();
            if (io.run_one_until(wake) == 0) break;
        }
        if (pass_due() || stage != before) return true;
        // Nothing to sleep on inside the io_context (no link, or its work ran out): the
        // thread sleeps until the time-out or the timer that needs a pass. A sleep can end up to
        // a tick early where the system counts in milliseconds (Windows).
        while (Clock::now() < wake) std::this_thread::sleep_until(wake);
        return wake < until;
    }

    void keepalive() {
        if (options.keepalive_interval.count() <= 0 || !channel) return;
        const auto now = Clock::now();
        if (awaiting_pong) {
            if (now - ping_sent >= options.keepalive_timeout)
                channel->abort("keepalive: no answer within " +
                               std::to_string(options.keepalive_timeout.count()) + " ms");
        } else if (now - last_heard >= options.keepalive_interval) {
            awaiting_pong = true;
            ping_sent = now;
            channel->ping();
        }
    }

    // Schedules the next automatic attempt if the policy allows one; tells the observers.
    void schedule(const std::string& reason) {
        const ReconnectPolicy& p = options.reconnect;
        const bool retry =
            p.enabled && !auth_refused && (p.max_retries == 0 || attempt < p.max_retries);
        milliseconds delay(0);
        if (retry) {
            delay = next_delay(p, attempt, jitter_random);
            next_attempt = Clock::now() + delay;
        }
        tell(LinkState::disconnected, reason, retry, delay);
    }

    void link_lost(const std::string& cause) {
        log(spdlog::level::warn, "[{}] connection to {} lost: {}", options.name, url_text, cause);
        stage = Stage::down;
        channel.reset();
        inbox.clear();
        session = 0;
        last_error = cause;
        set_server_connected(false);
        schedule(cause);
        client->caller.fail_all(CONNECTION_LOST);
    }

    void attempt_failed() {
        last_error = failure;
        log(spdlog::level::warn, "[{}] reconnecting to {} failed: {}", options.name, url_text,
            failure);
        schedule(failure);
    }
};

Endpoint::Endpoint(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Endpoint::~Endpoint() = default;

bool Endpoint::update_first() {
    return impl_->pass();
}
bool Endpoint::update_second() {
    return impl_->pass();
}

bool Endpoint::wait(std::chrono::nanoseconds timeout) {
    return impl_->wait(std::chrono::duration_cast<Clock::duration>(timeout));
}

wamp::Client& Endpoint::client() {
    return *impl_->client;
}
const std::string& Endpoint::url() const {
    return impl_->url_text;
}
LinkState Endpoint::state() const {
    return impl_->link;
}
bool Endpoint::connected() const {
    return impl_->stage == Stage::established;
}
uint64_t Endpoint::session_id() const {
    return impl_->session;
}
const std::string& Endpoint::last_error() const {
    return impl_->last_error;
}

void Endpoint::on_state_change(std::function<void(const LinkEvent&)> callback) {
    impl_->on_change = std::move(callback);
}

void Endpoint::reconnect() {
    Impl& s = *impl_;
    if (s.channel) {
        auto c = std::move(s.channel);
        c->abort("reconnecting");
        s.lost.reset();
        s.set_server_connected(false);
        s.client->caller.fail_all(CONNECTION_LOST);
    }
    if (s.opening) s.fail_opening("reconnecting");
    s.next_attempt.reset();
    s.attempt = 0;
    s.open_blocking();
}

void Endpoint::close(const std::string& reason) {
    Impl& s = *impl_;
    s.next_attempt.reset();
    if (s.stage == Stage::established && s.channel) {
        wamp::Message goodbye(wamp::GOODBYE);
        goodbye.reason = reason;
        s.send(goodbye);
        s.stage = Stage::goodbye;
        const auto deadline = Clock::now() + s.options.connect_timeout;
        while (!s.lost && Clock::now() < deadline) {
            s.io.run_one_for(milliseconds(20));
            s.drain();
        }
    }
    if (s.opening) s.fail_opening("closed");
    if (s.channel) s.channel->abort("closed");
    s.channel.reset();
    s.lost.reset();
    s.inbox.clear();
    s.stage = Stage::closed;
    s.session = 0;
    s.set_server_connected(false);
    s.tell(LinkState::closed, reason);
    s.client->caller.fail_all(CONNECTION_LOST);
}

Endpoint& open_endpoint(QorClient& peer, const std::string& url, const ConnectOptions& options,
                        const std::vector<std::string>* topics) {
    auto impl = std::make_unique<Endpoint::Impl>(peer, url, options, topics == nullptr);
    Endpoint::Impl& state = *impl;
    std::unique_ptr<Endpoint> endpoint(new Endpoint(std::move(impl)));
    state.client->connection = endpoint.get();
    state.open_blocking();
    // Opened: the peer takes both; the connection goes first when the peer is destroyed.
    Endpoint& result = *endpoint;
    if (topics)
        peer.adopt_device_endpoint(std::move(state.owned_client), std::move(endpoint), *topics);
    else
        peer.adopt_server_endpoint(std::move(state.owned_client), std::move(endpoint),
                                   options.served_topics);
    return result;
}

Endpoint& connect(QorClient& peer, const std::string& url, const ConnectOptions& options) {
    return open_endpoint(peer, url, options, nullptr);
}

Endpoint& connect_device_source(QorClient& peer, const std::string& url,
                                const std::vector<std::string>& topics,
                                const ConnectOptions& options) {
    return open_endpoint(peer, url, options, &topics);
}

}  // namespace qor::transport
