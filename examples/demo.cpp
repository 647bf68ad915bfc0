// qor-demo: a tour of the SDK against a simulation server.
//
// Without --url it starts the reference server (qor-sim-server, built beside it) on free
// ports and stops it at the end (not on Windows, where it needs --url). It loads the
// rigid-body plug-in, builds a small scene (ground, a stack of boxes, a ball and a mesh body),
// steps it with sync_step and then lets the server run it, prints the heights of a few bodies
// over time, saves and reloads the scene, shows one frame of each simulated device, and shuts
// down. The heights also go to an SVG chart in the current folder. The server's browser viewer
// shows the scene live; with --view the demo keeps the scene running after the table until
// Ctrl-C, for a person to watch.

#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/transport/connect.hpp>
#include <rigid_body/components.hpp>

#include "chart.hpp"
#include "demo_platform.hpp"

namespace {

using Clock = std::chrono::steady_clock;
namespace dt = dax::types;

struct Args {
    std::string url;
    std::string realm = "realm1";
    std::string ticket;
    std::string authid = "client";
    bool view = false;
};

Args parse(int argc, char** argv) {
    Args a;
    for (int i = 1; i < argc; ++i) {
        const std::string k = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw std::runtime_error(k + " needs a value");
            return argv[++i];
        };
        if (k == "--url")
            a.url = value();
        else if (k == "--realm")
            a.realm = value();
        else if (k == "--ticket")
            a.ticket = value();
        else if (k == "--authid")
            a.authid = value();
        else if (k == "--view")
            a.view = true;
        else if (k == "--help" || k == "-h") {
            std::cout << "usage: qor-demo [--url rs://host:port | ws://host:port] [--realm R]"
                         " [--ticket SECRET --authid ID] [--view]\n"
                         "Without --url the demo starts qor-sim-server itself (not on Windows).\n"
                         "--view keeps the scene running after the table until Ctrl-C, to watch\n"
                         "it in the viewer whose address the demo prints.\n";
            std::exit(0);
        } else {
            throw std::runtime_error("unknown option " + k);
        }
    }
    return a;
}

// One line that redraws itself on a terminal: "label [#####.....] 12/24". Piped output gets
// the finished line only.
void progress(const std::string& label, int done, int total) {
    static const bool terminal = stdout_is_terminal();
    if (!terminal && done < total) return;
    const int width = 30;
    const int filled = total > 0 ? done * width / total : width;
    std::printf("\r  %-22s [%s%s] %d/%d", label.c_str(), std::string(filled, '#').c_str(),
                std::string(width - filled, '.').c_str(), done, total);
    if (done >= total) std::printf("\n");
    std::fflush(stdout);
}

// Pumps until `done` or `limit`; false when the limit came first.
bool pump_until(dax::client::DaxClient& client, const std::function<bool()>& done,
                std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > end) return false;
        if (!client.full_update()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

template <class T>
T* as(dax::client::IClientComponent* c) {
    if (!c || c->getType() != T::kType)
        throw std::runtime_error("the rigid-body plug-in did not load");
    return static_cast<T*>(c);
}

// The scene: ground, four boxes stacked, a ball thrown at the stack, a pyramid made of a
// triangle mesh dropped beside it.
struct Scene {
    rigid_body::Body* top_box = nullptr;
    rigid_body::Body* ball = nullptr;
    rigid_body::Body* pyramid = nullptr;
};

Scene build_scene(dax::client::DaxClient& client) {
    client.Reset();
    as<rigid_body::Ground>(client.Create("Ground"));
    Scene s;
    for (int i = 0; i < 4; ++i) {
        auto* box = as<rigid_body::Body>(client.Create("Body"));
        box->size = {0.25, 0.25, 0.25};
        box->state.pose.position = {0, 0, 0.25 + 0.5 * i};
        s.top_box = box;
    }
    s.ball = as<rigid_body::Body>(client.Create("Body"));
    s.ball->shape = "sphere";
    s.ball->size = {0.2, 0, 0};
    s.ball->mass = 3;
    s.ball->state.pose.position = {-3, 0, 1.8};
    s.ball->state.linear = {6, 0, 1};

    // A square pyramid: four base corners and an apex, six triangles.
    const long long mesh = client.CREATE_TRIMESH("pyramid", 5, 6, 0);
    dt::mesh_batch_t batch;
    batch.vertices = {{-0.5, -0.5, 0}, {0.5, -0.5, 0}, {0.5, 0.5, 0}, {-0.5, 0.5, 0}, {0, 0, 0.8}};
    batch.triangles = {{0, 2, 1}, {0, 3, 2}, {0, 1, 4}, {1, 2, 4}, {2, 3, 4}, {3, 0, 4}};
    client.UPDATE_TRIMESH(mesh, 0, 0, batch);
    s.pyramid = as<rigid_body::Body>(client.Create("Body"));
    s.pyramid->shape = "mesh";
    s.pyramid->mesh_id = mesh;
    s.pyramid->size = {1, 1, 1};
    s.pyramid->mass = 2;
    s.pyramid->state.pose.position = {2, 1, 3};
    return s;
}

// The viewer is served on the WebSocket port: "ws://host:port..." becomes "http://host:port/".
std::string viewer_url(const std::string& websocket_url) {
    if (websocket_url.rfind("ws://", 0) != 0) return "";
    const std::string rest = websocket_url.substr(5);
    return "http://" + rest.substr(0, rest.find('/')) + "/";
}

std::atomic<bool> interrupted{false};

void write_chart(const std::string& path, const std::vector<demo::Series>& series) {
    std::ofstream out(path);
    out << demo::svg_line_chart("Heights over time", "time (s)", "height (m)", series);
    if (!out) throw std::runtime_error("cannot write " + path);
}

void show_devices(dax::client::DaxClient& client) {
    dt::art_frame_t art;
    dt::kinect_frame_t kinect;
    dt::leap_frame_t leap;
    dt::moticon_frame_t moticon;
    dt::openvr_frame_t openvr;
    dt::optitrack_frame_t optitrack;
    dt::xsens_frame_t xsens;
    const bool all = pump_until(
        client,
        [&] {
            return client.is_art_available() && client.is_kinect_available(0) &&
                   client.is_leap_available(0) && client.is_moticon_available() &&
                   client.is_openvr_available(0) && client.is_optitrack_available() &&
                   client.is_xsens_available();
        },
        std::chrono::milliseconds(5000));
    if (!all) std::printf("  (some device streams sent nothing within 5 s)\n");
    if (client.get_art_frame(art))
        std::printf("  ART        frame %d: %zu 6-DOF targets, %zu glove(s)\n", art.i1,
                    art.list_a.size(), art.list_d.size());
    if (client.get_kinect_frame(kinect, 0) && !kinect.bodies.empty()) {
        const auto& head = kinect.bodies[0].joints.at(6).pose;
        std::printf("  Kinect     frame %d: %zu body, %zu joints, head at (%.2f, %.2f, %.2f)\n",
                    kinect.i1, kinect.bodies.size(), kinect.bodies[0].joints.size(), head.x, head.y,
                    head.z);
    }
    if (client.get_leap_frame(leap, 0) && !leap.hands.empty())
        std::printf("  Leap       frame %d: %zu hands, grab strength %.2f / %.2f\n", leap.i1,
                    leap.hands.size(), leap.hands[0].f2, leap.hands.back().f2);
    if (client.get_moticon_frame(moticon))
        std::printf("  Moticon    pressure left %.1f at y=%.2f, right %.1f at y=%.2f\n",
                    moticon.left.value, moticon.left.point.y, moticon.right.value,
                    moticon.right.point.y);
    if (client.get_openvr_frame(openvr, 0))
        std::printf("  OpenVR     headset at height %.2f, %zu tracked devices\n",
                    openvr.device_a.pose.z, openvr.devices.size());
    if (client.get_optitrack_frame(optitrack))
        std::printf("  OptiTrack  frame %d: %zu rigid bodies\n", optitrack.i1,
                    optitrack.bodies.size());
    if (client.get_xsens_frame(xsens) && !xsens.segments.empty())
        std::printf("  Xsens      %zu segments, pelvis at (%.2f, %.2f, %.2f)\n",
                    xsens.segments.size(), xsens.segments[0].vector_a.x,
                    xsens.segments[0].vector_a.y, xsens.segments[0].vector_a.z);
}

int run(const Args& args) {
    // The client and its plug-in handler log through the spdlog logger named "logger".
    auto logger = spdlog::stdout_color_mt("logger");
    logger->set_level(spdlog::level::warn);

    std::unique_ptr<LocalServer> server;
    std::string url = args.url;
    if (url.empty()) {
        server = start_local_server();
        url = server->url();
    }
    const std::string viewer = viewer_url(server ? server->websocket_url() : url);
    if (!viewer.empty()) std::printf("  viewer: open %s in a browser\n", viewer.c_str());

    qor::QorClient peer;
    qor::transport::ConnectOptions options;
    options.realm = args.realm;
    if (!args.ticket.empty()) {
        options.authid = args.authid;
        options.authmethods = {"ticket"};
        options.ticket = args.ticket;
    }
    // This server relays the device streams itself.
    options.served_topics = dax::types::device_topics();
    std::printf("Connecting to %s\n", url.c_str());
    qor::transport::connect(peer, url, options);

    {
        dax::client::DaxClient client(&peer);
        client.setTimeoutMs(5000);
        client.init("qor-demo", [](int64_t, std::string) {});
        std::printf("Server build %s\n", client.GET_SERVER_BUILD_NUMBER().c_str());

        std::printf("\nBuilding the scene: ground, 4 stacked boxes, a ball, a mesh pyramid\n");
        client.CLEAR_SCENE();
        Scene scene = build_scene(client);
        client.send_scene_to_server();

        // Step by step: each sync_step runs one step on the server and applies its state.
        struct Row {
            double t, box, ball, pyramid;
        };
        std::vector<Row> rows;
        std::vector<demo::Series> chart = {{"top box", {}}, {"ball", {}}, {"pyramid", {}}};
        const int steps = 150;  // 2.5 s at the default 60 steps per second
        const auto sample = [&](double t) {
            chart[0].points.emplace_back(t, scene.top_box->state.pose.position.z);
            chart[1].points.emplace_back(t, scene.ball->state.pose.position.z);
            chart[2].points.emplace_back(t, scene.pyramid->state.pose.position.z);
        };
        const auto record = [&](double t) {
            rows.push_back({t, scene.top_box->state.pose.position.z,
                            scene.ball->state.pose.position.z,
                            scene.pyramid->state.pose.position.z});
            sample(t);
        };
        record(0);
        for (int i = 1; i <= steps; ++i) {
            client.sync_step();
            if (i % 15 == 0)
                record(i / 60.0);
            else
                sample(i / 60.0);
            if (i % 5 == 0) progress("sync_step", i, steps);
        }

        // Then the server's own clock: START, and apply every published update while pumping.
        const int version = client.getSceneStateVersion();
        client.START_SIMULATION();
        const auto run_for = std::chrono::milliseconds(1500);
        const auto started = Clock::now();
        while (Clock::now() - started < run_for) {
            if (client.full_update())
                sample(steps / 60.0 +
                       std::chrono::duration<double>(Clock::now() - started).count());
            const auto ms =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started);
            progress("running (updates: " +
                         std::to_string(client.getSceneStateVersion() - version) + ")",
                     static_cast<int>(std::min(ms, run_for - std::chrono::milliseconds(1)).count()),
                     static_cast<int>(run_for.count()));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        progress(
            "running (updates: " + std::to_string(client.getSceneStateVersion() - version) + ")",
            static_cast<int>(run_for.count()), static_cast<int>(run_for.count()));
        client.STOP_SIMULATION();
        // Updates published before STOP may still be on the way.
        while (client.full_update()) {
        }
        record(steps / 60.0 + 1.5);

        std::printf("\nHeights (m) over time\n");
        std::printf("  %8s %10s %10s %10s\n", "t (s)", "top box", "ball", "pyramid");
        for (const Row& r : rows)
            std::printf("  %8.2f %10.3f %10.3f %10.3f\n", r.t, r.box, r.ball, r.pyramid);
        const std::string chart_path =
            (std::filesystem::current_path() / "qor-demo-heights.svg").string();
        write_chart(chart_path, chart);
        std::printf("  chart: %s\n", chart_path.c_str());


        std::printf("\nSaving the scene as 'demo', clearing it, and loading it back\n");
        const int saved = client.SAVE_COMPONENTS("demo");
        for (const auto& p : client.BROWSE_PERSISTENCES().values)
            std::printf("  saved '%s' at Unix time %.0f\n", p.first.c_str(), p.second);
        const double ball_before = scene.ball->state.pose.position.z;
        const int64_t ball_id = scene.ball->getId();
        std::printf("  cleared %d components on the server\n", client.CLEAR_SCENE());
        std::printf("  loaded %d of %d components\n", client.LOAD_COMPONENTS("demo"), saved);
        client.get_server_scene();  // drops the local components and rebuilds them
        if (!pump_until(
                client, [&] { return client.getComponent(ball_id) != nullptr; },
                std::chrono::milliseconds(5000)))
            throw std::runtime_error("the saved scene did not come back");
        auto* ball = as<rigid_body::Body>(client.getComponent(ball_id));
        std::printf("  the ball is back at height %.3f m (was %.3f m)\n",
                    ball->state.pose.position.z, ball_before);

        std::printf("\nOne frame of each simulated device\n");
        show_devices(client);

        if (args.view) {
            // The scene from the start again, left running until Ctrl-C.
            client.CLEAR_SCENE();
            build_scene(client);
            client.send_scene_to_server();
            client.START_SIMULATION();
            if (viewer.empty())
                std::printf("\nThe scene is running; press Ctrl-C to end\n");
            else
                std::printf("\nThe scene is running: watch it at %s ; press Ctrl-C to end\n",
                            viewer.c_str());
            std::fflush(stdout);
            std::signal(SIGINT, [](int) { interrupted = true; });
            while (!interrupted)
                if (!client.full_update()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
            std::signal(SIGINT, SIG_DFL);
        }

        if (server) {
            std::printf("\nShutting the server down\n");
            // Ctrl-C in a terminal reaches the demo's own server as well, which then shuts
            // itself down and may be gone already.
            try {
                client.QUIT();
            } catch (const std::exception&) {
                if (!interrupted) throw;
            }
        }
    }
    if (server && server->finish() != 0) return 1;
    std::printf("Done.\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(parse(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "\nqor-demo: %s\n", e.what());
        return 1;
    }
}
