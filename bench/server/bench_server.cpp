// Rates of the reference server: steps per second of the core with the share of time spent
// in Bullet against encoding the state; published updates per second received by a client;
// sync_step round trips per second. Bodies are spheres dropped in a square grid on a ground.

#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <thread>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <dax/client.hpp>
#include <qor/launch/server_process.hpp>
#include <qor/qor_client.hpp>
#include <qor/sim/core.hpp>
#include <qor/sim/scene.hpp>
#include <qor/transport/connect.hpp>
#include <rigid_body/components.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
namespace dt = dax::types;
namespace sim = qor::sim;
using Clock = std::chrono::steady_clock;

std::filesystem::path temp_folder(const char* what) {
    auto p = std::filesystem::temp_directory_path() /
             (std::string("qor-bench-") + what + "-" + std::to_string(::getpid()));
    std::filesystem::create_directories(p);
    return p;
}

std::vector<sim::Component> grid_scene(int bodies) {
    std::vector<sim::Component> scene;
    sim::Component ground{sim::kGroundType, 0, 0, {}};
    sim::encode(ground.data, sim::GroundData{});
    scene.push_back(ground);
    const int side = static_cast<int>(std::ceil(std::sqrt(bodies)));
    for (int i = 0; i < bodies; ++i) {
        sim::BodyData b;
        b.shape = sim::Shape::sphere;
        b.size = {0.4, 0, 0};
        b.pose.position = {1.0 * (i % side), 1.0 * (i / side), 2.0 + 0.1 * (i % 7)};
        sim::Component c{sim::kBodyType, i + 1, 0, {}};
        sim::encode(c.data, b);
        scene.push_back(std::move(c));
    }
    return scene;
}

// In process: one STEP_SIMULATION call = Bullet step + encoding the result.
void BM_CoreStep(benchmark::State& state) {
    const auto folder = temp_folder("core");
    sim::CoreOptions options;
    options.data_dir = folder.string();
    sim::SimulationCore core(options);
    std::vector<uint8_t> args;
    mp::pack(args, mp::buffer(sim::encode_scene(grid_scene(static_cast<int>(state.range(0))))));
    core.call("qor.server.operation.SEND_SCENE", args.data(), args.size(), 1);
    double bullet_ms = 0;
    uint64_t bytes = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        const sim::CallResult r = core.call("qor.server.operation.STEP_SIMULATION");
        if (!r.ok) state.SkipWithError(r.message.c_str());
        dt::integration_result_t result;
        mp::ReadBuffer in(r.value.data(), r.value.size());
        dt::read(in, result);
        bullet_ms += result.details.f4;
        bytes += r.value.size();
    }
    const double total_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    state.counters["steps/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["bullet_share"] = bullet_ms / total_ms;
    state.counters["encode_share"] = 1 - bullet_ms / total_ms;
    state.counters["bytes/step"] = double(bytes) / double(state.iterations());
    std::filesystem::remove_all(folder);
}
BENCHMARK(BM_CoreStep)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

struct ServerFixture {
    std::filesystem::path folder = temp_folder("server");
    std::unique_ptr<qor::launch::ServerProcess> server;
    qor::QorClient peer;

    ServerFixture() {
        if (!spdlog::get("logger"))
            spdlog::register_logger(std::make_shared<spdlog::logger>(
                "logger", std::make_shared<spdlog::sinks::null_sink_mt>()));
        qor::launch::LaunchOptions launch;
        launch.executable = qor::launch::executable_folder() + "/qor-sim-server";
        launch.args = {"--data-dir", folder.string()};
        launch.log_path = (folder / "server.log").string();
        server = std::make_unique<qor::launch::ServerProcess>(launch);
        qor::transport::connect(peer, server->rawsocket_url());
    }
    ~ServerFixture() {
        server.reset();
        std::filesystem::remove_all(folder);
    }
};

// Over the network: the server runs on its own clock with 1 ms periods; each iteration waits
// for one published update. The server's Bullet time per step comes with every update.
void BM_PublishedUpdates(benchmark::State& state) {
    ServerFixture f;
    dax::client::DaxClient client(&f.peer);
    client.setTimeoutMs(60000);
    client.SEND_SCENE(mp::buffer(sim::encode_scene(grid_scene(static_cast<int>(state.range(0))))));
    int64_t received = 0;
    double bullet_ms = 0;
    int first_step = -1, last_step = 0;
    uint64_t bytes = 0;
    f.peer.bind_publish<dt::integration_result_t>(
        "qor.server.update",
        [&](dt::integration_result_t r) {
            ++received;
            bullet_ms += r.details.f4;
            if (first_step < 0) first_step = r.value_int;
            last_step = r.value_int;
            bytes += r.states.size;
        },
        nullptr);
    client.SET_SERVER_PERIOD_MS(1.0);
    client.SET_PUBLISH_PERIOD_MS(1.0);
    client.START_SIMULATION();
    while (received == 0) client.full_update();
    received = 0;
    bullet_ms = 0;
    bytes = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        const int64_t want = received + 1;
        while (received < want) client.full_update();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    client.STOP_SIMULATION();
    state.counters["updates/s"] = double(received) / seconds;
    state.counters["server_steps/s"] = double(last_step - first_step) / seconds;
    // The server's wall time spent in Bullet: its steps per second times the mean Bullet time
    // of a step (each update carries the time of the step before it).
    const double steps_per_s = double(last_step - first_step) / seconds;
    state.counters["bullet_share"] =
        received ? std::min(1.0, steps_per_s * (bullet_ms / double(received)) / 1000.0) : 0;
    state.counters["bytes/update"] = received ? double(bytes) / double(received) : 0;
}
BENCHMARK(BM_PublishedUpdates)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

// sync_step round trips with 1,000 bodies mirrored by the rigid-body plug-in.
void BM_SyncStep(benchmark::State& state) {
    ServerFixture f;
    dax::client::DaxClient client(&f.peer);
    client.init("bench", [](int64_t, std::string) {});
    for (int i = 0; i < state.range(0); ++i) {
        auto* b = static_cast<rigid_body::Body*>(client.Create("Body"));
        b->shape = "sphere";
        b->size = {0.4, 0, 0};
        b->state.pose.position = {1.0 * (i % 32), 1.0 * (i / 32), 2.0};
    }
    client.Create("Ground");
    client.send_scene_to_server();
    for (auto _ : state) client.sync_step();
    state.counters["round_trips/s"] =
        benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SyncStep)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
