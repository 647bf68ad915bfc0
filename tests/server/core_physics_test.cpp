// The simulation core driven directly: physics, the scene record, meshes and the clock.

#include <atomic>
#include <cmath>
#include <future>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/testing.hpp"

namespace qor::sim::testing {
namespace {

namespace dt = dax::types;
using ::testing::HasSubstr;

TEST_F(CoreTest, DroppedBallFallsThenRestsOnTheGround) {
    ASSERT_EQ(call_ok<int>(*core, "SEND_SCENE", scene_of({ground(1), ball(2, 5.0)})), 2);

    // Half a second of free fall at 60 steps/s: z = 5 - g t^2 / 2.
    dt::integration_result_t r = step(30);
    BodyState s = states_of(r).at(2);
    EXPECT_NEAR(s.pose.position.z, 5.0 - 0.5 * 9.81 * 0.25, 0.05);
    EXPECT_NEAR(s.linear.z, -9.81 * 0.5, 0.05);
    EXPECT_EQ(r.value_int, 30);

    r = step(600);
    s = states_of(r).at(2);
    EXPECT_NEAR(s.pose.position.z, 0.5, 0.02);
    EXPECT_LT(std::abs(s.linear.z), 0.05);
    EXPECT_EQ(r.details.i1, 1) << "the ground is not a body";
    EXPECT_NEAR(r.vec_a.z, -9.81f, 1e-4);
    EXPECT_NEAR(r.details.f2, 630 / 60.0, 1e-3);
}

// The step's answer is written in place, its map's length counted ahead: it must be exactly the
// record packed whole, for ids of every integer width and a map past the fixmap form.
TEST_F(CoreTest, StepAnswerIsTheRecordPackedWhole) {
    std::vector<Component> scene{ground(0)};
    for (int64_t id : {-40000LL, -200LL, -1LL, 1LL, 2LL, 3LL, 4LL, 5LL, 6LL, 7LL, 8LL, 9LL, 127LL,
                       128LL, 255LL, 256LL, 65536LL, 5000000000LL})
        scene.push_back(ball(id, 2.0 + double(scene.size())));
    call_ok<int>(*core, "SEND_SCENE", scene_of(scene));
    const CallResult r = run(*core, "STEP_SIMULATION");
    const auto decoded = value_of<dt::integration_result_t>(r);
    EXPECT_EQ(states_of(decoded).size(), 18u);
    EXPECT_EQ(r.value, test_support::encode(decoded));
}

TEST_F(CoreTest, BoxStackStaysStackedAndCapsuleLandsOnItsSide) {
    std::vector<Component> scene{ground(1)};
    for (int i = 0; i < 3; ++i)
        scene.push_back(body(10 + i, Shape::box, {0.5, 0.5, 0.5}, 1, {0, 0, 0.5 + i * 1.0}));
    scene.push_back(body(20, Shape::capsule, {0.2, 1.0, 0}, 1, {5, 0, 2}));
    call_ok<int>(*core, "SEND_SCENE", scene_of(scene));
    const auto states = states_of(step(240));
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(states.at(10 + i).pose.position.z, 0.5 + i, 0.05);
    // A capsule standing on end topples; either way its centre ends no higher than upright.
    EXPECT_LE(states.at(20).pose.position.z, 0.2 + 0.5 + 0.05);
    EXPECT_EQ(states.size(), 4u);
}

TEST_F(CoreTest, SceneRecordRoundTripsByteForByteAndFollowsThePhysics) {
    Component opaque{"Light", 9, 3, {0x92, 0xa3, 'r', 'e', 'd', 0x05}};
    const std::vector<Component> scene{ground(1), ball(2, 3.0), opaque};
    const mp::buffer sent = scene_of(scene);
    call_ok<int>(*core, "SEND_SCENE", sent);
    EXPECT_EQ(call_ok<mp::buffer>(*core, "GET_SERVER_SCENE"), sent)
        << "an unstepped scene comes back exactly as sent, unknown types included";

    const dt::integration_result_t r = step(20);
    const mp::buffer now = call_ok<mp::buffer>(*core, "GET_SERVER_SCENE");
    const auto components = decode_scene(now.data, now.size);
    ASSERT_EQ(components.size(), 3u);
    EXPECT_EQ(components[2].data, opaque.data);
    EXPECT_EQ(components[1].client_id, 7);
    const BodyData b = decode_body(components[1].data);
    const BodyState s = states_of(r).at(2);
    EXPECT_EQ(b.pose.position.z, s.pose.position.z);
    EXPECT_EQ(b.linear.z, s.linear.z);
    EXPECT_LT(b.pose.position.z, 3.0);

    // CREATE_COMPONENTS rebuilds from the scene as sent: the ball is back at its start.
    EXPECT_EQ(call_ok<int>(*core, "CREATE_COMPONENTS"), 1);
    EXPECT_EQ(call_ok<mp::buffer>(*core, "GET_SERVER_SCENE"), sent);
    EXPECT_EQ(call_ok<int>(*core, "CLEAR_SCENE"), 3);
    EXPECT_EQ(call_ok<mp::buffer>(*core, "GET_SERVER_SCENE"),
              mp::buffer(std::vector<uint8_t>{0x90}));
}

TEST_F(CoreTest, SceneAnswerHeaderFitsTheRecordEitherSideOfEachBorder) {
    // The record's length heads the answer in 1, 2 or 4 bytes, the form changing at 256 and
    // 65536: records just either side of each border come back as the same bytes.
    for (const size_t size : {250u, 255u, 256u, 300u, 65535u, 65536u, 65600u, 1u << 20}) {
        Component label{"Label", 1, 0, {}};
        std::vector<uint8_t> record;
        for (size_t payload = size; record.size() != size;) {
            label.data.clear();
            mp::pack(label.data, mp::buffer(std::vector<uint8_t>(payload, 7)));
            record = encode_scene({label});
            payload -= record.size() - size;
        }
        call_ok<int>(*core, "SEND_SCENE", mp::buffer(record));
        std::vector<uint8_t> expected;
        mp::pack(expected, mp::buffer(record));
        EXPECT_EQ(run(*core, "GET_SERVER_SCENE").value, expected) << size << " bytes";
    }
}

TEST_F(CoreTest, RefusedSceneLeavesTheRunningOneIntact) {
    const mp::buffer good = scene_of({ground(1), ball(2, 3.0)});
    call_ok<int>(*core, "SEND_SCENE", good);
    const std::vector<std::pair<mp::buffer, std::string>> bad{
        {scene_of({ball(2, 1), body(3, Shape::mesh, {1, 1, 1}, 0, {0, 0, 0}, 42)}),
         "no triangle mesh with id 42"},
        {scene_of({body(3, Shape::box, {-1, 1, 1}, 1, {0, 0, 0})}), "size must be positive"},
        {scene_of({ball(4, 1), ball(4, 2)}), "duplicate component id 4"},
        {mp::buffer(std::vector<uint8_t>{0x91, 0x93, 0xa4, 'B', 'o', 'd', 'y', 0x01, 0x00}),
         "must be an array of 4"},
        {mp::buffer(std::vector<uint8_t>{0x92, 0x94}), "unexpected end of data"},
        {mp::buffer(std::vector<uint8_t>{0x90, 0x90}), "trailing bytes"},
    };
    for (const auto& [scene, text] : bad) {
        const CallResult r = run(*core, "SEND_SCENE", scene);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.error, "wamp.error.invalid_argument");
        EXPECT_THAT(r.message, HasSubstr(text));
    }
    EXPECT_EQ(call_ok<mp::buffer>(*core, "GET_SERVER_SCENE"), good);
}

// The world is rebuilt in place when a scene comes: whatever ran before, the same scene must
// step to the same bytes as in a core that never held another.
TEST_F(CoreTest, SceneSentAgainStepsExactlyAsInANewCore) {
    std::vector<Component> pile{ground(1)};
    for (int i = 0; i < 12; ++i)
        pile.push_back(body(10 + i, i % 2 ? Shape::box : Shape::sphere, {0.4, 0.4, 0.4}, 1,
                            {0.3 * (i % 3), 0.2 * (i % 4), 1.0 + 0.9 * i}));
    call_ok<int>(*core, "SEND_SCENE", scene_of(pile));
    const mp::buffer fresh = step(90).states;

    const std::vector<std::pair<const char*, std::vector<std::string>>> histories{
        {"a scene stepped", {}},
        {"a scene stepped while unregistered", {"UNREGISTER_COMPONENTS"}},
    };
    for (const auto& [what, operations] : histories) {
        core = core_in(folder);
        std::vector<Component> before{ground(1)};
        for (int i = 0; i < 30; ++i) before.push_back(ball(100 + i, 1.0 + i));
        call_ok<int>(*core, "SEND_SCENE", scene_of(before));
        for (const std::string& op : operations) call_ok<int>(*core, op);
        step(90);
        call_ok<int>(*core, "REGISTER_COMPONENTS");
        call_ok<int>(*core, "SEND_SCENE", scene_of(pile));
        EXPECT_EQ(step(90).states, fresh) << "after " << what;
    }
}

TEST_F(CoreTest, MeshesAreBuiltInBatchesAndCarryBodies) {
    const long long id = call_ok<long long>(*core, "CREATE_TRIMESH", "floor", 4, 2, 0);
    EXPECT_EQ(id, 1);
    EXPECT_EQ(call_ok<long long>(*core, "CREATE_TRIMESH", "other", 0, 0, 0), 2);

    // Vertices, pairs, triangles.
    const dt::mesh_batch_t first{{{-10, -10, 0}, {10, -10, 0}}, {}, {}};
    const dt::mesh_batch_t second{{{10, 10, 0}, {-10, 10, 0}}, {{0, 2}}, {{0, 1, 2}, {0, 2, 3}}};
    EXPECT_EQ(call_ok<int>(*core, "UPDATE_TRIMESH", id, 0, 0, first), 2);
    EXPECT_EQ(call_ok<int>(*core, "UPDATE_TRIMESH", id, 2, 0, second), 4);

    // An offset past the end would leave a hole, and a triangle naming a vertex the mesh will
    // not have points nowhere: each batch is refused whole, and the mesh is unchanged.
    EXPECT_EQ(run(*core, "UPDATE_TRIMESH", id, 9, 0, second).error, "wamp.error.invalid_argument");
    const dt::mesh_batch_t stray{{{0, 0, 1}}, {}, {{0, 1, 5}}};
    EXPECT_EQ(run(*core, "UPDATE_TRIMESH", id, 4, 2, stray).error, "wamp.error.invalid_argument");
    const dt::mesh_batch_t whole = call_ok<dt::mesh_batch_t>(*core, "GET_TRIMESH", id);
    ASSERT_EQ(whole.vertices.size(), 4u);
    EXPECT_EQ(whole.vertices[2].x, 10);
    EXPECT_EQ(whole.triangles.size(), 2u);
    const auto info = call_ok<dt::mesh_info_t>(*core, "GET_TRIMESH_INFO", id);
    EXPECT_TRUE(test_support::same(info, dt::mesh_info_t{4, 2, 1, "floor"}))
        << test_support::to_hex(test_support::encode(info));

    // A ball dropped on the static mesh floor rests on it.
    call_ok<int>(*core, "SEND_SCENE",
                 scene_of({body(1, Shape::mesh, {1, 1, 1}, 0, {0, 0, 0}, id), ball(2, 2)}));
    EXPECT_NEAR(states_of(step(240)).at(2).pose.position.z, 0.5, 0.03);

    // A dynamic mesh body collides by its convex hull and falls onto the floor too.
    call_ok<int>(*core, "SEND_SCENE",
                 scene_of({ground(1), body(2, Shape::mesh, {0.1, 0.1, 0.1}, 2, {0, 0, 3}, id)}));
    EXPECT_NEAR(states_of(step(240)).at(2).pose.position.z, 0.0, 0.1);

    EXPECT_EQ(call_ok<int>(*core, "DUMP_MESHES_TO_OBJ", "objs"), 2);
    const std::string obj = test_support::read_text(folder.path() / "objs" / "mesh_1_floor.obj");
    EXPECT_THAT(obj, HasSubstr("v 10 10 0\n"));
    EXPECT_THAT(obj, HasSubstr("f 1 3 4\n")) << "OBJ faces count from 1";
    EXPECT_THAT(obj, HasSubstr("l 1 3\n"));

    EXPECT_EQ(call_ok<int>(*core, "CLEAR_TRIMESHES"), 2);
    EXPECT_EQ(run(*core, "GET_TRIMESH", id).error, "qor.error.not_found");
    EXPECT_EQ(run(*core, "GET_TRIMESH_INFO", 77LL).error, "qor.error.not_found");
}

TEST_F(CoreTest, LockUnregisterAndSchedulingFreezeTheWorld) {
    call_ok<int>(*core, "SEND_SCENE", scene_of({ground(1), ball(2, 5.0)}));
    step();
    const double z0 = states_of(step()).at(2).pose.position.z;

    EXPECT_EQ(call_ok<int>(*core, "LOCK_PHYSIC"), 1);
    EXPECT_EQ(call_ok<int>(*core, "LOCK_PHYSIC"), 2);
    EXPECT_EQ(call_ok<int>(*core, "UNLOCK_PHYSIC"), 1);
    const auto locked = step();
    EXPECT_EQ(states_of(locked).at(2).pose.position.z, z0);
    EXPECT_EQ(locked.value_int, 2) << "a locked step does not count";
    EXPECT_EQ(call_ok<int>(*core, "UNLOCK_PHYSIC"), 0);
    EXPECT_EQ(call_ok<int>(*core, "UNLOCK_PHYSIC"), 0);
    const double z1 = states_of(step()).at(2).pose.position.z;
    EXPECT_LT(z1, z0);

    EXPECT_TRUE(call_ok<bool>(*core, "COMPONENTS_REGISTERED"));
    EXPECT_EQ(call_ok<int>(*core, "UNREGISTER_COMPONENTS"), 2);
    EXPECT_FALSE(call_ok<bool>(*core, "COMPONENTS_REGISTERED"));
    EXPECT_EQ(states_of(step()).at(2).pose.position.z, z1);
    EXPECT_EQ(call_ok<int>(*core, "REGISTER_COMPONENTS"), 2);
    EXPECT_LT(states_of(step()).at(2).pose.position.z, z1);

    EXPECT_EQ(call_ok<int>(*core, "ENABLE_SCHEDULING", false), 1);
    EXPECT_EQ(call_ok<int>(*core, "ENABLE_SCHEDULING", true), 0);
}

TEST_F(CoreTest, GravityPropertyIsAppliedByConfigure) {
    call_ok<int>(*core, "SEND_SCENE", scene_of({ball(2, 5.0)}));
    EXPECT_EQ(call_ok<int>(*core, "SET_PROPERTY", "gravity", "0 0 -1.62"), 1);
    EXPECT_EQ(call_ok<int>(*core, "CONFIGURE_COMPONENTS"), 1);
    const auto r = step();
    EXPECT_NEAR(r.vec_a.z, -1.62f, 1e-5);
    EXPECT_NEAR(states_of(r).at(2).linear.z, -1.62 / 60, 1e-3);

    call_ok<int>(*core, "SET_PROPERTY", "gravity", "down");
    const CallResult bad = run(*core, "CONFIGURE_COMPONENTS");
    EXPECT_EQ(bad.error, "wamp.error.invalid_argument");
    EXPECT_THAT(bad.message, HasSubstr("not three numbers"));
}

TEST_F(CoreTest, ClockPublishesWhileRunningAndStopsWhenPaused) {
    std::mutex m;
    std::vector<dt::integration_result_t> published;
    core->set_publisher([&](const std::string& topic, const std::vector<uint8_t>& value) {
        EXPECT_EQ(topic, "qor.server.update");
        auto r = test_support::decode<dt::integration_result_t>(value);
        std::lock_guard<std::mutex> lock(m);
        published.push_back(std::move(r));
    });
    const auto count = [&] {
        std::lock_guard<std::mutex> lock(m);
        return published.size();
    };
    // Waits up to ten seconds for `n` publications.
    const auto reached = [&](size_t n) {
        for (int i = 0; i < 2000 && count() < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return count() >= n;
    };
    // A static box never changes, so with compression it is published once only.
    call_ok<int>(
        *core, "SEND_SCENE",
        scene_of({ground(1), ball(2, 50.0), body(3, Shape::box, {1, 1, 1}, 0, {9, 9, 1})}));
    EXPECT_EQ(call_ok<int>(*core, "SET_PUBLISH_COMPRESSION_LEVEL", 1), 0);
    call_ok<int>(*core, "SET_SERVER_PERIOD_MS", 5.0);
    EXPECT_EQ(call_ok<int>(*core, "SET_PUBLISH_PERIOD_MS", 10.0), 33) << "the period it replaced";
    EXPECT_EQ(run(*core, "PAUSE_SIMULATION").error, "qor.error.invalid_state");
    EXPECT_EQ(call_ok<int>(*core, "START_SIMULATION"), 1);
    ASSERT_TRUE(reached(5));
    EXPECT_EQ(call_ok<int>(*core, "PAUSE_SIMULATION"), 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const size_t frozen = count();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(count(), frozen) << "nothing is published while paused";
    EXPECT_EQ(call_ok<int>(*core, "RESUME_SIMULATION"), 1);
    ASSERT_TRUE(reached(frozen + 3));
    EXPECT_EQ(call_ok<int>(*core, "STOP_SIMULATION"), 0);

    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(states_of(published.front()).size(), 2u);
    for (size_t i = 1; i < published.size(); ++i) {
        const auto states = states_of(published[i]);
        EXPECT_EQ(states.count(3), 0u) << "publication " << i;
        EXPECT_EQ(states.count(2), 1u) << "publication " << i;
        EXPECT_GE(published[i].value_int, published[i - 1].value_int);
    }
    EXPECT_GT(published.back().value_int, published.front().value_int);
    EXPECT_EQ(published.front().details.i9, 1) << "published while running";
}

// A Reset stops, then sends the first scene again: a state taken before the stop but handed to
// the publisher after it would reach the client after the new scene and undo it.
TEST_F(CoreTest, ACallWaitsForAStateAlreadyOnItsWayOut) {
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> first{true};
    core->set_publisher([&](const std::string&, const std::vector<uint8_t>&) {
        if (!first.exchange(false)) return;
        entered.set_value();
        released.wait();
    });
    call_ok<int>(*core, "SEND_SCENE", scene_of({ball(2, 5.0)}));
    call_ok<int>(*core, "START_SIMULATION");
    entered.get_future().wait();
    CallResult quick;
    EXPECT_FALSE(core->try_call(std::string(dax::types::kOperationPrefix) + "PAUSE_SIMULATION",
                                nullptr, 0, 0, quick))
        << "a quick call neither overtakes the state nor waits for it";
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        call_ok<int>(*core, "STOP_SIMULATION");
        stopped = true;
    });
    // Room for a STOP that did not wait to be answered.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(stopped) << "answered while a state taken before it was still going out";
    release.set_value();
    stopper.join();
    EXPECT_TRUE(stopped);
}

}  // namespace
}  // namespace qor::sim::testing
