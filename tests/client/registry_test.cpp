// The component registry, the client's own fields and its lifecycle around a loopback peer.

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/testing.hpp"
#include "test_components.hpp"

namespace client_test {
namespace {

using namespace test_support;

using dax::client::DaxClient;
using dax::client::IClientComponent;
using dax::client::IModuleFactory;
using ::testing::ElementsAre;

std::vector<std::string> events;  // destruction order, shared by the helpers below

/// A component that records its destruction.
class Tracked : public Body {
  public:
    Tracked(int64_t id, DaxClient* client, std::string tag)
        : Body(id, client), tag(std::move(tag)) {}
    ~Tracked() override { events.push_back("component " + std::to_string(id)); }
    std::string getType() override { return "T"; }
    std::string tag;
};

/// Makes "T" components tagged with its own name; "boom" makes it throw.
class TrackedFactory : public IModuleFactory {
  public:
    explicit TrackedFactory(std::string name) : name(std::move(name)) {}
    ~TrackedFactory() override { events.push_back("factory " + name); }
    IClientComponent* create(const std::string& type, DaxClient* client, int64_t id) override {
        if (type == "boom") throw std::runtime_error("factory failed");
        return type == "T" ? new Tracked(id, client, name) : nullptr;
    }
    std::string name;
};

class RegistryTest : public ClientTest {
  protected:
    void SetUp() override {
        ClientTest::SetUp();
        events.clear();
        // Appended after the plug-in's factories; the client owns and deletes them.
        client->factories.push_back(new TrackedFactory("first"));
        client->factories.push_back(new TrackedFactory("second"));
    }
    std::string tag_of(int64_t id) { return static_cast<Tracked*>(client->getComponent(id))->tag; }
};

TEST_F(RegistryTest, FirstRegisteredFactoryThatMakesTheTypeWins) {
    IClientComponent* made = client->Create("T");
    EXPECT_EQ(made->getType(), "T");
    EXPECT_EQ(tag_of(0), "first");
    EXPECT_EQ(client->Create("Counter")->getType(), "Counter");  // the plug-in's factory
}

TEST_F(RegistryTest, AutomaticIdsCountUpAndResetStartsAgain) {
    for (int64_t id : {0, 1, 2}) EXPECT_EQ(client->Create("T")->getId(), id);
    EXPECT_EQ(client->components.size(), 3u);
    client->Reset();
    EXPECT_TRUE(client->components.empty());
    EXPECT_EQ(client->Create("T")->getId(), 0);
}

TEST_F(RegistryTest, UnknownTypeFailsButUsesUpItsId) {
    EXPECT_EQ(error_of([&] { client->Create("Unknown"); }),
              "Error in DaxClient::Create : type 'Unknown' not found");
    EXPECT_EQ(client->next_component_id, 1);
    EXPECT_TRUE(client->components.empty());
    EXPECT_THROW(client->Create("boom", 4, 0), std::runtime_error);
    EXPECT_EQ(client->getComponent(4), nullptr);
}

TEST_F(RegistryTest, ExplicitIdKeepsTheCounterAndOverwritesWithoutRelease) {
    IClientComponent* old = client->Create("T", 7, 3);
    EXPECT_EQ(old->getClientId(), 3);
    EXPECT_EQ(client->next_component_id, 0);
    IClientComponent* replacement = client->Create("Body", 7, -2);
    EXPECT_EQ(client->getComponent(7), replacement);
    EXPECT_EQ(replacement->getClientId(), -2);
    EXPECT_TRUE(events.empty());  // the old component was not deleted
    delete old;                   // it is ours now
    EXPECT_THAT(events, ElementsAre("component 7"));
}

TEST_F(RegistryTest, ClearDeletesInAscendingIdOrder) {
    client->Clear();  // empty: nothing happens
    EXPECT_TRUE(events.empty());
    for (int64_t id : {30, -4, 12}) client->Create("T", id, 0);
    client->Clear();
    EXPECT_THAT(events, ElementsAre("component -4", "component 12", "component 30"));
    EXPECT_TRUE(client->components.empty());
}

TEST_F(RegistryTest, DestructionReleasesComponentsThenFactoriesThenPrintsCleanup) {
    for (int64_t id : {1, 0}) client->Create("T", id, 0);
    ::testing::internal::CaptureStdout();
    client.reset();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[Client] Cleanup\n");
    EXPECT_THAT(events,
                ElementsAre("component 0", "component 1", "factory first", "factory second"));
    // The peer is the application's and still works.
    net.peer.update_first();
    EXPECT_EQ(net.link.first_passes, 1u);
}

// ---- the client's own small operations ----------------------------------------------------

using LifecycleTest = ClientTest;

TEST(Lifecycle, NullPeerIsRefusedBeforeAnythingHappens) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(error_of([] { DaxClient client(nullptr); }), "DaxClient: peer must not be null");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(LifecycleTest, FullUpdateRunsBothPassesAndReportsEither) {
    EXPECT_FALSE(client->full_update());
    EXPECT_EQ(net.link.first_passes, 1u);
    EXPECT_EQ(net.link.second_passes, 1u);

    // Work found only by the second pass still counts.
    net.link.deliver_in = qor::wamp::testing::LoopbackConnection::Pass::second;
    client->CLEAR_SCENE([](qor::wamp::RpcResult<int>) {});
    net.link.reply_last_result(0);
    EXPECT_TRUE(client->full_update());

    // A busy first pass does not skip the second.
    net.link.always_busy = true;
    EXPECT_TRUE(client->full_update());
    EXPECT_EQ(net.link.first_passes, 3u);
    EXPECT_EQ(net.link.second_passes, 3u);
}

TEST_F(LifecycleTest, InitSubscribesTheStateTopicAndReportsTheOutcome) {
    std::vector<std::pair<int64_t, std::string>> outcomes;
    client->init("ignored", [&](int64_t ok, std::string text) { outcomes.emplace_back(ok, text); });
    net.link.confirm_subscription("qor.server.update", qor::wamp::Id(900));
    client->full_update();
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(outcomes[0], std::make_pair(int64_t{1}, std::string()));

    LoopbackPeer refused;
    DaxClient second(&refused.peer);
    second.init("", [&](int64_t ok, std::string text) { outcomes.emplace_back(ok, text); });
    refused.link.refuse_subscription("qor.server.update", "wamp.error.not_authorized");
    second.full_update();
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_EQ(outcomes[1], std::make_pair(int64_t{0}, std::string("wamp.error.not_authorized")));
}

}  // namespace
}  // namespace client_test
