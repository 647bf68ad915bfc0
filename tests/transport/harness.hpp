#pragma once

// Shared pieces of the transport tests: the router's broker with a test dealer, a scripted
// RawSocket peer on plain sockets, a pump loop and a self-signed certificate.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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

#include <qor/qor_client.hpp>
#include <qor/router/broker.hpp>
#include <qor/router/server.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport.hpp>
#include <qor/wamp.hpp>

namespace transport_test {

namespace msgpack = qor::serialization::msgpack;
using namespace std::chrono_literals;

inline msgpack::buffer packed(const std::string& text) {
    std::vector<uint8_t> out;
    msgpack::pack(out, text);
    return msgpack::buffer(out);
}

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

/// The router the client tests talk to: the library's broker with a dealer that answers
/// CALL "echo" with its arguments, "fail" with ERROR "app.error.failed", "big" with a binary
/// of the requested size, and leaves anything else unanswered. Records what it saw.
class Router {
  public:
    explicit Router(qor::router::ServerOptions options = {})
        : server(std::move(options)), broker(server, dealer(), inline_calls()) {
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
            received.push_back(m.type);
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
    std::vector<uint32_t> received;
    std::vector<std::string> calls;
    std::vector<Subscription> subscriptions;

  private:
    static qor::router::BrokerOptions inline_calls() {
        qor::router::BrokerOptions o;
        o.call_worker = false;
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
                std::vector<uint8_t> blob;
                msgpack::pack(blob, msgpack::buffer(std::vector<uint8_t>(size_t(size), 0x5A)));
                answer.args.emplace_back(blob);
            } else {
                return std::nullopt;
            }
            return answer;
        };
    }
};

/// A listening socket on a free 127.0.0.1 port that does whatever the test scripts.
class RawPeer {
  public:
    RawPeer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 4);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~RawPeer() {
        ::shutdown(listener_, SHUT_RDWR);
        if (connection_ >= 0) ::shutdown(connection_, SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        if (connection_ >= 0) ::close(connection_);
        ::close(listener_);
    }

    /// In the background: accept one connection, read `read_first` bytes, write `reply`; then
    /// read one RawSocket frame (the HELLO) if `after_hello` is not empty and write it; then
    /// hold the connection until the test ends.
    void script(size_t read_first, std::vector<uint8_t> reply, std::vector<uint8_t> after_hello) {
        thread_ = std::thread([=] {
            connection_ = ::accept(listener_, nullptr, nullptr);
            if (connection_ < 0) return;
            std::vector<uint8_t> in(read_first);
            if (!read_exactly(in.data(), in.size())) return;
            ::send(connection_, reply.data(), reply.size(), MSG_NOSIGNAL);
            if (!after_hello.empty()) {
                uint8_t header[4];
                if (!read_exactly(header, 4)) return;
                std::vector<uint8_t> hello((header[1] << 16) | (header[2] << 8) | header[3]);
                if (!read_exactly(hello.data(), hello.size())) return;
                ::send(connection_, after_hello.data(), after_hello.size(), MSG_NOSIGNAL);
            }
            uint8_t sink[256];
            while (::recv(connection_, sink, sizeof sink, 0) > 0) {
            }
        });
    }

    uint16_t port = 0;

  private:
    bool read_exactly(uint8_t* data, size_t size) {
        size_t got = 0;
        while (got < size) {
            const ssize_t n = ::recv(connection_, data + got, size - got, 0);
            if (n <= 0) return false;
            got += size_t(n);
        }
        return true;
    }

    int listener_ = -1;
    int connection_ = -1;
    std::thread thread_;
};

/// A self-signed certificate for 127.0.0.1 and localhost, made once per test program and
/// removed at exit.
struct Certificate {
    std::filesystem::path folder;
    std::string cert;
    std::string key;
    bool ok = false;

    Certificate() {
        folder = std::filesystem::temp_directory_path() /
                 ("qor_transport_tls_" + std::to_string(::getpid()));
        std::filesystem::create_directories(folder);
        cert = (folder / "cert.pem").string();
        key = (folder / "key.pem").string();
        const std::string command =
            "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost "
            "-addext subjectAltName=IP:127.0.0.1,DNS:localhost -keyout '" +
            key + "' -out '" + cert + "' >/dev/null 2>&1";
        ok = std::system(command.c_str()) == 0;
    }
    ~Certificate() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;
};

inline const Certificate& certificate() {
    static const Certificate made;
    return made;
}

}  // namespace transport_test
