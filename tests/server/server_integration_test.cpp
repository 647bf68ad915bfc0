// qor-sim-server as a process, driven through DaxClient and the rigid-body plug-in over both
// framings. What each operation answers is pinned in process (tests/server/core_*) and what the
// client sends for it by bytes (tests/client/operations_test.cpp); here only what needs the
// real process and its sockets.

#include <cstdlib>
#include <filesystem>
#include <thread>

#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/transport/connect.hpp>
#include <rigid_body/components.hpp>

#include "support/testing.hpp"

namespace qor::sim::testing {
namespace {

namespace dt = dax::types;
using dax::client::DaxClient;
using test_support::start_server;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

// One application: a peer connected to the server and a DaxClient with the plug-in loaded.
struct App {
    QorClient peer;
    std::unique_ptr<DaxClient> client;

    explicit App(const std::string& url) {
        test_support::quiet_logger();
        transport::connect(peer, url);
        client = std::make_unique<DaxClient>(&peer);
        client->setTimeoutMs(10000);
        client->init("test", [](int64_t, std::string) {});
    }

    rigid_body::Body* body(int64_t id) {
        auto* c = client->getComponent(id);
        EXPECT_NE(c, nullptr) << "component " << id;
        EXPECT_EQ(c ? c->getType() : "", "Body");
        return static_cast<rigid_body::Body*>(c);
    }

    // Ground (id 0) and a ball of radius 0.5 at height `z` (id 1).
    rigid_body::Body* ground_and_ball(double z) {
        client->Reset();
        client->Create("Ground");
        auto* b = static_cast<rigid_body::Body*>(client->Create("Body"));
        b->shape = "sphere";
        b->size = {0.5, 0, 0};
        b->state.pose.position = {0, 0, z};
        return b;
    }

    bool pump_until(const std::function<bool()>& done,
                    std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        const auto end = Clock::now() + limit;
        while (!done()) {
            if (Clock::now() > end) return false;
            if (!client->full_update()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }
};

class ServerOverFraming : public ::testing::TestWithParam<std::string> {
  protected:
    TempFolder data;
    std::unique_ptr<launch::ServerProcess> server = start_server(data);
    std::string url() const {
        return GetParam() == "rawsocket" ? server->rawsocket_url() : server->websocket_url();
    }
    // The server's log explains most failures seen from the client.
    void TearDown() override {
        if (HasFailure())
            std::cerr << "---- server log\n"
                      << test_support::read_text(data.path() / "server.log") << "----\n";
    }
};

TEST_P(ServerOverFraming, SceneStateAndErrorThroughDaxClient) {
    App app(url());
    DaxClient& c = *app.client;
    // The dropped ball falls, through sync_step and the plug-in (where it comes to rest is the
    // core's own test).
    rigid_body::Body* ball = app.ground_and_ball(4.0);
    c.send_scene_to_server();
    for (int i = 0; i < 30; ++i) c.sync_step();
    EXPECT_NEAR(ball->state.pose.position.z, 4.0 - 0.5 * 9.81 * 0.25, 0.05);
    EXPECT_EQ(ball->updates, 30);
    const dt::integration_result_t step = c.STEP_SIMULATION();
    EXPECT_EQ(step.value_int, 31);
    EXPECT_EQ(states_of(step).count(1), 1u);

    // Errors: the blocking form throws the error URI; the server remembers the text.
    EXPECT_EQ(test_support::error_of([&] { c.GET_PROPERTY("missing"); }), "qor.error.not_found");
    const auto errors = c.GET_LAST_ERRORS(true);
    ASSERT_EQ(errors.values.size(), 1u);
    EXPECT_THAT(errors.values[0], HasSubstr("no property named 'missing'"));
}

TEST_P(ServerOverFraming, TwoClientsShareTheSceneAndUpdates) {
    App a(url());
    App b(url());
    a.ground_and_ball(6.0);
    a.client->send_scene_to_server();
    a.client->SET_PUBLISH_PERIOD_MS(10.0);
    // B mirrors the server's scene, then both follow the published states.
    b.client->get_server_scene();
    ASSERT_TRUE(b.pump_until([&] { return b.client->getComponent(1) != nullptr; }));
    const int va = a.client->getSceneStateVersion();
    const int vb = b.client->getSceneStateVersion();
    a.client->START_SIMULATION();
    ASSERT_TRUE(a.pump_until([&] { return a.client->getSceneStateVersion() >= va + 5; }));
    ASSERT_TRUE(b.pump_until([&] { return b.client->getSceneStateVersion() >= vb + 5; }));
    // Calls from both interleave while the simulation runs.
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(a.client->SET_PROPERTY("who", "a"), i == 0 ? 1 : 0);
        EXPECT_EQ(b.client->GET_PROPERTY("who"), "a");
    }
    b.client->STOP_SIMULATION();
    a.pump_until([] { return false; }, std::chrono::milliseconds(100));
    b.pump_until([] { return false; }, std::chrono::milliseconds(100));
    EXPECT_LT(a.body(1)->state.pose.position.z, 6.0);
    EXPECT_EQ(a.body(1)->state.pose.position.z, b.body(1)->state.pose.position.z)
        << "both applied the same last state";

    // QUIT from one client says GOODBYE to every session and the server exits cleanly.
    EXPECT_EQ(b.client->QUIT(), 0);
    EXPECT_TRUE(a.pump_until([&] { return !a.peer.server_connected; }));
    EXPECT_TRUE(b.pump_until([&] { return !b.peer.server_connected; }));
    EXPECT_THAT(static_cast<transport::Endpoint*>(a.peer.server_endpoint->connection)->last_error(),
                HasSubstr("wamp.close.system_shutdown"));
    EXPECT_EQ(server->wait(std::chrono::milliseconds(10000)), 0);
}

TEST_P(ServerOverFraming, ClientVanishingMidCallDoesNotDisturbOthers) {
    App steady(url());
    steady.ground_and_ball(3.0);
    steady.client->send_scene_to_server();
    steady.client->sync_step();
    {
        // Fire many calls, then vanish without reading any answer.
        QorClient leaver;
        transport::connect(leaver, url());
        for (int i = 0; i < 200; ++i)
            leaver.call<std::string>([](wamp::RpcResult<std::string>) {},
                                     "qor.server.operation.GET_LOGS_LABELS");
        leaver.call<int>([](wamp::RpcResult<int>) {}, "qor.server.operation.SAVE_COMPONENTS",
                         std::string("left"));
        leaver.update_first();
        leaver.update_second();
    }
    for (int i = 0; i < 50; ++i) steady.client->sync_step();
    EXPECT_LT(steady.body(1)->state.pose.position.z, 3.0);
    EXPECT_EQ(steady.client->GET_LOGS_LABELS().empty(), false);
    EXPECT_TRUE(steady.peer.server_connected);
}

INSTANTIATE_TEST_SUITE_P(Framings, ServerOverFraming, ::testing::Values("rawsocket", "websocket"),
                         [](const auto& info) { return info.param; });

TEST(ServerProcess, TicketIsRequiredWhenConfigured) {
    TempFolder data;
    auto server = start_server(data, {"--ticket", "s3cret", "--authid", "lab"});
    transport::ConnectOptions wrong;
    wrong.authid = "lab";
    wrong.authmethods = {"ticket"};
    wrong.ticket = "guess";
    QorClient refused;
    EXPECT_THROW(transport::connect(refused, server->rawsocket_url(), wrong), std::runtime_error);
    QorClient anonymous;
    EXPECT_THROW(transport::connect(anonymous, server->websocket_url()), std::runtime_error);

    transport::ConnectOptions right = wrong;
    right.ticket = "s3cret";
    QorClient peer;
    transport::connect(peer, server->rawsocket_url(), right);
    test_support::quiet_logger();
    DaxClient client(&peer);
    EXPECT_EQ(client.AUTHENTICATE("s3cret"), "authenticated");
    EXPECT_THROW(client.AUTHENTICATE("guess"), std::runtime_error);
}

TEST(ServerProcess, DeviceFramesReachTheClient) {
    TempFolder data;
    auto server = start_server(data, {"--devices", "50"});
    App app(server->rawsocket_url());
    for (const std::string& t : dax::types::device_topics())
        app.peer.serve_topic(t, app.peer.server_endpoint);
    DaxClient& c = *app.client;
    ASSERT_TRUE(app.pump_until([&] {
        return c.is_art_available() && c.is_kinect_available(0) && c.is_leap_available(0) &&
               c.is_moticon_available() && c.is_openvr_available(0) && c.is_optitrack_available() &&
               c.is_xsens_available();
    }));
    dt::xsens_frame_t xsens;
    ASSERT_TRUE(c.get_xsens_frame(xsens));
    EXPECT_EQ(xsens.segments.size(), 23u);
    EXPECT_EQ(c.get_leap_ids(), std::vector<int>{0});
}

TEST(ServerProcess, BadCommandLineIsRefused) {
    const std::string exe = launch::executable_folder() + "/qor-sim-server";
    for (const char* args :
         {"--rawsocket-port 70000", "--devices", "--bogus", "--no-rawsocket --no-websocket"}) {
        const int status = std::system((exe + " " + args + " >/dev/null 2>&1").c_str());
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 2) << args;
    }
}

// ---- fault scenarios: the server killed while saving. (A restart under automatic reconnection
// is the transport's own test, against the in-process router.)

TEST(FaultScenario, PersistenceKilledMidSaveLosesNoEarlierSave) {
    TempFolder data;
    {
        auto server = start_server(data);
        App app(server->rawsocket_url());
        app.ground_and_ball(5.0);
        app.client->send_scene_to_server();
        EXPECT_EQ(app.client->SAVE_COMPONENTS("kept"), 2);
        // Saves of the same name keep coming when the server is killed.
        for (int i = 0; i < 20; ++i)
            app.client->SAVE_COMPONENTS("kept", [](wamp::RpcResult<int>) {});
        app.client->full_update();
        server->kill_now();
    }
    // A save killed between its write and its rename leaves this behind.
    std::ofstream(data.path() / "kept.scene.tmp.999999") << "half a scene";
    auto server = start_server(data);
    App app(server->websocket_url());
    EXPECT_EQ(app.client->LOAD_COMPONENTS("kept"), 2);
    for (const auto& entry : std::filesystem::directory_iterator(data.path()))
        EXPECT_THAT(entry.path().filename().string(), ::testing::Not(HasSubstr(".tmp.")));
}

}  // namespace
}  // namespace qor::sim::testing
