#pragma once

// The router's state on its I/O thread: the open connections and their stages, the opening
// of each, delivery to each peer and its limits. Only server.cpp, the public face, includes it.

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <spdlog/spdlog.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

#include <qor/router/detail/accept.hpp>
#include <qor/router/detail/peer.hpp>
#include <qor/router/server.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport/detail/channel.hpp>
#include <qor/wamp/message.hpp>
#include <qor/wamp/receive.hpp>

namespace qor::router {


namespace asio = boost::asio;
namespace msgpack = serialization::msgpack;
using transport::detail::tcp;
using error_code = boost::system::error_code;
using detail::Peer;
using detail::Stage;

struct Server::Impl : std::enable_shared_from_this<Impl> {
    ServerOptions options;
    JoinHandler join_handler;
    MessageHandler message_handler;
    LeaveHandler leave_handler;

    asio::io_context io;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
    std::shared_ptr<transport::detail::TlsContext> tls;
    std::unique_ptr<tcp::acceptor> rs_acceptor;
    std::unique_ptr<tcp::acceptor> ws_acceptor;
    std::atomic<uint16_t> rs_port{0};
    std::atomic<uint16_t> ws_port{0};
    std::thread thread;
    bool running = false;
    bool silent = false;  // I/O thread only

    std::set<std::shared_ptr<Peer>> peers;  // I/O thread only: every open connection
    size_t refusing = 0;          // I/O thread only: peers being refused as over the limit
    size_t refused_in_burst = 0;  // I/O thread only: refusals since the limit was reached
    size_t trim_mark = 0;         // I/O thread only: see `forget`
    std::atomic<size_t> connection_count{0};
    mutable std::mutex mutex;  // guards `joined`
    std::unordered_map<uint64_t, std::shared_ptr<Peer>> joined;

    explicit Impl(ServerOptions o) : options(std::move(o)) {}

    template <class... Args>
    void log_info(const char* format, const Args&... args) {
        if (options.logger) options.logger->info(fmt::runtime(format), args...);
    }
    template <class... Args>
    void log_warn(const char* format, const Args&... args) {
        if (options.logger) options.logger->warn(fmt::runtime(format), args...);
    }

    bool on_io_thread() { return io.get_executor().running_in_this_thread(); }

    void accept(tcp::acceptor& acceptor, transport::detail::Framing framing) {
        acceptor.async_accept(
            [self = shared_from_this(), &acceptor, framing](error_code ec, tcp::socket socket) {
                if (ec == asio::error::operation_aborted || !acceptor.is_open()) return;
                if (!ec) self->opened(std::move(socket), framing);
                self->accept(acceptor, framing);
            });
    }

    // Connections being refused are few and short-lived; beyond this many more are closed
    // without a word.
    static constexpr size_t kMaxRefusing = 64;

    bool full() const {
        return options.max_connections != 0 && peers.size() - refusing >= options.max_connections;
    }

    void opened(tcp::socket socket, transport::detail::Framing framing) {
        const bool refuse = full();
        if (refuse) {
            if (refused_in_burst++ == 0)
                log_warn("[transport server] {} connections open, the limit: refusing new ones",
                         peers.size() - refusing);
            if (refusing >= kMaxRefusing) {
                error_code ignored;
                socket.close(ignored);
                return;
            }
        }
        auto peer = std::make_shared<Peer>(io);
        peer->refused_full = refuse;
        if (refuse) ++refusing;
        peers.insert(peer);
        connection_count = peers.size();
        trim_mark = std::max(trim_mark, peers.size());
        peer->info.transport =
            framing == transport::detail::Framing::rawsocket ? "rawsocket" : "websocket";
        peer->timer.expires_after(options.opening_timeout);
        std::weak_ptr<Peer> weak = peer;
        peer->timer.async_wait([self = shared_from_this(), weak](error_code ec) {
            auto peer = weak.lock();
            if (ec || !peer) return;
            if (peer->stage == Stage::transport || peer->stage == Stage::opening) {
                self->log_warn("[transport server] opening timed out for {}", peer->info.peer);
                self->end(peer, "opening timed out");
            }
        });
        detail::AcceptSettings settings;
        settings.framing = framing;
        settings.tls_context = tls.get();
        settings.max_message_size = options.max_message_size;
        if (framing == transport::detail::Framing::websocket) settings.http = options.http;
        settings.refuse = refuse;
        peer->opening = detail::accept_server(
            std::move(socket), settings,
            [self = shared_from_this(), weak](std::shared_ptr<transport::detail::Channel> channel,
                                              const std::string& cause) {
                auto peer = weak.lock();
                if (!peer) return;
                peer->opening.reset();
                if (!channel) {
                    if (cause != detail::kServedHttp && !peer->refused_full)
                        self->log_info("[transport server] handshake failed: {}", cause);
                    self->forget(peer);
                    return;
                }
                self->started(peer, std::move(channel));
            });
    }

    void started(const std::shared_ptr<Peer>& peer,
                 std::shared_ptr<transport::detail::Channel> channel) {
        peer->channel = std::move(channel);
        peer->stage = Stage::opening;
        peer->wamp_opening.emplace(options.realm, options.credentials);
        peer->info.peer = peer->channel->peer();
        std::weak_ptr<Peer> weak = peer;
        transport::detail::Channel::Handlers handlers;
        handlers.message = [this, weak](const uint8_t* data, size_t size) {
            if (auto p = weak.lock()) received(p, msgpack::buffer(data, size));
        };
        // A large message arrives in a block of its own, which becomes the message's bytes.
        handlers.owned_message = [this, weak](msgpack::buffer&& bytes) {
            if (auto p = weak.lock()) received(p, std::move(bytes));
        };
        handlers.closed = [this, weak](const std::string& cause) {
            if (auto p = weak.lock()) closed(p, cause);
        };
        handlers.too_large = [this, weak](uint32_t size) {
            if (auto p = weak.lock()) oversized_opening(p, size);
        };
        peer->channel->limit_incoming(
            std::min(options.max_opening_message_size, options.max_message_size));
        peer->channel->limit_frame_idle(options.frame_idle_timeout);
        if (silent) peer->channel->set_paused(true);
        peer->channel->start(std::move(handlers));
    }

    void send_to(const std::shared_ptr<Peer>& peer, const wamp::Message& message) {
        const msgpack::buffer bytes = wamp::serialize(message);
        deliver(peer, bytes.data, bytes.size);
    }

    // Ends the session of a peer that does not read rather than queue `size` more bytes.
    bool refuse_backlog(const std::shared_ptr<Peer>& peer, size_t size) {
        const size_t waiting = peer->channel->queued();
        if (options.max_send_queue == 0 || waiting + size <= options.max_send_queue) return false;
        const std::string cause = "dropped: the peer does not read (" + std::to_string(waiting) +
                                  " bytes waiting to be sent)";
        log_warn("[transport server] session {} from {} {}", peer->info.id, peer->info.peer,
                 cause);
        end(peer, cause);
        return true;
    }

    // Every message to a peer goes out here or below, on the I/O thread.
    void deliver(const std::shared_ptr<Peer>& peer, const uint8_t* data, size_t size) {
        if (!peer->channel || refuse_backlog(peer, size)) return;
        peer->channel->send(data, size);
    }

    // `message` with `last` after its arguments, written straight into the outgoing frame
    // where the link frames in place.
    void deliver(const std::shared_ptr<Peer>& peer, const wamp::Message& message,
                 const std::vector<uint8_t>& last) {
        const wamp::Trailing trailing = wamp::Trailing::encoded(last.data(), last.size());
        const uint64_t size = wamp::serialized_size(message, trailing);
        if (!peer->channel || refuse_backlog(peer, size)) return;
        const auto fill = [&message, &trailing](uint8_t* frame) {
            wamp::serialize_into(message, trailing, frame);
        };
        if (peer->channel->send_in_place(size, fill)) return;
        const msgpack::buffer bytes = wamp::serialize(message, last.data(), last.size());
        peer->channel->send(bytes.data, bytes.size);
    }

    // ABORT with `reason` and the detail "message" `text`, then the link closes: the opening's
    // own refusal while opening, a plain ABORT in an open session.
    void abort_session(const std::shared_ptr<Peer>& peer, const std::string& reason,
                       const std::string& text) {
        if (peer->stage == Stage::opening && peer->wamp_opening) {
            send_to(peer, peer->wamp_opening->refuse(reason, text));
            return refused(peer);
        }
        wamp::Message abort(wamp::ABORT);
        abort.reason = reason;
        std::vector<uint8_t> encoded;
        msgpack::pack(encoded, text);
        abort.details["message"] = msgpack::buffer(encoded);
        send_to(peer, abort);
        log_info("[transport server] session {} aborted: {} ({})", peer->info.id, reason, text);
        peer->stage = Stage::closing;
        if (peer->channel) peer->channel->close(reason);
    }

    void refused(const std::shared_ptr<Peer>& peer) {
        const wamp::RouterOpening& o = *peer->wamp_opening;
        log_info("[transport server] {} refused: {} ({})", peer->info.peer, o.refusal_reason(),
                 o.refusal_text());
        peer->stage = Stage::closing;
        peer->channel->close(o.refusal_reason());
    }

    // Only the opening's limit is lower than the channel's own, so only it is reported here.
    void oversized_opening(const std::shared_ptr<Peer>& peer, uint32_t size) {
        abort_session(peer, "wamp.error.protocol_violation",
                      "a message of " + std::to_string(size) + " bytes before WELCOME; at most " +
                          std::to_string(options.max_opening_message_size) + " are accepted");
    }

    void received(const std::shared_ptr<Peer>& peer, msgpack::buffer bytes) {
        if (options.tap) options.tap(bytes.data, bytes.size);
        // Calls run to completion here; the caller has stopped waiting and drops the answer.
        if (peer->stage == Stage::joined && wamp::is_cancel(bytes.data, bytes.size)) return;
        std::optional<wamp::Message> parsed;
        try {
            parsed.emplace(wamp::parse_message(std::move(bytes)));
        } catch (const std::exception& e) {
            log_warn("[transport server] bad message from {}: {}", peer->info.peer, e.what());
            // Opening or open, the peer is told why before the link closes.
            abort_session(peer, "wamp.error.protocol_violation", e.what());
            return;
        }
        wamp::Message& message = *parsed;
        switch (peer->stage) {
            case Stage::opening:
                return opening_message(peer, message);
            case Stage::joined:
                return joined_message(peer, message);
            case Stage::closing:
                // We said GOODBYE; the peer's GOODBYE completes the close.
                if (message.type == wamp::GOODBYE) peer->channel->close(peer->leave_reason);
                return;
            default:
                return;
        }
    }

    void opening_message(const std::shared_ptr<Peer>& peer, const wamp::Message& m) {
        wamp::RouterOpening& o = *peer->wamp_opening;
        try {
            for (const wamp::Message& reply : o.receive(m)) send_to(peer, reply);
        } catch (const std::exception& e) {
            // A credential no key can be derived from: the peer cannot join.
            log_warn("[transport server] opening failed for {}: {}", peer->info.peer, e.what());
            return end(peer, e.what());
        }
        if (o.stage() == wamp::RouterOpening::Stage::refused) return refused(peer);
        if (o.stage() == wamp::RouterOpening::Stage::joined) joined_now(peer);
    }

    void joined_now(const std::shared_ptr<Peer>& peer) {
        const wamp::RouterOpening& o = *peer->wamp_opening;
        peer->info.id = o.session();
        peer->info.authid = o.authid();
        peer->info.authrole = o.authrole();
        peer->info.authmethod = o.authmethod();
        peer->wamp_opening.reset();
        peer->stage = Stage::joined;
        peer->timer.cancel();
        peer->channel->limit_incoming(options.max_message_size);
        {
            std::lock_guard<std::mutex> lock(mutex);
            joined[peer->info.id] = peer;
        }
        log_info("[transport server] session {} joined over {} from {}", peer->info.id,
                 peer->info.transport, peer->info.peer);
        guarded(peer, [&] {
            if (join_handler) join_handler(peer->info);
        });
    }

    void joined_message(const std::shared_ptr<Peer>& peer, wamp::Message& m) {
        if (m.type == wamp::GOODBYE) {
            peer->leave_reason = m.reason;
            wamp::Message reply(wamp::GOODBYE);
            reply.reason = "wamp.close.goodbye_and_out";
            send_to(peer, reply);
            peer->stage = Stage::closing;
            peer->channel->close(m.reason);
            return;
        }
        if (m.type == wamp::ABORT) return end(peer, "aborted by the peer: " + m.reason);
        if (m.type == wamp::HELLO || m.type == wamp::WELCOME || m.type == wamp::CHALLENGE ||
            m.type == wamp::AUTHENTICATE)
            return abort_session(
                peer, "wamp.error.protocol_violation",
                std::string(wamp::type_name(m.type)) + " after the session was established");
        guarded(peer, [&] {
            if (message_handler) message_handler(peer->info.id, m);
        });
    }

    template <class F>
    void guarded(const std::shared_ptr<Peer>& peer, F&& f) {
        try {
            f();
        } catch (const std::exception& e) {
            log_warn("[transport server] handler failed for session {}: {}", peer->info.id,
                     e.what());
            end(peer, std::string("handler failed: ") + e.what());
        }
    }

    void end(const std::shared_ptr<Peer>& peer, const std::string& cause) {
        if (peer->opening) {
            auto opening = std::move(peer->opening);
            opening->cancel();
        }
        if (peer->channel)
            peer->channel->abort(cause);
        else
            forget(peer);
    }

    void closed(const std::shared_ptr<Peer>& peer, const std::string& cause) {
        const bool was_joined =
            peer->stage == Stage::joined ||
            (peer->stage == Stage::closing && peer->info.id != 0 && is_joined(peer->info.id));
        peer->stage = Stage::closed;
        forget(peer);
        if (!was_joined) return;
        {
            std::lock_guard<std::mutex> lock(mutex);
            joined.erase(peer->info.id);
        }
        const std::string reason = peer->leave_reason.empty() ? cause : peer->leave_reason;
        log_info("[transport server] session {} left: {}", peer->info.id, reason);
        if (leave_handler) {
            try {
                leave_handler(peer->info.id, reason);
            } catch (const std::exception& e) {
                log_warn("[transport server] leave handler failed: {}", e.what());
            }
        }
    }

    bool is_joined(uint64_t id) const {
        std::lock_guard<std::mutex> lock(mutex);
        return joined.count(id) != 0;
    }

    void forget(const std::shared_ptr<Peer>& peer) {
        peer->timer.cancel();
        if (peers.erase(peer) == 0) return;
        if (peer->refused_full) --refusing;
        connection_count = peers.size();
        if (refused_in_burst != 0 && !full()) {
            log_info("[transport server] below the connection limit again; {} refused meanwhile",
                     refused_in_burst);
            refused_in_burst = 0;
        }
        // The heap keeps what a crowd of connections freed; hand it back once half of the
        // peak since the last time has gone, so one burst does not raise the footprint for good.
        if (trim_mark >= 16 && peers.size() <= trim_mark / 2) {
            trim_mark = peers.size();
#if defined(__GLIBC__)
            malloc_trim(0);
#endif
        }
    }

    std::shared_ptr<Peer> find(uint64_t id) const {
        std::lock_guard<std::mutex> lock(mutex);
        auto it = joined.find(id);
        return it == joined.end() ? nullptr : it->second;
    }

    // Runs `task` on the I/O thread: at once when already there, which keeps a handler's
    // answers in order with no hop through the queue.
    template <class F>
    void run_on_io(F&& task) {
        if (on_io_thread())
            task();
        else
            asio::post(io, std::forward<F>(task));
    }

    void close_session(const std::shared_ptr<Peer>& peer, const std::string& reason) {
        if (peer->stage != Stage::joined || !peer->channel) return;
        wamp::Message goodbye(wamp::GOODBYE);
        goodbye.reason = reason;
        send_to(peer, goodbye);
        peer->stage = Stage::closing;
        peer->leave_reason = reason;
        // A peer that never answers is cut after a while.
        peer->timer.expires_after(std::chrono::seconds(2));
        std::weak_ptr<Peer> weak = peer;
        peer->timer.async_wait([self = shared_from_this(), weak](error_code ec) {
            if (auto p = weak.lock(); p && !ec) self->end(p, "no GOODBYE reply");
        });
    }

    void teardown() {
        error_code ignored;
        if (rs_acceptor) rs_acceptor->close(ignored);
        if (ws_acceptor) ws_acceptor->close(ignored);
        const auto all = peers;
        for (const auto& peer : all) end(peer, "server stopped");
        peers.clear();
        refusing = 0;
        connection_count = 0;
    }
};

}  // namespace qor::router
