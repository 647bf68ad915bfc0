// The client transports against the in-process server: opening, calls, subscriptions,
// refusals, link loss, keepalive and reconnection, over every framing the build has (the
// same cases run on Windows).

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <tuple>

#include <dax/client.hpp>

#include "harness.hpp"
#include "support/testing.hpp"

namespace {

using namespace transport_test;
using qor::router::ServerOptions;
using qor::transport::ConnectOptions;
using qor::transport::LinkEvent;
using qor::transport::LinkState;

using test_support::error_of;

struct Scheme {
    const char* name;
    bool websocket;
    bool tls;
};

std::string url_for(const Scheme& s, const qor::router::Server& server) {
    return url_of(s.name, server) + (s.websocket ? "/ws" : "");
}

class Transport : public ::testing::TestWithParam<Scheme> {
  protected:
    void SetUp() override {
        link_options.connect_timeout = 3000ms;
        if (!GetParam().tls) return;
        QOR_REQUIRE_TOOL(certificate().ok, "openssl (for a test certificate)");
        router_options.tls_certificate_file = certificate().cert;
        router_options.tls_private_key_file = certificate().key;
        link_options.tls_ca_file = certificate().cert;
    }

    ServerOptions router_options;  // what each case's router and links start from
    ConnectOptions link_options;
    std::string url(const Router& router) const { return url_for(GetParam(), router.server); }
};

TEST_P(Transport, OpensCallsSubscribesAndReceivesEvents) {
    auto options = router_options;
    std::atomic<int> cancels{0};
    options.tap = [&](const uint8_t* data, size_t size) {
        if (size > 1 && data[1] == 49) ++cancels;
    };
    Router router(options);
    qor::QorClient peer;
    auto& endpoint = qor::transport::connect(peer, url(router), link_options);
    EXPECT_TRUE(peer.server_connected);
    EXPECT_TRUE(peer.has_server);
    EXPECT_EQ(&endpoint.client(), peer.server_endpoint);
    EXPECT_EQ(LinkState::connected, endpoint.state());
    ASSERT_TRUE(router.wait([&] { return router.joins.size() == 1; }));
    EXPECT_EQ(endpoint.session_id(), router.joins[0].id);
    EXPECT_EQ(GetParam().websocket ? "websocket" : "rawsocket", router.joins[0].transport);
    EXPECT_EQ("anonymous", router.joins[0].authmethod);
    const auto& server = router.server;
    EXPECT_EQ(std::optional<bool>(true),
              nodelay_of_socket_to(GetParam().websocket ? server.websocket_port()
                                                        : server.rawsocket_port()));

    EXPECT_EQ("hello", outcome(call_and_wait<std::string>(peer, "echo", std::string("hello"))));
    EXPECT_EQ("error app.error.failed", outcome(call_and_wait<std::string>(peer, "fail")));
    // A call past its limit ends; the router takes the CANCEL and the session goes on.
    endpoint.client().caller.call_limit = 50ms;
    EXPECT_EQ("error qor.error.call_timeout",
              outcome(call_and_wait<std::string>(peer, "never")));  // left unanswered

    std::vector<std::string> events;
    std::optional<bool> subscribed;
    peer.server_endpoint->subscriber.subscribe("qor.server.update", strings_into(events),
                                               [&](bool ok, std::string) { subscribed = ok; });
    ASSERT_TRUE(pump_until(peer, [&] { return subscribed.has_value(); }));
    EXPECT_TRUE(*subscribed);
    EXPECT_EQ(1, cancels.load());  // the CANCEL came before the SUBSCRIBE
    EXPECT_EQ(1, router.publish("qor.server.update", "one"));
    EXPECT_EQ(1, router.publish("qor.server.update", "two"));
    ASSERT_TRUE(pump_until(peer, [&] { return events.size() == 2; }));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), events);

    // Once the traffic has settled, a pass with nothing to do says so.
    for (int i = 0; i < 100 && (peer.update_first() | peer.update_second()); ++i) {
    }
    EXPECT_FALSE(peer.update_first());
    EXPECT_FALSE(peer.update_second());

    endpoint.close();
    EXPECT_FALSE(peer.server_connected);
    EXPECT_EQ(LinkState::closed, endpoint.state());
    ASSERT_TRUE(router.wait([&] { return router.leaves.size() == 1; }));
    EXPECT_EQ("wamp.close.close_realm", router.leaves[0].second);
}

// Messages queued in one pass leave together in one socket write. The router answers in
// the order it receives, so answers coming back out of order, or a large message that does
// not fit one write coming back damaged, means the batching reordered or cut frames. Then large
// answers one at a time, each of other bytes, shrink and grow: each is gathered in the block
// the one before handed back when it fits, so a stale byte or size of a reused block shows.
TEST_P(Transport, BurstWithLargeMessagesArrivesInOrderAndIntact) {
    Router router(router_options);
    qor::QorClient peer;
    qor::transport::connect(peer, url(router), link_options);
    std::vector<std::string> values;
    std::function<void(qor::wamp::RpcResult<std::string>)> done =
        [&](qor::wamp::RpcResult<std::string> r) { values.push_back(r.value); };
    const size_t large_sizes[] = {3 << 20, 2 << 20, 3 << 19, 3 << 20};
    auto large = [](size_t size, size_t seed) {
        std::string text(size, '\0');
        for (size_t i = 0; i < size; ++i) text[i] = char('a' + (i * 7 + i / 251 + seed) % 26);
        return text;
    };
    std::vector<std::string> sent;
    for (size_t i = 0; i < 600; ++i) {
        sent.push_back(i == 300 ? large(large_sizes[0], 0) : std::to_string(i));
        peer.call<std::string>(done, "echo", sent.back());
    }
    ASSERT_TRUE(pump_until(
        peer, [&] { return values.size() == sent.size(); }, 10000ms));
    ASSERT_EQ(sent.size(), values.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        ASSERT_EQ(sent[i].size(), values[i].size()) << "answer " << i;
        ASSERT_TRUE(sent[i] == values[i]) << "answer " << i;
    }
    for (size_t i = 1; i < std::size(large_sizes); ++i) {
        const std::string text = large(large_sizes[i], i);
        auto echoed = call_and_wait<std::string>(peer, "echo", text);
        ASSERT_TRUE(echoed);
        ASSERT_TRUE(echoed->value == text) << "answer of " << text.size() << " bytes";
    }
}

TEST_P(Transport, AutomaticReconnectAfterServerRestart) {
    auto router = std::make_unique<Router>(router_options);
    ServerOptions again = router_options;
    again.rawsocket_port = router->server.rawsocket_port();
    again.websocket_port = router->server.websocket_port();
    qor::QorClient peer;
    auto options = link_options;
    options.reconnect.enabled = true;
    options.reconnect.initial_delay = 20ms;
    options.reconnect.max_delay = 100ms;
    options.reconnect.max_retries = 0;
    auto& endpoint = qor::transport::connect(peer, url(*router), options);
    std::vector<LinkEvent> events;
    endpoint.on_state_change([&](const LinkEvent& e) { events.push_back(e); });
    std::vector<std::string> received;
    peer.server_endpoint->subscriber.subscribe("t", strings_into(received), nullptr);
    ASSERT_TRUE(router->wait([&] { return router->subscriptions.size() == 1; }));

    router.reset();
    ASSERT_TRUE(pump_until(peer, [&] { return !peer.server_connected; }));
    // Let a few attempts fail against the closed port before the server comes back.
    ASSERT_TRUE(pump_until(peer, [&] {
        int failures = 0;
        for (const auto& e : events) failures += e.state == LinkState::disconnected ? 1 : 0;
        return failures >= 3;
    }));
    router = std::make_unique<Router>(again);
    ASSERT_TRUE(pump_until(
        peer, [&] { return peer.server_connected; }, 10000ms));
    ASSERT_TRUE(router->wait([&] { return router->subscriptions.size() == 1; }));
    router->publish("t", "back");
    ASSERT_TRUE(pump_until(peer, [&] { return received.size() == 1; }));

    ASSERT_GE(events.size(), 4u);
    EXPECT_EQ(LinkState::disconnected, events[0].state);
    EXPECT_TRUE(events[0].will_retry);
    EXPECT_EQ(0, events[0].attempt);
    EXPECT_EQ(LinkState::connected, events.back().state);
    int max_attempt = 0;
    for (const auto& e : events) {
        max_attempt = std::max(max_attempt, e.attempt);
        if (e.state == LinkState::disconnected) {
            EXPECT_TRUE(e.will_retry);
            EXPECT_LE(e.delay, 120ms);  // max_delay plus jitter
        }
    }
    EXPECT_GE(max_attempt, 2);
}

TEST_P(Transport, SilentPeerIsFoundByTheKeepalive) {
    Router router(router_options);
    qor::QorClient peer;
    auto options = link_options;
    options.keepalive_interval = 30ms;
    options.keepalive_timeout = 1000ms;
    auto& endpoint = qor::transport::connect(peer, url(router), options);
    // Answered pings keep an idle link up.
    pump_until(
        peer, [] { return false; }, 300ms);
    EXPECT_TRUE(peer.server_connected);
    router.server.set_silent(true);
    ASSERT_TRUE(pump_until(peer, [&] { return !peer.server_connected; }));
    EXPECT_EQ("keepalive: no answer within 1000 ms", endpoint.last_error());
}

// RawSocket announces each side's limit in its handshake: the side that knows answers over-
// sized traffic with an error and the session goes on. WebSocket announces none: the side
// that receives it ends the link.
TEST_P(Transport, MessagesOverALimit) {
    const bool ends = GetParam().websocket;
    {  // incoming
        Router router(router_options);
        qor::QorClient peer;
        auto options = link_options;
        options.max_message_size = 64 * 1024;
        auto& endpoint = qor::transport::connect(peer, url(router), options);
        auto got = call_and_wait<msgpack::buffer>(peer, "big", 1000LL);
        ASSERT_TRUE(got);
        EXPECT_FALSE(got->isError);
        EXPECT_EQ(1000u, got->value.size);
        got = call_and_wait<msgpack::buffer>(peer, "big", 200000LL);
        ASSERT_TRUE(got);
        EXPECT_TRUE(got->isError);
        EXPECT_EQ(ends ? "qor.error.connection_lost" : "wamp.error.payload_size_exceeded",
                  got->error);
        EXPECT_EQ(!ends, peer.server_connected);
        EXPECT_EQ(ends, !endpoint.last_error().empty());
    }
    {  // outgoing
        auto options = router_options;
        options.max_message_size = 1024;
        Router router(options);
        qor::QorClient peer;
        auto& endpoint = qor::transport::connect(peer, url(router), link_options);
        std::function<void(qor::wamp::RpcResult<std::string>)> ignore =
            [](qor::wamp::RpcResult<std::string>) {};
        const std::string error =
            error_of([&] { peer.call<std::string>(ignore, "echo", std::string(4000, 'x')); });
        if (ends) {
            EXPECT_EQ("", error);
            ASSERT_TRUE(pump_until(peer, [&] { return !peer.server_connected; }));
            EXPECT_FALSE(endpoint.last_error().empty());
        } else {
            EXPECT_EQ("rawsocket: message larger than the peer accepts", error);
            EXPECT_TRUE(peer.server_connected);
        }
    }
}

TEST_P(Transport, MalformedMessageInAnOpenSessionIsAbortedWithTheReason) {
    const std::pair<const char*, std::vector<uint8_t>> rows[] = {
        {"not MessagePack", {0xC1, 0xC1}},
        {"unknown code", {0x92, 0x07, 0x80}},
        {"HELLO again", {0x93, 0x01, 0xA1, 0x72, 0x80}},
    };
    Router router(router_options);
    for (const auto& [what, bytes] : rows) {
        SCOPED_TRACE(what);
        qor::QorClient peer;
        auto& endpoint = qor::transport::connect(peer, url(router), link_options);
        ASSERT_TRUE(peer.server_connected);
        endpoint.client().session.write(bytes.data(), bytes.size());
        ASSERT_TRUE(pump_until(peer, [&] { return !peer.server_connected; }));
        EXPECT_EQ("aborted by the server: wamp.error.protocol_violation", endpoint.last_error());
    }
}

const Scheme schemes[] = {{"rs", false, false},
                          {"ws", true, false},
#if QOR_HAVE_TLS
                          {"rss", false, true},
                          {"wss", true, true}
#endif
};
// The opt-in wait sleeps in the OS; bounds below are generous on purpose: they tell a wait
// that woke from one that ran out its whole time-out, not how fast it woke.
TEST_P(Transport, WaitWakesOnAnEventAndOnTheEndOfTheLinkOtherwiseAtItsTimeOut) {
    auto router = std::make_unique<Router>(router_options);
    qor::QorClient peer;
    qor::transport::connect(peer, url(*router), link_options);
    std::vector<std::string> events;
    std::optional<bool> subscribed;
    peer.server_endpoint->subscriber.subscribe("qor.server.update", strings_into(events),
                                               [&](bool ok, std::string) { subscribed = ok; });
    ASSERT_TRUE(pump_until(peer, [&] { return subscribed.has_value(); }));
    for (int i = 0; i < 100 && (peer.update_first() | peer.update_second()); ++i) {
    }
    using Clock = std::chrono::steady_clock;

    auto started = Clock::now();
    EXPECT_FALSE(peer.wait(100ms));
    EXPECT_GE(Clock::now() - started, 100ms);

    std::thread publisher([&] {
        std::this_thread::sleep_for(50ms);
        router->publish("qor.server.update", "late");
    });
    started = Clock::now();
    EXPECT_TRUE(peer.wait(60s));
    EXPECT_LT(Clock::now() - started, 30s);
    publisher.join();
    EXPECT_TRUE(events.empty()) << "the wait itself dispatches nothing";
    peer.update_first();
    EXPECT_EQ(std::vector<std::string>{"late"}, events);

    std::thread stopper([&] {
        std::this_thread::sleep_for(50ms);
        router->server.stop();
    });
    started = Clock::now();
    EXPECT_TRUE(peer.wait(60s));
    EXPECT_LT(Clock::now() - started, 30s);
    stopper.join();
    peer.update_first();
    EXPECT_FALSE(peer.server_connected);

    // No link left to sleep on and no reconnection due: the time-out ends the wait.
    started = Clock::now();
    EXPECT_FALSE(peer.wait(100ms));
    EXPECT_GE(Clock::now() - started, 100ms);
}

// The blocking operations get the same values, errors and time-outs with either wait, against a
// server whose answers take a while; a server stopped under a waiting call fails it at once.
TEST_P(Transport, BlockingOperationsGetTheSameOutcomesWithEitherWait) {
    using dax::client::WaitStrategy;
    for (const WaitStrategy strategy : {WaitStrategy::spin, WaitStrategy::sleep}) {
        SCOPED_TRACE(strategy == WaitStrategy::spin ? "spin" : "sleep");
        Router router(
            router_options,
            [](uint64_t, const qor::wamp::Message& m) -> std::optional<qor::router::Answer> {
                std::this_thread::sleep_for(100ms);
                if (m.procedure == "qor.server.operation.CLEAR_SCENE")
                    return qor::router::Answer::result(test_support::encoded(7));
                if (m.procedure == "qor.server.operation.DUMP")
                    return qor::router::Answer::failure("app.error.refused");
                return std::nullopt;
            },
            qor::router::BrokerOptions{});  // on the worker: the I/O thread stays free
        qor::QorClient peer;
        auto& endpoint = qor::transport::connect(peer, url(router), link_options);
        std::vector<LinkEvent> events;
        endpoint.on_state_change([&](const LinkEvent& e) { events.push_back(e); });
        dax::client::DaxClient client(&peer);
        client.setWaitStrategy(strategy);
        client.setTimeoutMs(10000);

        auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(7, client.CLEAR_SCENE());
        // Woken by the answer, not by its 10 s time-out.
        EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
        EXPECT_EQ("app.error.refused", error_of([&] { client.DUMP(); }));
        client.setTimeoutMs(300);
        started = std::chrono::steady_clock::now();
        EXPECT_EQ("DaxClient: timeout during 'PAUSE_SIMULATION' call",
                  error_of([&] { client.PAUSE_SIMULATION(); }));
        EXPECT_GE(std::chrono::steady_clock::now() - started, 300ms);
        // Answers still flow afterwards: the late calls left nothing behind in the link.
        client.setTimeoutMs(60000);
        EXPECT_EQ(7, client.CLEAR_SCENE());

        // The fifth CALL, left unanswered, seen: the server goes away under the waiting caller.
        std::thread killer([&] {
            if (router.wait([&] { return router.calls.size() == 5; })) router.server.stop();
        });
        started = std::chrono::steady_clock::now();
        EXPECT_EQ("qor.error.connection_lost", error_of([&] { client.PAUSE_SIMULATION(); }));
        const auto waited = std::chrono::steady_clock::now() - started;
        killer.join();
        // Far below its own time-out: the loss completed it, not the clock.
        EXPECT_LT(waited, 30s);
        EXPECT_FALSE(peer.server_connected);
        EXPECT_EQ(LinkState::disconnected, endpoint.state());
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(LinkState::disconnected, events.back().state);
        EXPECT_FALSE(events.back().will_retry);
        EXPECT_FALSE(endpoint.last_error().empty());
        // The call that timed out is still pending when the loss fails the waiting one, whose
        // handler throws; the next pass fails what that left behind.
        EXPECT_TRUE(pump_until(peer, [&] { return peer.server_endpoint->caller.pending.empty(); }));
    }
}

INSTANTIATE_TEST_SUITE_P(Schemes, Transport, ::testing::ValuesIn(schemes),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(Transport, ConnectionsOverTheLimitAreRefusedAndClosedOnesLeaveNothingBehind) {
    ServerOptions options = router_options;
    options.max_connections = 2;
    Router router(options);
    const int rounds = 4;
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::unique_ptr<qor::QorClient>> peers;
        int subscribed = 0;
        for (int i = 0; i < 2; ++i) {
            peers.push_back(std::make_unique<qor::QorClient>());
            auto& link = qor::transport::connect(*peers.back(), url(router), link_options);
            // Each session subscribes to a topic of its own, which must go when it goes.
            link.client().subscriber.subscribe(
                "t." + std::to_string(round) + "." + std::to_string(i),
                [](const qor::wamp::Message&) {}, [&](bool, std::string) { ++subscribed; });
            ASSERT_TRUE(pump_until(*peers.back(), [&] { return subscribed == i + 1; }));
        }
        EXPECT_EQ(router.broker.topics(), 2u);
        qor::QorClient extra;
        const std::string refused =
            error_of([&] { qor::transport::connect(extra, url(router), link_options); });
        EXPECT_NE(refused.find(GetParam().websocket
                                   ? "bad handshake: HTTP 503 instead of a WebSocket upgrade"
                                   : "handshake refused: maximum connection count reached"),
                  std::string::npos)
            << refused;
        peers.clear();
        ASSERT_TRUE(poll_until([&] { return router.server.connections() == 0; }))
            << router.server.connections() << " connections left after round " << round;
    }
    EXPECT_TRUE(router.server.sessions().empty());
    EXPECT_EQ(router.broker.topics(), 0u);
    ASSERT_TRUE(router.wait([&] { return router.leaves.size() == size_t(2 * rounds); }));
    EXPECT_EQ(router.joins.size(), size_t(2 * rounds));
}

// One peer per way an opening can fail, from the port to the WELCOME; the framing's and the
// opening's own tables pin every byte, these pin that each failure reaches the caller whole.
TEST(ConnectFailures, EachStepNamesUrlAndCause) {
    enum class Peer { none, mute, scripted };  // nobody listening, never accepts, scripted
    // The scheme, the peer, a scripted peer's answers (hex) to the handshake and to the HELLO, the
    // cause, and whether it is the whole text rather than its start.
    const std::tuple<const char*, Peer, const char*, const char*, const char*, bool> rows[] = {
        {"rs", Peer::none, "", "", "connection refused", true},
        {"rs", Peer::mute, "", "", "timed out after 1000 ms", true},
        {"ws", Peer::mute, "", "", "timed out after 1000 ms", true},
        {"rs", Peer::scripted, "", "", "timed out after 1000 ms", true},  // no reply at all
        {"rs", Peer::scripted, "7F F1 00 00", "", "handshake refused: unsupported serializer 1",
         true},
        {"rs", Peer::scripted, "48 54 54 50", "",
         "bad handshake: rawsocket: bad handshake magic byte", true},
        {"rs", Peer::scripted, "7F F2 00 00", "00 FF FF FF", "rawsocket: frame too large", false},
        {"rs", Peer::scripted, "7F F2 00 00", "00 00 00 03 92 06 80", "protocol error: ", false},
    };
    for (const auto& [scheme, kind, handshake, after_hello, cause, whole] : rows) {
        std::optional<RawPeer> listening(std::in_place);
        const uint16_t port = listening->port;
        if (kind == Peer::none) listening.reset();  // a port that was just free
        if (kind == Peer::scripted)
            listening->script(4, test_support::hex(handshake), test_support::hex(after_hello));
        ConnectOptions options;
        options.connect_timeout = 1000ms;
        options.max_message_size = 64 * 1024;
        const std::string url = std::string(scheme) + "://127.0.0.1:" + std::to_string(port);
        qor::QorClient peer;
        const std::string error = error_of([&] { qor::transport::connect(peer, url, options); });
        const std::string expected = "cannot connect to '" + url + "': " + cause;
        if (whole)
            EXPECT_EQ(expected, error);
        else
            EXPECT_EQ(0u, error.find(expected)) << error;
        EXPECT_FALSE(peer.has_server) << cause;
        EXPECT_TRUE(peer.owned_connections.empty()) << cause;
    }
}

#if QOR_HAVE_TLS
TEST(ConnectFailures, UntrustedCertificateAndPlainServer) {
    QOR_REQUIRE_TOOL(certificate().ok, "openssl (for a test certificate)");
    ServerOptions so;
    so.tls_certificate_file = certificate().cert;
    so.tls_private_key_file = certificate().key;
    Router router(so);
    qor::QorClient peer;
    const std::string url = url_of("wss", router.server);
    // The self-signed certificate is not trusted by the system store.
    const std::string error = error_of([&] { qor::transport::connect(peer, url); });
    EXPECT_EQ(0u, error.find("cannot connect to '" + url + "': TLS error: ")) << error;
    // Without verification it opens.
    ConnectOptions lax;
    lax.tls_verify = false;
    qor::transport::connect(peer, url, lax);
    EXPECT_TRUE(peer.server_connected);
    // A TLS client against a plain server fails in the TLS handshake.
    Router plain;
    const std::string mixed = url_of("rss", plain.server);
    qor::QorClient other;
    const std::string mixed_error = error_of([&] { qor::transport::connect(other, mixed, lax); });
    EXPECT_EQ(0u, mixed_error.find("cannot connect to '" + mixed + "': TLS")) << mixed_error;
}
#endif

TEST(ConnectFailures, GarbageAfterWelcomeIsALinkLoss) {
    // WELCOME [2, 1, {}] then a frame whose payload is no WAMP message.
    RawPeer peer_socket;
    peer_socket.script(4, {0x7F, 0xF2, 0, 0},
                       {0, 0, 0, 4, 0x93, 0x02, 0x01, 0x80, 0, 0, 0, 2, 0xA1, 0x41});
    qor::QorClient peer;
    auto& endpoint =
        qor::transport::connect(peer, "rs://127.0.0.1:" + std::to_string(peer_socket.port));
    EXPECT_EQ(1u, endpoint.session_id());
    ASSERT_TRUE(pump_until(peer, [&] { return !peer.server_connected; }));
    EXPECT_EQ(0u, endpoint.last_error().find("protocol error: ")) << endpoint.last_error();
}

// Topics the server relays are declared on connect, a device source serves its own, and a
// GOODBYE from the server ends only the session it names.
TEST(Server, DeviceTopicsFindTheirEndpointAndGoodbyeEndsOneSession) {
    Router router;
    qor::QorClient peer;
    std::vector<std::string> frames;
    for (const char* topic : {"xsens_frame", "kinect_frame_0"})
        peer.pending_device_bindings[topic] = [&frames, topic](qor::wamp::Client* c) {
            c->subscriber.subscribe(topic, strings_into(frames), nullptr);
        };
    ConnectOptions options;
    options.served_topics = {"xsens_frame", "art_frame"};
    auto& server_link = qor::transport::connect(peer, url_of("ws", router.server), options);
    EXPECT_EQ(&server_link.client(), peer.topic_endpoints["xsens_frame"]);
    EXPECT_EQ(&server_link.client(), peer.topic_endpoints["art_frame"]);
    EXPECT_TRUE(peer.extra_endpoints.empty());
    auto& device = qor::transport::connect_device_source(peer, url_of("rs", router.server),
                                                         {"kinect_frame_0"});
    ASSERT_EQ(1u, peer.extra_endpoints.size());
    EXPECT_EQ(&device.client(), peer.extra_endpoints[0]);
    EXPECT_EQ(&device.client(), peer.topic_endpoints["kinect_frame_0"]);
    EXPECT_TRUE(peer.pending_device_bindings.empty());
    ASSERT_TRUE(router.wait([&] { return router.subscriptions.size() == 2; }));
    for (const auto& subscription : router.subscriptions)
        EXPECT_EQ(
            subscription.topic == "kinect_frame_0" ? device.session_id() : server_link.session_id(),
            subscription.session);
    router.publish("xsens_frame", "segments");
    router.publish("kinect_frame_0", "frame");
    ASSERT_TRUE(pump_until(peer, [&] { return frames.size() == 2; }));
    std::sort(frames.begin(), frames.end());
    EXPECT_EQ((std::vector<std::string>{"frame", "segments"}), frames);

    router.server.close(server_link.session_id(), "wamp.close.system_shutdown");
    ASSERT_TRUE(pump_until(peer, [&] { return !peer.server_connected; }));
    EXPECT_EQ("closed by the server: wamp.close.system_shutdown", server_link.last_error());
    EXPECT_TRUE(device.connected());
    ASSERT_TRUE(router.wait([&] { return router.leaves.size() == 1; }));
    EXPECT_EQ("wamp.close.system_shutdown", router.leaves[0].second);
}

TEST(Server, SubscriberThatStopsReadingIsDroppedWithTheReason) {
    ServerOptions options;
    options.max_send_queue = 4u << 20;
    Router router(options);
    qor::QorClient peer;
    auto& link = qor::transport::connect(peer, url_of("rs", router.server));
    int events = 0;
    link.client().subscriber.subscribe(
        "slow", [&](const qor::wamp::Message&) { ++events; }, nullptr);
    ASSERT_TRUE(pump_until(peer, [&] { return router.subscriptions.size() == 1; }));
    // The client stops pumping, so nothing reads its socket while 64 MiB are published.
    const std::string frame(1u << 20, 'x');
    for (int i = 0; i < 64 && router.publish("slow", frame) == 1; ++i) {
    }
    ASSERT_TRUE(router.wait([&] { return router.leaves.size() == 1; }));
    EXPECT_EQ(0u, router.leaves[0].second.find("dropped: the peer does not read ("))
        << router.leaves[0].second;
    ASSERT_TRUE(pump_until(peer, [&] { return !peer.server_connected; }));
    EXPECT_LT(events, 64);
}

TEST(Server, OversizedHelloIsRefusedByItsHeader) {
    // HELLO ["realm1", {"pad": <100 000 bytes>}] after the handshake, whole or only its start:
    // the header alone is enough to refuse it, before the router buffers what it announces.
    std::vector<uint8_t> hello = test_support::hex("93 01 A6 'realm1' 81 A3 'pad' C6 00 01 86 A0");
    const size_t start = hello.size();
    hello.resize(start + 100000, 0);
    // The length announced, and the bytes of the HELLO sent.
    const std::pair<uint32_t, size_t> cases[] = {{uint32_t(hello.size()), hello.size()},
                                                 {0xFFFFFF, start}};
    Router router;
    for (const auto& [announced, sent] : cases) {
        SCOPED_TRACE(announced);
        RawConnection connection(router.server.rawsocket_port());
        ASSERT_TRUE(connection.connected);
        std::vector<uint8_t> out = {0x7F, 0xF2, 0, 0};
        qor::transport::rawsocket::append_header(out, qor::transport::rawsocket::FrameType::message,
                                                 announced);
        out.insert(out.end(), hello.begin(), hello.begin() + long(sent));
        ASSERT_TRUE(connection.send(out));
        // The handshake answer, then one frame: the ABORT, then the end of the stream.
        bool closed = false;
        const std::vector<uint8_t> in = connection.read_to_end(closed);
        EXPECT_TRUE(closed);
        ASSERT_GT(in.size(), 8u);
        qor::transport::rawsocket::Splitter frames(1u << 20);
        frames.feed(in.data() + 4, in.size() - 4);
        qor::transport::rawsocket::Frame frame;
        ASSERT_TRUE(frames.next(frame));
        const qor::wamp::Message abort =
            qor::wamp::parse_message(msgpack::buffer(frame.data, frame.size));
        EXPECT_EQ(qor::wamp::ABORT, abort.type);
        EXPECT_EQ("wamp.error.protocol_violation", abort.reason);
        EXPECT_EQ("a message of " + std::to_string(announced) +
                      " bytes before WELCOME; at most 65536 are accepted",
                  text_of(abort.details.at("message")));
    }
    EXPECT_TRUE(router.joins.empty());
}

// The link gives up (a loss it will not retry) when the retries run out or the server refuses
// the login, and nothing more happens by itself afterwards.
TEST(ReconnectPolicy, GivesUpAfterMaxRetriesOrARefusedLoginAndStaysDown) {
    for (const bool refused : {false, true}) {
        SCOPED_TRACE(refused ? "refused login" : "max retries");
        ServerOptions so;
        so.credentials = {qor::router::Credential{}};
        so.credentials[0].authid = "alice";
        so.credentials[0].ticket = "first";
        auto router = std::make_unique<Router>(so);
        so.rawsocket_port = router->server.rawsocket_port();
        ConnectOptions options;
        options.authid = "alice";
        options.authmethods = {"ticket"};
        options.ticket = "first";
        options.reconnect.enabled = true;
        options.reconnect.initial_delay = 10ms;
        options.reconnect.jitter = 0;
        options.reconnect.max_retries = refused ? 0 : 2;  // 0: no limit, only the refusal stops it
        qor::QorClient peer;
        auto& link = qor::transport::connect(peer, url_of("rs", router->server), options);
        std::vector<LinkEvent> events;
        link.on_state_change([&](const LinkEvent& e) { events.push_back(e); });

        router.reset();
        if (refused) {  // the server comes back with another ticket
            so.credentials[0].ticket = "second";
            router = std::make_unique<Router>(so);
        }
        ASSERT_TRUE(pump_until(peer, [&] {
            return !events.empty() && events.back().state == LinkState::disconnected &&
                   !events.back().will_retry;
        }));
        if (refused) {
            EXPECT_EQ(
                "session refused: wamp.error.authentication_failed (wrong ticket secret for "
                "'alice')",
                events.back().reason);
        } else {  // nobody listening: the loss and two failed attempts, the last without a retry
            std::vector<std::pair<int, bool>> seen;  // (attempt, will_retry) of each loss
            for (const auto& e : events)
                if (e.state == LinkState::disconnected) seen.emplace_back(e.attempt, e.will_retry);
            EXPECT_EQ((std::vector<std::pair<int, bool>>{{0, true}, {1, true}, {2, false}}), seen);
            EXPECT_EQ(10ms, events.front().delay);  // no jitter: the initial delay exactly
            EXPECT_EQ(20ms, events[2].delay);       // then times the growth
        }
        events.clear();
        pump_until(
            peer, [] { return false; }, 100ms);
        EXPECT_TRUE(events.empty());
        EXPECT_FALSE(peer.server_connected);
        EXPECT_EQ(LinkState::disconnected, link.state());
    }
}

}  // namespace
