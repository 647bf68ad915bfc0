// The viewer in a real browser: qor-sim-server holds the demo's kind of scene, headless
// Chromium (driven by puppeteer-core, see viewer_check.cjs) opens the page the server
// serves, runs the scene with its buttons and checks what the page draws; a client call
// confirms that the page's Pause button really paused the server. Then the server restarts
// on the same port asking for a ticket, and the page must join it again. Needs node and
// chromium: without them the test is skipped, except in CI (env CI set), where that fails.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/transport/connect.hpp>
#include <rigid_body/components.hpp>

#include "support/testing.hpp"

namespace {

namespace fs = std::filesystem;

std::string find_tool(const char* env, const std::vector<std::string>& candidates) {
    if (const char* set = std::getenv(env); set && *set) return set;
    for (const auto& c : candidates)
        if (::access(c.c_str(), X_OK) == 0) return c;
    return "";
}

// Runs `command`, handing each line it prints to `on_line`; returns its exit code.
int run(const std::string& command, const std::function<void(const std::string&)>& on_line) {
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return -1;
    char* line = nullptr;
    size_t size = 0;
    for (ssize_t n; (n = ::getline(&line, &size, pipe)) > 0;)
        on_line(std::string(line, line[n - 1] == '\n' ? n - 1 : n));
    std::free(line);
    const int status = ::pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

TEST(ViewerBrowser, DrawsTheSceneMovesItAndPausesTheServer) {
    const std::string node = find_tool("QOR_NODE", {"/usr/bin/node", "/usr/local/bin/node"});
    const std::string chromium = find_tool("QOR_CHROMIUM", {"/usr/bin/chromium"});
    QOR_REQUIRE_TOOL(!node.empty(), "node");
    QOR_REQUIRE_TOOL(!chromium.empty(), "chromium");
    QOR_REQUIRE_TOOL(fs::exists(fs::path(QOR_VIEWER_NODE_MODULES) / "puppeteer-core"),
                     "puppeteer-core (scripts/install-deps runs npm ci)");

    test_support::TempFolder data;
    auto server = test_support::start_server(data, {"--devices", "20"});
    const uint16_t port = server->websocket_port();

    test_support::quiet_logger();
    auto peer = std::make_unique<qor::QorClient>();
    qor::transport::connect(*peer, server->rawsocket_url());
    auto client = std::make_unique<dax::client::DaxClient>(peer.get());
    client->setTimeoutMs(10000);
    client->init("viewer-test", [](int64_t, std::string) {});

    // Ground, three boxes stacked, a ball thrown at them and a mesh wedge: five bodies.
    client->Reset();
    client->Create("Ground");
    for (int i = 0; i < 3; ++i) {
        auto* box = static_cast<rigid_body::Body*>(client->Create("Body"));
        box->size = {0.25, 0.25, 0.25};
        box->state.pose.position = {0, 0, 0.25 + 0.5 * i};
    }
    auto* ball = static_cast<rigid_body::Body*>(client->Create("Body"));
    ball->shape = "sphere";
    ball->size = {0.2, 0, 0};
    ball->state.pose.position = {-3, 0, 1.2};
    ball->state.linear = {5, 0, 1};
    const long long mesh = client->CREATE_TRIMESH("wedge", 4, 4, 0);
    dax::types::mesh_batch_t batch;
    batch.vertices = {{-0.4, -0.4, 0}, {0.4, -0.4, 0}, {0, 0.4, 0}, {0, 0, 0.6}};
    batch.triangles = {{0, 2, 1}, {0, 1, 3}, {1, 2, 3}, {2, 0, 3}};
    client->UPDATE_TRIMESH(mesh, 0, 0, batch);
    auto* wedge = static_cast<rigid_body::Body*>(client->Create("Body"));
    wedge->shape = "mesh";
    wedge->mesh_id = mesh;
    wedge->state.pose.position = {1.5, 1, 2};
    client->send_scene_to_server();

    const fs::path shot = fs::path(QOR_VIEWER_SCREENSHOT_DIR) / "viewer.png";
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
    std::string measured;
    bool rejoined = false;
    const int code = run(
        quoted(node) + " " + quoted(QOR_VIEWER_CHECK_SCRIPT) + " " + quoted(url) + " 5 " +
            quoted(shot.string()) + " " + quoted(QOR_VIEWER_NODE_MODULES) + " " + quoted(chromium),
        [&](const std::string& line) {
            std::cout << line << std::endl;
            if (line.find("\"checked\":true") != std::string::npos) {
                measured = line;
                // The page pressed Start, Pause and then Step once: the server must be
                // paused, so a step asked for now comes back paused, one step further.
                const auto step = client->STEP_SIMULATION();
                EXPECT_EQ(step.details.i9, 2) << "the server is not paused";
                EXPECT_NE(line.find("\"paused_at\":" + std::to_string(step.value_int - 1) + ","),
                          std::string::npos)
                    << "server step " << step.value_int;
            } else if (line == "restart") {
                client.reset();
                peer.reset();
                server.reset();
                server = test_support::start_server(
                    data, {"--devices", "20", "--websocket-port", std::to_string(port), "--ticket",
                           "viewer-secret"});
            } else if (line.find("\"ok\":true") != std::string::npos) {
                rejoined = true;
            }
        });
    EXPECT_EQ(code, 0) << "the browser check failed (its reason is on stderr above)";
    EXPECT_FALSE(measured.empty());
    EXPECT_TRUE(rejoined) << "the page did not join the restarted server";
    EXPECT_TRUE(fs::exists(shot) && fs::file_size(shot) > 10000u) << shot;
    if (HasFailure())
        std::cerr << "---- server log\n"
                  << test_support::read_text(data.path() / "server.log") << "----\n";
}

}  // namespace
