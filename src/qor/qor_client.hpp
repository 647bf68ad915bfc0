#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include <qor/wamp/client.hpp>
#include <qor/wamp/connection.hpp>
#include <qor/wamp/rpc.hpp>

namespace qor {

/// The middleware peer: the endpoints the application connected, pumped in two passes.
/// Every callback runs inside those passes. One thread at a time; nothing is locked.
class QorClient {
  public:
    wamp::Client* first_endpoint = nullptr;   ///< visited first in each pass when not null
    wamp::Client* server_endpoint = nullptr;  ///< the simulation server's endpoint
    bool has_server = false;                  ///< whether the passes visit `server_endpoint`
    spdlog::logger* logger = nullptr;         ///< the peer's own logger; may be null
    bool server_connected = false;            ///< true while the server session is open
    /// Device binders waiting for an endpoint that serves their topic.
    std::unordered_map<std::string, std::function<void(wamp::Client*)>> pending_device_bindings;
    std::vector<wamp::Client*> extra_endpoints;            ///< visited last, in order; never null
    std::map<std::string, wamp::Client*> topic_endpoints;  ///< which endpoint serves a topic
    /// Device bindings made: binding id to (endpoint, handler id).
    std::map<uint64_t, std::pair<wamp::Client*, uint64_t>> device_bindings;
    uint64_t next_binding_id = 1;  ///< the id of the next device binding

    /// Endpoints kept alive by the peer (for instance opened by a transport).
    std::vector<std::unique_ptr<wamp::Client>> owned_endpoints;
    /// Connections kept alive by the peer; destroyed before the endpoints above.
    std::vector<std::unique_ptr<wamp::Connection>> owned_connections;

    /// A peer with no endpoint; `logger` may be null.
    explicit QorClient(spdlog::logger* peer_logger = nullptr) : logger(peer_logger) {}
    QorClient(const QorClient&) = delete;
    QorClient& operator=(const QorClient&) = delete;

    /// First pass over every endpoint (first, server if `has_server`, extras); no
    /// short-circuit. Calls past their endpoint's `Caller::call_limit` complete first. True
    /// when any reported work.
    bool update_first();
    /// Second pass, same order and rules.
    bool update_second();
    /// Sleeps in the OS until an endpoint has something for the next passes (see
    /// `wamp::Connection::wait`), a call passes its limit, or `timeout` passes; true when woken
    /// by work. Opt-in: the passes themselves never sleep. Several endpoints are watched in
    /// turn, a millisecond each. Pumping thread only.
    bool wait(std::chrono::nanoseconds timeout);

    /// Calls `procedure` on the server with positional arguments; `cb` gets the result.
    /// Throws "qor client cannot call operations before server is connected".
    template <class T, class... Args>
    void call(const std::function<void(wamp::RpcResult<T>)>& cb, const std::string& procedure,
              const Args&... args);

    /// Subscribes `handler` to `topic` on the server endpoint; returns the handler id.
    /// Throws "qor client cannot call operations before server is connected".
    template <class T>
    uint64_t bind_publish(const std::string& topic, const std::function<void(T)>& handler,
                          const std::function<void(bool, std::string)>& on_subscribed);

    /// Subscribes `handler` to a device topic on the endpoint serving it, now or once one is
    /// announced by `serve_topic`; returns a binding id.
    template <class T>
    uint64_t bind_device(const std::string& topic, const std::function<void(const T&)>& handler);

    /// Records that `endpoint` serves `topic` and runs (then forgets) the binder waiting for it.
    void serve_topic(const std::string& topic, wamp::Client* endpoint);

    /// Takes an endpoint opened by a transport, with its connection (destroyed first), and
    /// makes it the server endpoint: `has_server` and `server_connected` are set and the
    /// device topics it relays are served. Returns the endpoint.
    wamp::Client& adopt_server_endpoint(std::unique_ptr<wamp::Client> endpoint,
                                        std::unique_ptr<wamp::Connection> connection,
                                        const std::vector<std::string>& topics = {});
    /// Takes an endpoint opened by a transport as an extra endpoint (a device source) that
    /// serves `topics`. Returns the endpoint.
    wamp::Client& adopt_device_endpoint(std::unique_ptr<wamp::Client> endpoint,
                                        std::unique_ptr<wamp::Connection> connection,
                                        const std::vector<std::string>& topics);
    /// A transport's report that `endpoint`'s session opened or was lost; only the current
    /// server endpoint speaks for `server_connected`.
    void set_endpoint_connected(const wamp::Client* endpoint, bool connected);

  private:
    void check_connected() const;
    void log_binding_error(const std::string& text) const;
};

template <class T, class... Args>
void QorClient::call(const std::function<void(wamp::RpcResult<T>)>& cb,
                     const std::string& procedure, const Args&... args) {
    check_connected();
    std::function<void(const wamp::RpcResult<T>&)> on_result =
        [cb](const wamp::RpcResult<T>& result) {
            // The result is the pending call's own, discarded once this returns: it moves on
            // to `cb`, so a large decoded value (millions of strings) is never held twice.
            cb(std::move(const_cast<wamp::RpcResult<T>&>(result)));
        };
    if constexpr (sizeof...(Args) == 1 &&
                  (std::is_same_v<Args, serialization::msgpack::buffer> && ...)) {
        // A binary argument (a scene of megabytes) goes from the caller's block into the frame.
        const serialization::msgpack::buffer& value = (args, ...);
        server_endpoint->caller.call_binary(procedure, value.data, value.size,
                                            std::move(on_result));
    } else {
        wamp::RPC<T> rpc(procedure, args...);
        rpc.onResult = std::move(on_result);
        server_endpoint->caller.call(std::move(rpc));
    }
}

template <class T>
uint64_t QorClient::bind_publish(const std::string& topic, const std::function<void(T)>& handler,
                                 const std::function<void(bool, std::string)>& on_subscribed) {
    check_connected();
    std::function<void(bool, std::string)> status = [on_subscribed](bool ok, std::string text) {
        if (on_subscribed) on_subscribed(ok, text);
    };
    return server_endpoint->subscriber.subscribe<T>(topic, handler, status);
}

template <class T>
uint64_t QorClient::bind_device(const std::string& topic,
                                const std::function<void(const T&)>& handler) {
    const uint64_t binding = next_binding_id++;
    auto binder = [this, topic, handler, binding](wamp::Client* endpoint) {
        std::function<void(bool, std::string)> status = [this](bool ok, std::string text) {
            if (!ok) log_binding_error(text);
        };
        const uint64_t id = endpoint->subscriber.subscribe<const T&>(topic, handler, status);
        device_bindings[binding] = std::make_pair(endpoint, id);
    };
    auto served = topic_endpoints.find(topic);
    if (served != topic_endpoints.end()) {
        binder(served->second);
    } else {
        pending_device_bindings[topic] = binder;
    }
    return binding;
}

}  // namespace qor
