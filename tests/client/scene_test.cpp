// Scene records both ways, per-step state and sync_step.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <qor/serialization/msgpack/pack.hpp>

#include "support/testing.hpp"
#include "test_components.hpp"

namespace client_test {
namespace {

using namespace test_support;

using dax::client::DaxClient;
using qor::serialization::msgpack::buffer;
namespace mp = qor::serialization::msgpack;

class SceneTest : public ClientTest {
  protected:
    /// The scene record of the last SEND_SCENE, without its bin header.
    std::string sent_scene() {
        const qor::wamp::Message& call = net.link.last_call();
        EXPECT_EQ(call.procedure, "qor.server.operation.SEND_SCENE");
        EXPECT_EQ(call.args_count, 1u);
        mp::ReadBuffer in(call.raw.data + call.args_offset, call.args_end - call.args_offset);
        buffer scene;
        mp::read(in, scene);
        return to_hex(scene);
    }
    /// A step result carrying `states` (hex of the map).
    static dax::types::integration_result_t step_result(const std::string& states) {
        return {buffer(hex(states)), 3, {}, {}, {}};
    }
    Body* body(int64_t id) { return static_cast<Body*>(client->getComponent(id)); }
    Counter* counter(int64_t id) { return static_cast<Counter*>(client->getComponent(id)); }
};

// ---- sending -------------------------------------------------------------------------------

TEST_F(SceneTest, ComponentsGoInAscendingIdOrderWithTheirOwnData) {
    client->send_scene_to_server();
    EXPECT_EQ(args_hex(net.link.last_call()), "c4 01 90");  // empty registry: one byte
    static_cast<Counter*>(client->Create("Counter", 300, 2))->value = -1;
    client->Create("Body", -3, 1);
    client->send_scene_to_server();
    EXPECT_EQ(sent_scene(),
              to_hex(hex("92  94 a4 426f6479 fd 01 c0  94 a7 436f756e746572 cd012c 02 ff")));
    for (int i = 0; i < 14; ++i) client->Create("Body");
    client->send_scene_to_server();
    EXPECT_EQ(sent_scene().substr(0, 8), "dc 00 10");  // sixteen need the array16 header
}

TEST_F(SceneTest, IdsAndClientIdsUseTheCompactIntegerForm) {
    // The codec's tables pin every bound; these rows pin that the id goes as a 64-bit value
    // and the client id as an int. `encoded`: the id, then the client id.
    const std::tuple<int64_t, int, const char*> rows[] = {
        {128, 128, "cc80 cc80"},
        {-128, -128, "d1ff80 d1ff80"},
        {4294967296LL, 0, "cf0000000100000000 00"},
        {-2147483649LL, 0, "d3ffffffff7fffffff 00"},
    };
    for (const auto& [id, client_id, encoded] : rows) {
        SCOPED_TRACE(id);
        client->Clear();
        client->Create("Body", id, client_id);
        client->send_scene_to_server();
        EXPECT_EQ(sent_scene(), to_hex(hex(std::string("91 94 a4 426f6479 ") + encoded + " c0")));
    }
}

// ---- receiving a scene ---------------------------------------------------------------------

const char* kTwoComponents = "92  94 a4 426f6479 03 07 c0  94 a7 436f756e746572 0a 00 2a";

TEST_F(SceneTest, CreateModeBuildsEveryComponent) {
    client->deserialize_components(buffer(hex(kTwoComponents)), true);
    ASSERT_EQ(client->components.size(), 2u);
    EXPECT_EQ(body(3)->getClientId(), 7);
    EXPECT_EQ(body(3)->deserialized, 1);
    EXPECT_EQ(counter(10)->value, 42);
    EXPECT_EQ(client->next_component_id, 0);
}

TEST_F(SceneTest, IdNamedTwiceKeepsTheLastComponentAndFreesTheFirst) {
    // The first Body 3 is deleted when the second replaces it; the sanitizer build's leak
    // check reports it otherwise.
    client->deserialize_components(
        buffer(
            hex("93  94 a4 426f6479 03 01 c0  94 a4 426f6479 03 02 c0  94 a4 426f6479 04 05 c0")),
        true);
    ASSERT_EQ(client->components.size(), 2u);
    EXPECT_EQ(body(3)->getClientId(), 2);
    EXPECT_EQ(body(4)->getClientId(), 5);
}

TEST_F(SceneTest, UpdateModeFeedsExistingComponentsAndRefusesUnknownIds) {
    client->deserialize_components(buffer(hex(kTwoComponents)), true);
    auto* before = counter(10);
    // Type name and client id are not looked at in update mode.
    client->deserialize_components(buffer(hex("91 94 a1 58 0a 63 cd0400")), false);
    EXPECT_EQ(counter(10), before);
    EXPECT_EQ(before->value, 1024);
    EXPECT_EQ(before->getClientId(), 0);

    EXPECT_EQ(error_of([&] {
                  client->deserialize_components(buffer(hex("91 94 a4 426f6479 63 00 c0")), false);
              }),
              "update_scene_state: component not found id=99");
}

TEST_F(SceneTest, MalformedScenesRaiseTheirErrors) {
    const std::pair<const char*, const char*> rows[] = {
        {"80", "inconsistent data while parsing array"},
        {"c0", "inconsistent data while parsing array"},
        {"91 a4 426f6479", "inconsistent data while parsing array"},
        {"91 94 05 05 00 c0", "inconsistent data while parsing string"},
        {"92 94 a4 426f6479 01 00 c0  94 a4 4e6f7065 02 00 c0",
         "Error in DaxClient::Create : type 'Nope' not found"},
    };
    for (const auto& [bytes, error] : rows) {
        SCOPED_TRACE(bytes);
        client->Clear();
        const buffer scene(hex(bytes));  // structured bindings cannot be captured before C++20
        EXPECT_EQ(error_of([&] { client->deserialize_components(scene, true); }), error);
    }
    // Components created before the unknown type stay.
    EXPECT_NE(client->getComponent(1), nullptr);
}

TEST_F(SceneTest, TruncatedScenesFailCleanlyAtEveryLength) {
    const std::vector<uint8_t> whole = hex(kTwoComponents);
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        SCOPED_TRACE(cut);
        client->Clear();
        const buffer part(whole.data(), cut);
        EXPECT_THROW(client->deserialize_components(part, true), std::runtime_error);
    }
}

TEST_F(SceneTest, GetServerSceneClearsAtOnceAndRebuildsOnTheAnswer) {
    client->Create("Counter", 50, 0);
    client->get_server_scene();
    EXPECT_TRUE(client->components.empty());  // before the server has answered
    EXPECT_EQ(net.link.last_call().procedure, "qor.server.operation.GET_SERVER_SCENE");
    EXPECT_EQ(net.link.last_call().args_count, 0u);

    net.link.reply_last_result(buffer(hex(kTwoComponents)));
    client->full_update();
    ASSERT_EQ(client->components.size(), 2u);
    EXPECT_EQ(body(3)->scene_loaded, 1);
    EXPECT_EQ(counter(10)->scene_loaded, 1);

    client->get_server_scene();
    net.link.reply_last_error("qor.error.no_scene");
    EXPECT_NO_THROW(client->full_update());
    EXPECT_TRUE(client->components.empty());
}

TEST_F(SceneTest, UpdateSceneFromServerKeepsComponentsAndIgnoresErrors) {
    client->deserialize_components(buffer(hex(kTwoComponents)), true);
    client->update_scene_from_server();
    EXPECT_EQ(client->components.size(), 2u);
    net.link.reply_last_error("qor.error.no_scene");
    EXPECT_NO_THROW(client->full_update());
    EXPECT_EQ(counter(10)->value, 42);

    client->update_scene_from_server();
    net.link.reply_last_result(buffer(hex("91 94 a7 436f756e746572 0a 00 07")));
    client->full_update();
    EXPECT_EQ(counter(10)->value, 7);
    EXPECT_EQ(body(3)->scene_loaded, 0);  // only a full scene calls onSceneLoaded
}

// ---- per-step state ------------------------------------------------------------------------

TEST_F(SceneTest, StateUpdateCountsVersionsAndFeedsComponents) {
    client->deserialize_components(buffer(hex(kTwoComponents)), true);
    client->update_scene_state(step_result("80"));
    EXPECT_EQ(client->getSceneStateVersion(), 0);  // an empty map counts too

    client->update_scene_state(
        step_result("82 03 93 cb3ff0000000000000 cb4000000000000000 cb4008000000000000 0a 05"));
    EXPECT_EQ(client->getSceneStateVersion(), 1);
    EXPECT_THAT(body(3)->position, ::testing::ElementsAre(1.0, 2.0, 3.0));
    EXPECT_EQ(counter(10)->value, 5);

    // map 16 form
    client->update_scene_state(step_result("de 0001 0a 06"));
    EXPECT_EQ(counter(10)->value, 6);
}

TEST_F(SceneTest, StateNamingAnAbsentIdAppliesWhatCameBefore) {
    client->Create("Counter", 1, 0);
    EXPECT_EQ(error_of([&] { client->update_scene_state(step_result("82 01 11 09 22")); }),
              "update_scene_state: component not found id=9");
    EXPECT_EQ(counter(1)->value, 0x11);
    EXPECT_EQ(client->getSceneStateVersion(), 0);

    EXPECT_EQ(error_of([&] { client->update_scene_state(step_result("91 01")); }),
              "inconsistent data while parsing map");
    EXPECT_EQ(client->getSceneStateVersion(), 1);  // incremented before anything is read

    // A state cut short never reads past its bytes.
    EXPECT_EQ(error_of([&] { client->update_scene_state(step_result("81 01 cd 01")); }),
              "unexpected end of data");
}

TEST_F(SceneTest, StatesInAnyOrderReachTheirComponents) {
    for (int64_t id : {2, 5, 9}) client->Create("Counter", id, 0);
    // The states, then the values of counters 2, 5 and 9 after them.
    const std::tuple<const char*, long long, long long, long long> rows[] = {
        {"83 02 01 05 02 09 03", 1, 2, 3},  // ascending, as servers send them
        {"83 09 04 05 05 02 06", 6, 5, 4},  // descending
        {"83 05 07 09 08 05 09", 6, 9, 8},  // an id twice: the later state wins
        {"82 09 0a 02 0b", 11, 9, 10},      // skipping one
    };
    for (const auto& [states, c2, c5, c9] : rows) {
        SCOPED_TRACE(states);
        client->update_scene_state(step_result(states));
        EXPECT_EQ(counter(2)->value, c2);
        EXPECT_EQ(counter(5)->value, c5);
        EXPECT_EQ(counter(9)->value, c9);
    }
}

// Removes the component whose id its state names from the registry, as an application's
// handler might while an update is applied.
class Remover : public Counter {
  public:
    using Counter::Counter;
    std::string getType() override { return "Remover"; }
    void update_state(mp::ReadBuffer& in) override {
        long long victim = 0;
        mp::read(in, victim);
        const auto found = client->components.find(victim);
        delete found->second;
        client->components.erase(found);
    }
};

TEST_F(SceneTest, StateOfAComponentRemovedByAnEarlierStateIsRefused) {
    client->components[1] = new Remover(1, client.get());
    for (int64_t id : {2, 3}) client->Create("Counter", id, 0);
    // The removed component came right after the remover, where the next state is looked for
    // first.
    EXPECT_EQ(error_of([&] { client->update_scene_state(step_result("82 01 02 02 08")); }),
              "update_scene_state: component not found id=2");
    client->update_scene_state(step_result("81 03 07"));
    EXPECT_EQ(counter(3)->value, 7);
}

// Creates a Counter under the id its state names, as an application's handler might.
class Spawner : public Remover {
  public:
    using Remover::Remover;
    void update_state(mp::ReadBuffer& in) override {
        long long id = 0;
        mp::read(in, id);
        client->Create("Counter", id, 0);
    }
};

TEST_F(SceneTest, UpdatesSeeTheRegistryAsItIsWhenEachStateIsApplied) {
    for (int64_t id : {2, 5, 9}) client->Create("Counter", id, 0);
    client->components[1] = new Spawner(1, client.get());
    client->update_scene_state(step_result("83 02 01 05 02 09 03"));  // the registry is indexed
    // Replaced through an iterator, added, created while the update runs, and an entry that
    // holds no component: each state goes where the registry says at that moment.
    Counter* replacement = new Counter(5, client.get());
    delete std::exchange(client->components.find(5)->second, replacement);
    client->Create("Counter", 7, 0);
    client->update_scene_state(step_result("84 05 0b 07 0c 01 04 04 0d"));
    EXPECT_EQ(replacement->value, 11);
    EXPECT_EQ(counter(7)->value, 12);
    EXPECT_EQ(counter(4)->value, 13);
    EXPECT_EQ(counter(9)->value, 3);
    client->components[3];
    EXPECT_EQ(error_of([&] { client->update_scene_state(step_result("82 02 0e 03 0f")); }),
              "update_scene_state: component not found id=3");
    EXPECT_EQ(counter(2)->value, 14);
}

TEST_F(SceneTest, SyncStepWaitsForTheStepAndAppliesIt) {
    client->Create("Counter", 4, 0);
    net.on_pass(3, [&] { net.link.reply_last_result(step_result("81 04 2a")); });
    client->sync_step();
    EXPECT_EQ(net.link.last_call().procedure, "qor.server.operation.STEP_SIMULATION");
    EXPECT_EQ(net.link.first_passes, 3u);
    EXPECT_EQ(net.link.second_passes, 3u);
    EXPECT_EQ(counter(4)->value, 42);
    EXPECT_EQ(client->getSceneStateVersion(), 0);
}

TEST_F(SceneTest, SyncStepKeepsWaitingThroughAnErrorUntilTheLinkIsLost) {
    client->setTimeoutMs(0);  // sync_step has no time-out of its own
    net.on_pass(1, [&] { net.link.reply_last_error("qor.error.locked"); });
    int passes_after_error = 0;
    net.link.before_second = [&] {
        if (net.link.first_passes > 1 && ++passes_after_error == 50) {
            net.peer.server_connected = false;  // as a transport does when the link drops
        }
    };
    EXPECT_EQ(error_of([&] { client->sync_step(); }), "qor.error.connection_lost");
    EXPECT_EQ(passes_after_error, 50);
    EXPECT_EQ(client->getSceneStateVersion(), -1);
}

TEST_F(SceneTest, SyncStepKeepsOtherHandlersErrorsAndLetsItsOwnThrough) {
    client->init("", nullptr);
    net.link.confirm_subscription("qor.server.update", qor::wamp::Id(900));
    client->full_update();
    client->Create("Counter", 4, 0);
    // A published update naming a component this client lacks arrives before the step.
    net.on_pass(1, [&] {
        net.link.publish_event(qor::wamp::Id(900), step_result("81 63 07"));
        net.link.reply_last_result(step_result("81 04 2a"));
    });
    client->sync_step();
    EXPECT_EQ(counter(4)->value, 42);
    EXPECT_EQ(client->handler_errors, 1u);

    // The step's own state failing to apply, or its answer failing to decode, still leaves
    // through sync_step, and is not counted as someone else's.
    net.on_pass(1, [&] { net.link.reply_last_result(step_result("81 63 07")); });
    EXPECT_EQ(error_of([&] { client->sync_step(); }),
              "update_scene_state: component not found id=99");
    net.on_pass(1, [&] { net.link.reply_last_result(7); });
    EXPECT_EQ(error_of([&] { client->sync_step(); }), "inconsistent data while parsing array");
    EXPECT_EQ(client->handler_errors, 1u);
}

}  // namespace
}  // namespace client_test
