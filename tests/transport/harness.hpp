#pragma once

// Shared pieces of the transport tests: the router's broker with a test dealer, a scripted
// RawSocket peer and a hand-driven connection on plain blocking sockets (Asio's, so that the
// suite builds for Windows as well), a pump loop and a self-signed certificate.

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

// The options of a socket, asked of the system itself.
#ifndef _WIN32
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif

#include <qor/qor_client.hpp>
#include <qor/router/broker.hpp>
#include <qor/router/server.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport.hpp>
#include <qor/wamp.hpp>

#include "support/testing.hpp"

namespace transport_test {

namespace msgpack = qor::serialization::msgpack;
namespace asio = boost::asio;
using asio::ip::tcp;
using namespace std::chrono_literals;

inline std::string text_of(const msgpack::buffer& value) {
    msgpack::ReadBuffer in(value);
    std::string text;
    msgpack::read(in, text);
    return text;
}

/// An event handler that appends each event's one text argument to `into`.
inline std::function<void(const qor::wamp::Message&)> strings_into(std::vector<std::string>& into) {
    return [&into](const qor::wamp::Message& m) {
        std::string value;
        qor::wamp::IncomingMessage(m).fillArgsNS(value);
        into.push_back(value);
    };
}

/// Pumps `peer` until `done()` or `limit`; true when `done()` became true.
template <class Done>
bool pump_until(qor::QorClient& peer, Done done, std::chrono::milliseconds limit = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        const bool first = peer.update_first();
        const bool second = peer.update_second();
        if (!first && !second) std::this_thread::sleep_for(200us);
    }
    return true;
}

/// Calls `procedure` and pumps `peer` until the answer comes; nullopt when none came in 5 s.
template <class T, class... Args>
std::optional<qor::wamp::RpcResult<T>> call_and_wait(qor::QorClient& peer,
                                                     const std::string& procedure,
                                                     const Args&... args) {
    std::optional<qor::wamp::RpcResult<T>> got;
    std::function<void(qor::wamp::RpcResult<T>)> done = [&](qor::wamp::RpcResult<T> r) {
        got = std::move(r);
    };
    peer.call<T>(done, procedure, args...);
    pump_until(peer, [&] { return got.has_value(); });
    return got;
}

/// A text answer as the test reads it: the value, "error <uri>", or "no answer".
inline std::string outcome(const std::optional<qor::wamp::RpcResult<std::string>>& answer) {
    if (!answer) return "no answer";
    return answer->isError ? "error " + answer->error : answer->value;
}

/// Polls `done()` (state another thread changes, without a signal) until it holds or `limit`.
template <class Done>
bool poll_until(Done done, std::chrono::milliseconds limit = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

/// The router the client tests talk to: the library's broker with, unless a test brings its
/// own, a dealer that answers CALL "echo" with its arguments, "fail" with ERROR
/// "app.error.failed", "big" with a binary of the requested size, and leaves anything else
/// unanswered, on the I/O thread. Records what it saw.
class Router {
  public:
    explicit Router(qor::router::ServerOptions options = {},
                    qor::router::Broker::Dealer answers = dealer(),
                    qor::router::BrokerOptions broker_options = inline_calls())
        : server(std::move(options)), broker(server, std::move(answers), broker_options) {
        server.on_join([this](const qor::router::SessionInfo& info) {
            std::lock_guard<std::mutex> lock(mutex);
            joins.push_back(info);
            changed.notify_all();
        });
        server.on_leave([this](uint64_t session, const std::string& reason) {
            broker.on_leave(session);
            std::lock_guard<std::mutex> lock(mutex);
            leaves.emplace_back(session, reason);
            changed.notify_all();
        });
        server.on_message(
            [this](uint64_t session, const qor::wamp::Message& m) { handle(session, m); });
        server.start();
    }
    // The server's handlers write into the members below: stop it while they still exist.
    ~Router() { server.stop(); }

    void handle(uint64_t session, const qor::wamp::Message& m) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (m.type == qor::wamp::CALL) calls.push_back(m.procedure);
            changed.notify_all();
        }
        broker.on_message(session, m);
        // Recorded once the broker knows it, so a test that saw it can publish to it.
        if (m.type == qor::wamp::SUBSCRIBE) {
            std::lock_guard<std::mutex> lock(mutex);
            subscriptions.push_back(Subscription{session, m.topic});
            changed.notify_all();
        }
    }

    /// Sends EVENT [value] to every subscriber of `topic`; returns how many went out.
    int publish(const std::string& topic, const std::string& value) {
        std::vector<uint8_t> packed;
        msgpack::pack(packed, value);
        return int(broker.publish(topic, packed));
    }

    /// Waits (not pumping any client) until `done()` holds under the lock.
    template <class Done>
    bool wait(Done done, std::chrono::milliseconds limit = 5000ms) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, done);
    }

    struct Subscription {
        uint64_t session;
        std::string topic;
    };

    qor::router::Server server;
    qor::router::Broker broker;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<qor::router::SessionInfo> joins;
    std::vector<std::pair<uint64_t, std::string>> leaves;
    std::vector<std::string> calls;
    std::vector<Subscription> subscriptions;

  private:
    static qor::router::BrokerOptions inline_calls() {
        qor::router::BrokerOptions o;
        o.call_worker = false;
        // "s" stands for a topic only the server publishes to (the state, device frames).
        o.server_owned = [](const std::string& topic) { return topic == "s"; };
        return o;
    }

    static qor::router::Broker::Dealer dealer() {
        return [](uint64_t, const qor::wamp::Message& m) -> std::optional<qor::router::Answer> {
            qor::router::Answer answer;
            if (m.procedure == "echo") {
                answer.args = qor::wamp::received_args(m);
            } else if (m.procedure == "fail") {
                answer.error = "app.error.failed";
            } else if (m.procedure == "big") {
                qor::wamp::IncomingMessage in(m);
                long long size = 0;
                in.fillArgsNS(size);
                std::vector<uint8_t> blob;  // sent as it is, written in place
                msgpack::pack(blob, msgpack::buffer(std::vector<uint8_t>(size_t(size), 0x5A)));
                answer = qor::router::Answer::result(std::move(blob));
            } else {
                return std::nullopt;
            }
            return answer;
        };
    }
};

/// "<scheme>://127.0.0.1:<port>", the port of `server` for that framing (ws, wss: WebSocket).
inline std::string url_of(const std::string& scheme, const qor::router::Server& server) {
    const uint16_t port = scheme[0] == 'w' ? server.websocket_port() : server.rawsocket_port();
    return scheme + "://127.0.0.1:" + std::to_string(port);
}

/// A listening socket on a free 127.0.0.1 port that does whatever the test scripts.
class RawPeer {
  public:
    RawPeer() : acceptor_(io_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {
        port = acceptor_.local_endpoint().port();
    }
    ~RawPeer() {
        boost::system::error_code ignored;
        bool waiting_in_accept = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            if (accepted_)
                connection_.shutdown(tcp::socket::shutdown_both, ignored);
            else
                waiting_in_accept = thread_.joinable();
        }
        // A blocking accept is not woken by closing its socket everywhere; a connection is.
        if (waiting_in_accept) {
            tcp::socket poke(io_);
            poke.connect(acceptor_.local_endpoint(), ignored);
        }
        if (thread_.joinable()) thread_.join();
    }

    /// In the background: accept one connection, read `read_first` bytes, write `reply`; then
    /// read one RawSocket frame (the HELLO) if `after_hello` is not empty and write it; then
    /// hold the connection until the client closes it or the test ends.
    void script(size_t read_first, std::vector<uint8_t> reply, std::vector<uint8_t> after_hello) {
        thread_ = std::thread([=] {
            boost::system::error_code ec;
            tcp::socket accepted(io_);
            acceptor_.accept(accepted, ec);
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (ec || stopping_) return;
                connection_ = std::move(accepted);
                accepted_ = true;
            }
            std::vector<uint8_t> in(read_first);
            if (!read_exactly(in.data(), in.size())) return;
            asio::write(connection_, asio::buffer(reply), ec);
            if (!after_hello.empty()) {
                uint8_t header[4];
                if (!read_exactly(header, 4)) return;
                std::vector<uint8_t> hello((header[1] << 16) | (header[2] << 8) | header[3]);
                if (!read_exactly(hello.data(), hello.size())) return;
                asio::write(connection_, asio::buffer(after_hello), ec);
            }
            uint8_t sink[256];
            while (!ec) connection_.read_some(asio::buffer(sink), ec);
        });
    }

    uint16_t port = 0;

  private:
    bool read_exactly(uint8_t* data, size_t size) {
        boost::system::error_code ec;
        asio::read(connection_, asio::buffer(data, size), ec);
        return !ec;
    }

    asio::io_context io_;
    tcp::acceptor acceptor_;
    tcp::socket connection_{io_};
    std::mutex mutex_;
    bool stopping_ = false;
    bool accepted_ = false;
    std::thread thread_;
};

/// A plain connection to a port on 127.0.0.1, driven byte by byte by the test. Reads give up
/// after their time limit, so that a peer that never answers fails the test instead of
/// hanging it.
class RawConnection {
  public:
    explicit RawConnection(uint16_t port) {
        boost::system::error_code ec;
        socket_.connect(tcp::endpoint(asio::ip::address_v4::loopback(), port), ec);
        connected = !ec;
    }

    bool send(const uint8_t* data, size_t size) {
        boost::system::error_code ec;
        asio::write(socket_, asio::buffer(data, size), ec);
        return !ec;
    }
    bool send(const std::vector<uint8_t>& bytes) { return send(bytes.data(), bytes.size()); }

    /// Exactly `size` bytes; false when the connection ended or `limit` passed first.
    bool read(uint8_t* data, size_t size, std::chrono::milliseconds limit = 20s) {
        bool done = false;
        asio::async_read(socket_, asio::buffer(data, size),
                         [&](boost::system::error_code ec, size_t) { done = !ec; });
        run(limit);
        return done;
    }

    /// Everything the peer sends until it ends the connection (`closed` turns true) or
    /// `limit` passes.
    std::vector<uint8_t> read_to_end(bool& closed, std::chrono::milliseconds limit = 20s) {
        std::vector<uint8_t> in;
        std::array<uint8_t, 4096> chunk;
        closed = false;
        std::function<void()> next = [&] {
            socket_.async_read_some(asio::buffer(chunk),
                                    [&](boost::system::error_code ec, size_t n) {
                                        in.insert(in.end(), chunk.begin(), chunk.begin() + long(n));
                                        if (!ec) return next();
                                        closed = ec != asio::error::operation_aborted;
                                    });
        };
        next();
        run(limit);
        return in;
    }

    bool connected = false;

  private:
    // Runs the pending read to its end or, at `limit`, cancels it.
    void run(std::chrono::milliseconds limit) {
        io_.restart();
        io_.run_for(limit);
        if (io_.stopped()) return;
        boost::system::error_code ignored;
        socket_.cancel(ignored);
        io_.restart();
        io_.run();
    }

    asio::io_context io_;
    tcp::socket socket_{io_};
};

/// Whether TCP_NODELAY is on for the socket of this process connected to 127.0.0.1:`port`,
/// found by asking every descriptor (handle, on Windows) for its peer; nullopt when none is.
inline std::optional<bool> nodelay_of_socket_to(uint16_t port) {
#ifdef _WIN32
    using Socket = SOCKET;
    using Length = int;
    const uintptr_t first = 4, last = 0x10000, step = 4;  // handles are multiples of 4
#else
    using Socket = int;
    using Length = socklen_t;
    const uintptr_t first = 0, last = 4096, step = 1;
#endif
    for (uintptr_t h = first; h < last; h += step) {
        const Socket s = Socket(h);
        sockaddr_in peer{};
        Length length = sizeof peer;
        if (::getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
            peer.sin_family != AF_INET || ntohs(peer.sin_port) != port)
            continue;
        int on = 0;
        length = sizeof on;
        if (::getsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&on), &length) != 0)
            return std::nullopt;
        return on != 0;
    }
    return std::nullopt;
}

/// A self-signed certificate for 127.0.0.1 and localhost, made once per test program and
/// removed at exit.
struct Certificate {
    test_support::TempFolder folder;
    std::string cert = (folder.path() / "cert.pem").string();
    std::string key = (folder.path() / "key.pem").string();
    bool ok = std::system(("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost "
                           "-addext subjectAltName=IP:127.0.0.1,DNS:localhost -keyout '" +
                           key + "' -out '" + cert + "' >/dev/null 2>&1")
                              .c_str()) == 0;
};

inline const Certificate& certificate() {
    static const Certificate made;
    return made;
}

}  // namespace transport_test
