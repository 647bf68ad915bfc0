#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <dax/types.hpp>

#include "support/testing.hpp"

using namespace qor::wamp;
using qor::wamp::testing::LoopbackConnection;
using namespace test_support;
namespace mp = qor::serialization::msgpack;
namespace types = dax::types;

namespace {

const std::string update_topic = "qor.server.update";

using Status = std::vector<std::pair<bool, std::string>>;

std::function<void(bool, std::string)> into(Status& status) {
    return [&status](bool ok, std::string text) { status.emplace_back(ok, std::move(text)); };
}

std::function<void(types::integration_result_t)> count_into(std::vector<int>& values) {
    return [&values](types::integration_result_t r) { values.push_back(r.value_int); };
}

/// Binds a handler of the update topic that appends each value to `values`.
uint64_t bind_values(qor::QorClient& peer, std::vector<int>& values,
                     std::function<void(bool, std::string)> status = {}) {
    return peer.bind_publish<types::integration_result_t>(update_topic, count_into(values),
                                                          std::move(status));
}

types::integration_result_t step(int value) {
    types::integration_result_t r;
    r.value_int = value;
    return r;
}

std::vector<Message> subscribes(const LoopbackConnection& link) {
    std::vector<Message> out;
    for (const Message& m : link.written)
        if (m.type == SUBSCRIBE) out.push_back(m);
    return out;
}

}  // namespace

TEST(WampSubscribe, OneSubscribePerTopicWithTheHandlerIdAsRequest) {
    LoopbackPeer p;
    std::vector<int> values;
    const uint64_t first = bind_values(p.peer, values);
    const uint64_t second = bind_values(p.peer, values);
    EXPECT_GT(second, first);
    const std::vector<Message> sent = subscribes(p.link);
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_LT(first, 128u);  // one byte in the expected SUBSCRIBE
    EXPECT_EQ(
        bytes_of(p.link.written_bytes.back()),
        with(hex("94 20") + std::vector<uint8_t>{uint8_t(first)} + hex("80 B1"), update_topic));
}

TEST(WampSubscribe, AnswerReachesPendingHandlersOnceAndLateJoinersAtOnce) {
    for (const bool confirmed : {true, false}) {
        SCOPED_TRACE(confirmed);
        LoopbackPeer p;
        Status a, b, late;
        std::vector<int> values;
        bind_values(p.peer, values, into(a));
        bind_values(p.peer, values, into(b));
        EXPECT_TRUE(a.empty() && b.empty()) << "a pending topic tells nobody yet";

        if (confirmed)
            p.link.confirm_subscription(update_topic, Id(5000));
        else
            p.link.refuse_subscription(update_topic, "wamp.error.not_authorized");
        p.pump();
        const Status told = {{confirmed, confirmed ? "" : "wamp.error.not_authorized"}};
        EXPECT_EQ(a, told);
        EXPECT_EQ(b, told);

        const size_t written = p.link.written.size();
        bind_values(p.peer, values, into(late));
        EXPECT_EQ(late, told);
        EXPECT_NO_THROW(bind_values(p.peer, values));
        EXPECT_EQ(p.link.written.size(), written) << "a known topic is not subscribed again";
        EXPECT_EQ(a.size(), 1u);
    }
}

TEST(WampSubscribe, StatusCallbackThatSubscribesAgainIsToldOnlyOnce) {
    LoopbackPeer p;
    Status outer, inner;
    std::vector<int> values;
    bind_values(p.peer, values, [&](bool ok, std::string text) {
        outer.emplace_back(ok, text);
        if (outer.size() == 1) bind_values(p.peer, values, into(inner));
    });
    p.link.confirm_subscription(update_topic, Id(9));
    p.pump();
    EXPECT_EQ(outer.size(), 1u);
    EXPECT_EQ(inner, (Status{{true, ""}}));
}

TEST(WampEvent, ReachesEveryHandlerOfTheConfirmedTopicInIdOrder) {
    LoopbackPeer p;
    std::vector<std::string> order;
    for (const char* name : {"first", "second", "third"}) {
        p.peer.bind_publish<types::integration_result_t>(
            update_topic,
            [&order, name](types::integration_result_t r) {
                order.push_back(name + std::to_string(r.value_int));
            },
            {});
    }
    p.link.confirm_subscription(update_topic, Id(77));
    p.link.publish_event(Id(77), step(4));
    p.pump();
    EXPECT_EQ(order, (std::vector<std::string>{"first4", "second4", "third4"}));
}

TEST(WampEvent, OnlyAConfirmedSubscriptionIdMatches) {
    CapturedLog log(spdlog::level::debug);
    LoopbackPeer p(log.logger.get());
    std::vector<int> values;
    bind_values(p.peer, values);
    // A pending topic still holds its placeholder id 1: an event for 1 is not its own.
    p.link.publish_event(Id(1), step(1));
    p.pump();
    EXPECT_TRUE(values.empty());
    EXPECT_NE(log.text().find("[server] dropping EVENT for unknown subscription 1"),
              std::string::npos)
        << log.text();

    p.link.confirm_subscription(update_topic, Id(2));
    p.link.publish_event(Id(3), step(3));
    p.link.publish_event(Id(2), step(2));
    p.pump();
    EXPECT_EQ(values, std::vector<int>{2});
}

TEST(WampEvent, WrongArgumentCountLeavesThroughThePumpWithoutCallingTheHandler) {
    LoopbackPeer p;
    std::vector<int> values;
    bind_values(p.peer, values);
    p.link.confirm_subscription(update_topic, Id(2));
    p.pump();

    p.link.publish_event(Id(2), step(1), step(2));
    p.link.publish_event(Id(2));
    p.link.publish_event(Id(2), 5);
    p.link.publish_event(Id(2), step(3));
    EXPECT_EQ(error_of([&] { p.pump(); }),
              "IncomingMessage::fillArgsNS : wrong number of arguments. 2 in message, 1 in tuple");
    EXPECT_EQ(error_of([&] { p.pump(); }),
              "IncomingMessage::fillArgsNS : wrong number of arguments. 0 in message, 1 in tuple");
    EXPECT_EQ(
        error_of([&] { p.pump(); }),
        "IncomingMessage::fillArgsNS : error during argument parsing 'inconsistent data while "
        "parsing array'");
    EXPECT_TRUE(values.empty());
    // The peer is still usable: the well-formed event that followed arrives.
    p.pump();
    EXPECT_EQ(values, std::vector<int>{3});
}

TEST(WampSubscribe, RefusedTopicRaisesAndLeavesItsEntriesBehind) {
    LoopbackPeer p;
    std::vector<int> values;
    EXPECT_EQ(error_of([&] {
                  p.peer.bind_publish<types::integration_result_t>("wamp.custom",
                                                                   count_into(values), {});
              }),
              "wamp topic 'wamp.custom'invalid, cannot start with 'wamp'");
    EXPECT_TRUE(p.link.written.empty());
    // Its handler and request stay behind, and are not sent again after a reconnect.
    EXPECT_EQ(p.endpoint.subscriber.handlers.size(), 1u);
    EXPECT_EQ(p.endpoint.subscriber.pending_requests.size(), 1u);
    EXPECT_NO_THROW(p.endpoint.subscriber.resubscribe());
    EXPECT_TRUE(p.link.written.empty());
}

TEST(WampSubscribe, ResubscribeSendsEveryTopicAgainAndKeepsHandlers) {
    LoopbackPeer p;
    std::vector<int> values;
    Status status;
    const uint64_t id = bind_values(p.peer, values, into(status));
    p.endpoint.subscriber.subscribe("other", [](const Message&) {}, {});
    p.link.confirm_subscription(update_topic, Id(10));
    p.link.refuse_subscription("other", "wamp.error.x");
    p.pump();
    p.link.clear_written();

    p.endpoint.subscriber.resubscribe();
    const std::vector<Message> sent = subscribes(p.link);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].topic, "other");
    EXPECT_EQ(sent[1].topic, update_topic);
    EXPECT_EQ(sent[1].request.value(), id);
    EXPECT_EQ(p.endpoint.subscriber.topics.at(update_topic).state, 0u);

    // Events for the old session's id no longer match; the new id does once confirmed.
    p.link.publish_event(Id(10), step(1));
    p.link.confirm_subscription(update_topic, Id(11));
    p.link.publish_event(Id(11), step(2));
    p.pump();
    EXPECT_EQ(values, std::vector<int>{2});
    EXPECT_EQ(status, (Status{{true, ""}, {true, ""}}));
}

TEST(WampBindDevice, WaitsForAnEndpointThenSubscribesThere) {
    CapturedLog log(spdlog::level::trace);
    LoopbackPeer p(log.logger.get());
    Client device("device", log.logger.get());
    LoopbackConnection device_link(device);
    p.peer.extra_endpoints.push_back(&device);

    std::vector<size_t> first_frames, second_frames;
    const uint64_t b1 = p.peer.bind_device<types::xsens_frame_t>(
        "xsens_frame",
        [&](const types::xsens_frame_t& f) { first_frames.push_back(f.segments.size()); });
    const uint64_t b2 = p.peer.bind_device<types::xsens_frame_t>(
        "xsens_frame",
        [&](const types::xsens_frame_t& f) { second_frames.push_back(f.segments.size()); });
    EXPECT_NE(b1, b2);
    EXPECT_TRUE(p.link.written.empty());
    EXPECT_TRUE(device_link.written.empty());

    p.peer.serve_topic("xsens_frame", &device);
    ASSERT_EQ(subscribes(device_link).size(), 1u);
    EXPECT_TRUE(p.link.written.empty());
    // Only the binder that waited last runs; it records its binding.
    EXPECT_EQ(p.peer.device_bindings.count(b2), 1u);

    device_link.confirm_subscription("xsens_frame", Id(3));
    device_link.inject(hex("95 24 03 01 80 91 91 90"));  // one frame with no segments
    p.pump();
    EXPECT_TRUE(first_frames.empty());
    EXPECT_EQ(second_frames, std::vector<size_t>{0});

    // A topic already served subscribes at once.
    const uint64_t b3 =
        p.peer.bind_device<types::art_frame_t>("xsens_frame", [](const types::art_frame_t&) {});
    EXPECT_EQ(p.peer.device_bindings.count(b3), 1u);
}

TEST(WampBindDevice, FailedSubscriptionIsLoggedThroughThePeerLogger) {
    for (const bool logged : {true, false}) {
        CapturedLog log(spdlog::level::trace);
        LoopbackPeer p(logged ? log.logger.get() : nullptr);
        p.peer.serve_topic("art_frame", &p.endpoint);
        p.peer.bind_device<types::art_frame_t>("art_frame", [](const types::art_frame_t&) {});
        p.link.refuse_subscription("art_frame", "wamp.error.no_such_topic");
        EXPECT_NO_THROW(p.pump());  // without a logger the failure is silent rather than a crash
        EXPECT_EQ(logged, log.text().find("error QorClient : error during bind_device : "
                                          "'wamp.error.no_such_topic'") != std::string::npos)
            << log.text();
    }
}

TEST(WampBindDevice, RefusedTopicRaisesWhenTheBinderRunsAndDoesNotWaitAgain) {
    LoopbackPeer p;
    p.peer.bind_device<types::art_frame_t>("wampish", [](const types::art_frame_t&) {});
    EXPECT_EQ(error_of([&] { p.peer.serve_topic("wampish", &p.endpoint); }),
              "wamp topic 'wampish'invalid, cannot start with 'wamp'");
    EXPECT_TRUE(p.peer.pending_device_bindings.empty());
    EXPECT_TRUE(p.link.written.empty());
}

TEST(WampSubscribe, RefusedBeforeTheServerIsConnected) {
    const std::string text = "qor client cannot call operations before server is connected";
    qor::QorClient bare;  // no server endpoint at all
    std::vector<int> values;
    EXPECT_EQ(error_of([&] { bind_values(bare, values); }), text);
    LoopbackPeer p;
    p.peer.server_connected = false;
    EXPECT_EQ(error_of([&] { bind_values(p.peer, values); }), text);
    EXPECT_TRUE(p.link.written.empty());
    EXPECT_TRUE(p.endpoint.subscriber.handlers.empty());
}
