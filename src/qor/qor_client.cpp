#include <qor/qor_client.hpp>

#include <algorithm>
#include <chrono>
#include <vector>

#include <spdlog/logger.h>

namespace qor {

namespace {

// Every visited endpoint runs, whatever the earlier ones returned: one busy endpoint must not
// starve the others.
bool run_pass(QorClient& peer, bool (wamp::Connection::*pass)()) {
    auto visit = [pass](wamp::Client* endpoint) {
        // An endpoint whose transport has not attached yet has nothing to do.
        return endpoint != nullptr && endpoint->connection != nullptr &&
               (endpoint->connection->*pass)();
    };
    bool result = visit(peer.first_endpoint);
    if (peer.has_server && visit(peer.server_endpoint)) result = true;
    for (wamp::Client* endpoint : peer.extra_endpoints) {
        if (visit(endpoint)) result = true;
    }
    return result;
}

}  // namespace

bool QorClient::update_first() {
    // Calls past their opt-in limit complete first, inside the pass like any answer.
    const auto now = std::chrono::steady_clock::now();
    bool expired = first_endpoint != nullptr && first_endpoint->caller.expire(now);
    if (has_server && server_endpoint != nullptr && server_endpoint->caller.expire(now))
        expired = true;
    for (wamp::Client* endpoint : extra_endpoints) {
        if (endpoint->caller.expire(now)) expired = true;
    }
    const bool worked = run_pass(*this, &wamp::Connection::update_first);
    return worked || expired;
}

bool QorClient::update_second() {
    return run_pass(*this, &wamp::Connection::update_second);
}

bool QorClient::wait(std::chrono::nanoseconds timeout) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point until = Clock::now() + std::chrono::duration_cast<Clock::duration>(timeout);
    const Clock::time_point limit = until;
    std::vector<wamp::Connection*> links;
    auto watch = [&](wamp::Client* endpoint) {
        if (endpoint == nullptr) return;
        for (const auto& [request, deadline] : endpoint->caller.deadlines)
            until = std::min(until, deadline);
        if (endpoint->connection != nullptr) links.push_back(endpoint->connection);
    };
    watch(first_endpoint);
    if (has_server) watch(server_endpoint);
    for (wamp::Client* endpoint : extra_endpoints) watch(endpoint);
    if (links.empty()) return false;
    if (links.size() == 1) return links.front()->wait(until - Clock::now()) || until < limit;
    // Each link sleeps on its own event loop, so one thread can only take them in turn.
    const auto slice = std::chrono::milliseconds(1);
    for (;;) {
        for (wamp::Connection* link : links) {
            const auto now = Clock::now();
            if (now >= until) return until < limit;
            if (link->wait(std::min<Clock::duration>(until - now, slice))) return true;
        }
    }
}

void QorClient::check_connected() const {
    if (!server_connected || server_endpoint == nullptr) {
        throw std::runtime_error("qor client cannot call operations before server is connected");
    }
}

void QorClient::log_binding_error(const std::string& text) const {
    if (logger != nullptr) logger->error("QorClient : error during bind_device : '{}'", text);
}

void QorClient::serve_topic(const std::string& topic, wamp::Client* endpoint) {
    topic_endpoints[topic] = endpoint;
    auto waiting = pending_device_bindings.find(topic);
    if (waiting == pending_device_bindings.end()) return;
    // Forgotten before it runs: a binder that throws (a refused topic) must not run twice.
    auto binder = std::move(waiting->second);
    pending_device_bindings.erase(waiting);
    binder(endpoint);
}

wamp::Client& QorClient::adopt_server_endpoint(std::unique_ptr<wamp::Client> endpoint,
                                               std::unique_ptr<wamp::Connection> connection,
                                               const std::vector<std::string>& topics) {
    wamp::Client& client = *endpoint;
    owned_endpoints.push_back(std::move(endpoint));
    owned_connections.push_back(std::move(connection));
    server_endpoint = &client;
    has_server = true;
    server_connected = true;
    for (const auto& topic : topics) serve_topic(topic, &client);
    return client;
}

wamp::Client& QorClient::adopt_device_endpoint(std::unique_ptr<wamp::Client> endpoint,
                                               std::unique_ptr<wamp::Connection> connection,
                                               const std::vector<std::string>& topics) {
    wamp::Client& client = *endpoint;
    owned_endpoints.push_back(std::move(endpoint));
    owned_connections.push_back(std::move(connection));
    extra_endpoints.push_back(&client);
    for (const auto& topic : topics) serve_topic(topic, &client);
    return client;
}

void QorClient::set_endpoint_connected(const wamp::Client* endpoint, bool connected) {
    if (endpoint != nullptr && server_endpoint == endpoint) server_connected = connected;
}

}  // namespace qor
