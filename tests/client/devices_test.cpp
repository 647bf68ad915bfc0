// Device frame streams: subscriptions made at construction, frames kept per stream.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/testing.hpp"

namespace client_test {
namespace {

using namespace test_support;

using ::testing::ElementsAre;
namespace types = dax::types;

/// A client whose peer already knows that the loopback endpoint serves every device topic,
/// so construction subscribes each one at once.
class DevicesTest : public ::testing::Test {
  protected:
    LoopbackPeer net;
    std::unique_ptr<dax::client::DaxClient> client;

    void SetUp() override {
        for (const std::string& topic : types::device_topics())
            net.peer.topic_endpoints[topic] = &net.endpoint;
        client = std::make_unique<dax::client::DaxClient>(&net.peer);
    }

    /// Confirms `topic`'s subscription and publishes `frame` on it, then pumps.
    template <class Frame>
    void publish(const std::string& topic, const Frame& frame) {
        auto found = subscriptions.find(topic);
        if (found == subscriptions.end()) {
            const qor::wamp::Id id(1000 + subscriptions.size());
            found = subscriptions.emplace(topic, id).first;
            net.link.confirm_subscription(topic, id);
            client->full_update();
        }
        net.link.publish_event(found->second, frame);
        client->full_update();
    }

    std::map<std::string, qor::wamp::Id> subscriptions;
};

TEST_F(DevicesTest, ConstructionSubscribesEveryTopicOnceInFamilyOrder) {
    std::vector<std::string> expected{"art_frame"};
    for (int i = 0; i < 10; ++i) expected.push_back("leap_frame_" + std::to_string(i));
    expected.insert(expected.end(), {"optitrack_frame", "xsens_frame"});
    for (int i = 0; i < 5; ++i) expected.push_back("kinect_frame_" + std::to_string(i));
    for (int i = 0; i < 10; ++i) expected.push_back("openvr_frame_" + std::to_string(i));
    expected.push_back("moticon_frame");
    std::vector<std::string> subscribed;
    for (const qor::wamp::Message& m : net.link.written)
        if (m.type == qor::wamp::SUBSCRIBE) subscribed.push_back(m.topic);
    EXPECT_EQ(subscribed, expected);
    // What a user passes to ConnectOptions::served_topics is the same list.
    EXPECT_EQ(types::device_topics(), subscribed);
}

TEST_F(DevicesTest, NumberedStreamsKeepTheirOwnFrames) {
    publish("leap_frame_3", types::leap_frame_t{33, {}});
    EXPECT_THAT(client->get_leap_ids(), ElementsAre(3));
    EXPECT_TRUE(client->is_leap_available(3));
    EXPECT_FALSE(client->is_leap_available(2));
    types::leap_frame_t got;
    ASSERT_TRUE(client->get_leap_frame(got, 3));
    EXPECT_EQ(got.i1, 33);
    EXPECT_FALSE(client->get_leap_frame(got, 2));

    publish("kinect_frame_4", types::kinect_frame_t{4, {}});
    publish("kinect_frame_0", types::kinect_frame_t{10, {}});
    EXPECT_THAT(client->get_kinect_ids(), ElementsAre(0, 4));
    types::kinect_frame_t got_kinect;
    ASSERT_TRUE(client->get_kinect_frame(got_kinect, 4));
    EXPECT_EQ(got_kinect.i1, 4);
    ASSERT_TRUE(client->get_kinect_frame(got_kinect, 0));
    EXPECT_EQ(got_kinect.i1, 10);

    types::openvr_frame_t vr;
    vr.ints_b.values = {1, 2, 3};
    publish("openvr_frame_9", vr);
    types::openvr_frame_t got_vr;
    ASSERT_TRUE(client->get_openvr_frame(got_vr, 9));
    EXPECT_THAT(got_vr.ints_b.values, ElementsAre(1, 2, 3));
    EXPECT_THAT(client->get_openvr_ids(), ElementsAre(9));
}

TEST_F(DevicesTest, OutOfRangeStreamIdsReadAsNoFrame) {
    for (int i = 0; i < 5; ++i)
        publish("kinect_frame_" + std::to_string(i), types::kinect_frame_t{});
    types::kinect_frame_t kinect;
    kinect.i1 = 7;
    for (int id : {-1, 5, 1000}) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(client->is_kinect_available(id));
        EXPECT_FALSE(client->get_kinect_frame(kinect, id));
        EXPECT_FALSE(client->is_leap_available(id + 5));  // 4 is in range but has no frame
        EXPECT_FALSE(client->is_openvr_available(id * 10));
    }
    EXPECT_EQ(kinect.i1, 7);
    EXPECT_EQ(client->get_kinect_ids().size(), 5u);
}

TEST_F(DevicesTest, MalformedFrameFailsThroughThePumpAndKeepsTheOldOne) {
    types::xsens_frame_t good;
    good.segments.resize(3);
    publish("xsens_frame", good);
    // Two arguments where one frame is expected.
    net.link.publish_event(subscriptions.at("xsens_frame"), types::xsens_frame_t{}, 1);
    EXPECT_THROW(client->full_update(), std::runtime_error);
    types::xsens_frame_t got;
    ASSERT_TRUE(client->get_xsens_frame(got));
    EXPECT_EQ(got.segments.size(), 3u);
}

TEST(DevicesLater, TopicsServedAfterConstructionAreBoundThen) {
    LoopbackPeer net;
    dax::client::DaxClient client(&net.peer);
    EXPECT_EQ(net.peer.pending_device_bindings.size(), 29u);
    EXPECT_TRUE(net.link.written.empty());
    net.peer.serve_topic("leap_frame_7", &net.endpoint);
    net.link.confirm_subscription("leap_frame_7", qor::wamp::Id(4));
    client.full_update();
    net.link.publish_event(qor::wamp::Id(4), types::leap_frame_t{70, {}});
    client.full_update();
    EXPECT_THAT(client.get_leap_ids(), ElementsAre(7));
}

}  // namespace
}  // namespace client_test
