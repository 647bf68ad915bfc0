// The reference server against its floors, each measured in the same run: a blocking
// no-argument call against the in-process router of the transport benchmark; scene transfer
// against a TCP request/ack of the same bytes; steps per second against Bullet alone; the
// share of the server's time spent in Bullet while it publishes every step. Bodies are
// spheres dropped in a square grid on a ground.
//
// After Google Benchmark's table, one "@row" line per target (see bench/README.md).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <dax/client.hpp>
#include <qor/launch/server_process.hpp>
#include <qor/qor_client.hpp>
#include <qor/router/broker.hpp>
#include <qor/router/server.hpp>
#include <qor/sim/core.hpp>
#include <qor/sim/scene.hpp>
#include <qor/sim/world.hpp>
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

const std::string kOp = dax::types::kOperationPrefix;

// One "@row" line, printed after the benchmarks.
struct Row {
    std::string key, label, ours, floor, target;
    double value = 0;
};
std::vector<Row> rows;

// Google Benchmark runs a function more than once while it settles the iteration count; the
// last run, the one it reports, has the last word.
void add_row(std::string key, std::string label, std::string ours, std::string floor,
             double value, std::string target) {
    Row row{key, std::move(label), std::move(ours), std::move(floor), std::move(target), value};
    for (Row& r : rows)
        if (r.key == key) return void(r = std::move(row));
    rows.push_back(std::move(row));
}

std::string figure(double v, const char* unit) {
    char text[64];
    std::snprintf(text, sizeof text, v >= 100 ? "%.0f %s" : "%.3g %s", v, unit);
    return text;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
    return v[v.size() / 2];
}

double micros_since(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// CPU time (user + system) the process `pid` has used so far, in ms.
double process_cpu_ms(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Fields after the command name, which may hold spaces, start past its ')'.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i) fields >> skip;
    double user = 0, system = 0;
    fields >> user >> system;
    return (user + system) * 1000.0 / double(::sysconf(_SC_CLK_TCK));
}

// How a caller waits for its answer: pumping without pause (what blocking operations do by
// default) or sleeping in the OS until the link has something (their opt-in strategy).
enum class Wait { spin, sleep };

// Pumps `peer` until `done` is set.
void pump_until(qor::QorClient& peer, const bool& done, Wait how = Wait::spin) {
    for (;;) {
        peer.update_first();
        peer.update_second();
        if (done) return;
        if (how == Wait::sleep) peer.wait(std::chrono::milliseconds(100));
    }
}

// Round trip of one call whose answer is an int (or nothing).
template <class... Args>
double blocking_call_us(Wait how, qor::QorClient& peer, const std::string& procedure,
                        const Args&... args) {
    bool done = false;
    std::function<void(qor::wamp::RpcResult<int>)> finish = [&](qor::wamp::RpcResult<int> r) {
        if (r.isError) throw std::runtime_error(procedure + ": " + r.error);
        done = true;
    };
    const auto start = Clock::now();
    peer.call<int>(finish, procedure, args...);
    pump_until(peer, done, how);
    return micros_since(start);
}
template <class... Args>
double blocking_call_us(qor::QorClient& peer, const std::string& procedure, const Args&... args) {
    return blocking_call_us(Wait::spin, peer, procedure, args...);
}

// The router of the transport benchmark: it answers every CALL at once with an empty RESULT,
// from its I/O thread.
struct InProcessRouter {
    qor::router::Server server;
    qor::router::Broker broker{server, answer_empty, inline_calls()};
    InProcessRouter() {
        server.on_message([this](uint64_t session, const qor::wamp::Message& m) {
            broker.on_message(session, m);
        });
        server.start();
    }
    ~InProcessRouter() { server.stop(); }
    std::string url() const { return "rs://127.0.0.1:" + std::to_string(server.rawsocket_port()); }

    static std::optional<qor::router::Answer> answer_empty(uint64_t, const qor::wamp::Message&) {
        return qor::router::Answer{};
    }
    static qor::router::BrokerOptions inline_calls() {
        qor::router::BrokerOptions o;
        o.call_worker = false;
        return o;
    }
};

// A TCP peer that reads requests of `request` bytes and answers each with `reply` bytes: the
// floor of a call carrying the same bytes, on the same kind of socket.
class TcpRequestAck {
  public:
    TcpRequestAck(size_t request, size_t reply) : request_(request), reply_(reply) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 1);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        peer_ = std::thread([this] {
            const int s = ::accept(listener_, nullptr, nullptr);
            nodelay(s);
            std::vector<uint8_t> in(request_), out(reply_, 1);
            while (exchange(s, nullptr, 0, in.data(), in.size()) && send_all(s, out)) {
            }
            ::close(s);
        });
        socket_ = ::socket(AF_INET, SOCK_STREAM, 0);
        if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("TCP floor: cannot connect");
        nodelay(socket_);
        out_.assign(request_, 2);
        in_.resize(reply_);
    }
    ~TcpRequestAck() {
        ::shutdown(socket_, SHUT_RDWR);
        ::close(socket_);
        peer_.join();
        ::close(listener_);
    }
    double round_trip_us() {
        const auto start = Clock::now();
        if (!exchange(socket_, out_.data(), out_.size(), in_.data(), in_.size()))
            throw std::runtime_error("TCP floor: connection lost");
        return micros_since(start);
    }

  private:
    static void nodelay(int s) {
        int one = 1;
        ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    static bool send_all(int s, const std::vector<uint8_t>& bytes) {
        return send_bytes(s, bytes.data(), bytes.size());
    }
    static bool send_bytes(int s, const uint8_t* data, size_t size) {
        for (size_t sent = 0; sent < size;) {
            const ssize_t n = ::send(s, data + sent, size - sent, MSG_NOSIGNAL);
            if (n <= 0) return false;
            sent += size_t(n);
        }
        return true;
    }
    static bool exchange(int s, const uint8_t* out, size_t out_size, uint8_t* in, size_t in_size) {
        if (out_size && !send_bytes(s, out, out_size)) return false;
        for (size_t got = 0; got < in_size;) {
            const ssize_t n = ::recv(s, in + got, in_size - got, 0);
            if (n <= 0) return false;
            got += size_t(n);
        }
        return true;
    }

    size_t request_, reply_;
    int listener_ = -1, socket_ = -1;
    std::thread peer_;
    std::vector<uint8_t> out_, in_;
};

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

// The size of the frame a message puts on a RawSocket link.
size_t frame_size(const qor::wamp::Message& m) {
    return 4 + qor::wamp::serialize(m).size;
}

// ---- the call path ----------------------------------------------------------------------

// A blocking no-argument call to the server and one to the in-process router, interleaved.
void BM_CallPath(benchmark::State& state) {
    ServerFixture f;
    InProcessRouter router;
    qor::QorClient near;
    qor::transport::connect(near, router.url());
    const std::string procedure = kOp + "GET_PERSISTENCE_MODE";
    // As cheap, but not among the quick operations: its call goes through the worker thread.
    const std::string handed_off = kOp + "CLEAR_TRIMESHES";
    std::vector<double> ours, floor, worker;
    for (auto _ : state) {
        floor.push_back(blocking_call_us(near, "bench.noop"));
        ours.push_back(blocking_call_us(f.peer, procedure));
        worker.push_back(blocking_call_us(f.peer, handed_off));
    }
    const double o = median(ours), r = median(floor);
    state.counters["server_us"] = o;
    state.counters["router_us"] = r;
    state.counters["via_worker_us"] = median(worker);
    add_row("call.server", "blocking call to qor-sim-server / in-process router",
            figure(o, "us"), "router " + figure(r, "us"), o / r, "<=1.5");
}
BENCHMARK(BM_CallPath)->Iterations(10000)->UseRealTime()->Unit(benchmark::kMicrosecond);

// ---- scene transfer ---------------------------------------------------------------------

// A scene record of about `size` bytes: one component of a type the server keeps but does not
// simulate, its data a binary value, so that its cost is the transfer and the bookkeeping.
std::vector<uint8_t> blob_scene(size_t size) {
    std::vector<sim::Component> scene(1);
    scene[0].type = "Label";
    scene[0].id = 1;
    size_t payload = 0;
    for (int pass = 0; pass < 3; ++pass) {
        scene[0].data.clear();
        mp::pack(scene[0].data, mp::buffer(std::vector<uint8_t>(payload, 7)));
        const size_t encoded = sim::encode_scene(scene).size();
        if (encoded == size) break;
        payload = encoded < size ? payload + (size - encoded) : payload - (encoded - size);
    }
    return sim::encode_scene(scene);
}

std::string size_name(size_t size) {
    if (size >= 1 << 20) return std::to_string(size >> 20) + " MiB";
    if (size >= 1 << 10) return std::to_string(size >> 10) + " KiB";
    return std::to_string(size) + " B";
}

// SEND_SCENE of a record of range(0) bytes, interleaved with a TCP request/ack of the frames
// the call puts on the wire. The caller sleeps while it waits, as the floor's does in recv;
// the counter server_spinning_us is the same call with the default busy wait.
void BM_SendScene(benchmark::State& state) {
    const size_t size = size_t(state.range(0));
    ServerFixture f;
    const mp::buffer record(blob_scene(size));
    qor::wamp::Message call(qor::wamp::CALL, qor::wamp::Id(1ULL << 52), kOp + "SEND_SCENE");
    call.args.push_back(record);
    qor::wamp::Message result(qor::wamp::RESULT);
    result.request = qor::wamp::Id(1ULL << 52);
    result.args.emplace_back(std::vector<uint8_t>{1});
    TcpRequestAck tcp(frame_size(call), frame_size(result));
    // What the scene itself costs: the same operation on a core in this process.
    const auto folder = temp_folder("scene");
    sim::CoreOptions options;
    options.data_dir = folder.string();
    sim::SimulationCore core(options);
    std::vector<uint8_t> args;
    mp::pack(args, record);
    std::vector<double> ours, floor, spinning, in_process;
    for (auto _ : state) {
        floor.push_back(tcp.round_trip_us());
        ours.push_back(blocking_call_us(Wait::sleep, f.peer, kOp + "SEND_SCENE", record));
        spinning.push_back(blocking_call_us(Wait::spin, f.peer, kOp + "SEND_SCENE", record));
        const auto start = Clock::now();
        core.call(kOp + "SEND_SCENE", args.data(), args.size(), 1);
        in_process.push_back(micros_since(start));
    }
    std::filesystem::remove_all(folder);
    const double o = median(ours), r = median(floor);
    state.counters["core_us"] = median(in_process);
    state.counters["server_us"] = o;
    state.counters["server_spinning_us"] = median(spinning);
    state.counters["tcp_us"] = r;
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
    add_row("scene.send." + std::to_string(size),
            "SEND_SCENE " + size_name(size) + ", share of TCP request/ack", figure(o, "us"),
            "TCP " + figure(r, "us"), r / o, size >= (1 << 20) ? ">=0.50" : "-");
}
BENCHMARK(BM_SendScene)
    ->Arg(16)
    ->Arg(1 << 10)
    ->Arg(64 << 10)
    ->Arg(1 << 20)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(1.0);

// GET_SERVER_SCENE of a 1 MiB record against a TCP request answered with the same bytes; the
// caller sleeps while it waits (server_spinning_us: the default busy wait).
void BM_GetServerScene(benchmark::State& state) {
    const size_t size = size_t(state.range(0));
    ServerFixture f;
    const mp::buffer record(blob_scene(size));
    blocking_call_us(f.peer, kOp + "SEND_SCENE", record);
    qor::wamp::Message call(qor::wamp::CALL, qor::wamp::Id(1ULL << 52), kOp + "GET_SERVER_SCENE");
    qor::wamp::Message result(qor::wamp::RESULT);
    result.request = qor::wamp::Id(1ULL << 52);
    result.args.push_back(record);
    TcpRequestAck tcp(frame_size(call), frame_size(result));
    std::vector<double> ours, floor, spinning;
    const auto fetch = [&](Wait wait) {
        bool done = false;
        std::function<void(qor::wamp::RpcResult<mp::buffer>)> finish =
            [&](qor::wamp::RpcResult<mp::buffer> r) {
                if (r.isError || r.value.size != record.size)
                    throw std::runtime_error("GET_SERVER_SCENE: not the scene sent");
                done = true;
            };
        const auto start = Clock::now();
        f.peer.call<mp::buffer>(finish, kOp + "GET_SERVER_SCENE");
        pump_until(f.peer, done, wait);
        return micros_since(start);
    };
    for (auto _ : state) {
        floor.push_back(tcp.round_trip_us());
        ours.push_back(fetch(Wait::sleep));
        spinning.push_back(fetch(Wait::spin));
    }
    const double o = median(ours), r = median(floor);
    state.counters["server_us"] = o;
    state.counters["server_spinning_us"] = median(spinning);
    state.counters["tcp_us"] = r;
    add_row("scene.get." + std::to_string(size),
            "GET_SERVER_SCENE " + size_name(size) + ", share of TCP request/ack",
            figure(o, "us"), "TCP " + figure(r, "us"), r / o, ">=0.50");
}
BENCHMARK(BM_GetServerScene)->Arg(1 << 20)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);

// ---- steps and publication --------------------------------------------------------------

std::vector<uint8_t> scene_argument(int bodies) {
    std::vector<uint8_t> args;
    mp::pack(args, mp::buffer(sim::encode_scene(grid_scene(bodies))));
    return args;
}

// In process: STEP_SIMULATION calls of the core, each Bullet's step and the encoding of every
// body's state, against steps of the same scene in a bare Bullet world.
void BM_CoreStep(benchmark::State& state) {
    const int bodies = int(state.range(0));
    const auto folder = temp_folder("core");
    sim::CoreOptions options;
    options.data_dir = folder.string();
    sim::SimulationCore core(options);
    const std::vector<uint8_t> args = scene_argument(bodies);
    core.call(kOp + "SEND_SCENE", args.data(), args.size(), 1);
    sim::PhysicsWorld bare;
    for (const sim::Component& c : grid_scene(bodies)) {
        if (c.type == sim::kGroundType) bare.add_ground(c.id, sim::decode_ground(c.data));
        if (c.type == sim::kBodyType) bare.add_body(c.id, sim::decode_body(c.data), nullptr);
    }
    const double dt = 1.0 / 60;
    double bullet_ms = 0, call_ms = 0, bare_ms = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        bare.step(dt);
        bare_ms += micros_since(start) / 1000;
        start = Clock::now();
        const sim::CallResult r = core.call(kOp + "STEP_SIMULATION");
        call_ms += micros_since(start) / 1000;
        if (!r.ok) state.SkipWithError(r.message.c_str());
        dt::integration_result_t result;
        mp::ReadBuffer in(r.value.data(), r.value.size());
        dt::read(in, result);
        bullet_ms += result.details.f4;
    }
    const double n = double(state.iterations());
    state.counters["core_steps/s"] = 1000 * n / call_ms;
    state.counters["bullet_steps/s"] = 1000 * n / bare_ms;
    state.counters["bullet_share"] = bullet_ms / call_ms;
    std::filesystem::remove_all(folder);
    const std::string b = std::to_string(bodies);
    add_row("core.share." + b, "in-process step: share in Bullet, " + b + " bodies",
            figure(call_ms / n, "ms/step"), "Bullet " + figure(bullet_ms / n, "ms"),
            bullet_ms / call_ms, bodies >= 1000 ? ">=0.90" : "-");
    add_row("core.steps." + b, "core steps/s / Bullet alone, " + b + " bodies",
            figure(1000 * n / call_ms, "/s"), "Bullet " + figure(1000 * n / bare_ms, "/s"),
            bare_ms / call_ms, "-");
}
BENCHMARK(BM_CoreStep)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Over the network: STEP_SIMULATION round trips against the core's own steps of the same
// scene in this process, interleaved.
void BM_StepRoundTrip(benchmark::State& state) {
    const int bodies = int(state.range(0));
    ServerFixture f;
    const auto folder = temp_folder("local");
    sim::CoreOptions options;
    options.data_dir = folder.string();
    sim::SimulationCore core(options);
    const std::vector<uint8_t> args = scene_argument(bodies);
    core.call(kOp + "SEND_SCENE", args.data(), args.size(), 1);
    const mp::buffer record(sim::encode_scene(grid_scene(bodies)));
    blocking_call_us(f.peer, kOp + "SEND_SCENE", record);
    double server_ms = 0, core_ms = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        core.call(kOp + "STEP_SIMULATION");
        core_ms += micros_since(start) / 1000;
        bool done = false;
        std::function<void(qor::wamp::RpcResult<dt::integration_result_t>)> finish =
            [&](qor::wamp::RpcResult<dt::integration_result_t> r) {
                if (r.isError) throw std::runtime_error("STEP_SIMULATION: " + r.error);
                done = true;
            };
        start = Clock::now();
        f.peer.call<dt::integration_result_t>(finish, kOp + "STEP_SIMULATION");
        pump_until(f.peer, done);
        server_ms += micros_since(start) / 1000;
    }
    std::filesystem::remove_all(folder);
    const double n = double(state.iterations());
    state.counters["server_steps/s"] = 1000 * n / server_ms;
    state.counters["core_steps/s"] = 1000 * n / core_ms;
    const std::string b = std::to_string(bodies);
    add_row("server.steps." + b, "server steps/s by round trip / core, " + b + " bodies",
            figure(1000 * n / server_ms, "/s"), "core " + figure(1000 * n / core_ms, "/s"),
            core_ms / server_ms, "-");
}
BENCHMARK(BM_StepRoundTrip)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The server runs its own clock, one step per ms of wall time at most, publishing every step
// to this subscriber, which sleeps in the OS between its passes. The share is the Bullet time
// of the steps against the CPU time the server process used meanwhile (its clock and I/O
// threads), so the clock's idle time between steps does not count as publishing.
void BM_Publishing(benchmark::State& state) {
    const int bodies = int(state.range(0));
    ServerFixture f;
    blocking_call_us(f.peer, kOp + "SEND_SCENE", mp::buffer(sim::encode_scene(grid_scene(bodies))));
    int64_t received = 0;
    double bullet_ms = 0;
    int first_step = -1, last_step = 0;
    f.peer.bind_publish<dt::integration_result_t>(
        sim::SimulationCore::kUpdateTopic,
        [&](dt::integration_result_t r) {
            ++received;
            bullet_ms += r.details.f4;
            if (first_step < 0) first_step = r.value_int;
            last_step = r.value_int;
        },
        nullptr);
    blocking_call_us(f.peer, kOp + "SET_SERVER_PERIOD_MS", 1.0);
    blocking_call_us(f.peer, kOp + "SET_PUBLISH_PERIOD_MS", 1.0);
    blocking_call_us(f.peer, kOp + "START_SIMULATION");
    // The subscriber sleeps in the OS until the link has something for it.
    const auto sleepy_pump = [&] {
        f.peer.update_first();
        f.peer.update_second();
        f.peer.wait(std::chrono::milliseconds(100));
    };
    while (received == 0) sleepy_pump();
    received = 0;
    bullet_ms = 0;
    first_step = -1;
    const double cpu_start = process_cpu_ms(f.server->pid());
    const auto start = Clock::now();
    for (auto _ : state) {
        const int64_t want = received + 1;
        while (received < want) sleepy_pump();
    }
    const double wall_ms = micros_since(start) / 1000;
    const double cpu_ms = process_cpu_ms(f.server->pid()) - cpu_start;
    blocking_call_us(f.peer, kOp + "STOP_SIMULATION");
    // Each update carries the Bullet time of its step; steps not published are counted at the
    // mean of those that were.
    const double steps = double(last_step - first_step + 1);
    const double bullet_total = received ? steps * bullet_ms / double(received) : 0;
    state.counters["updates/s"] = 1000 * double(received) / wall_ms;
    state.counters["server_steps/s"] = 1000 * steps / wall_ms;
    state.counters["published_share"] = double(received) / steps;
    state.counters["bullet_share_cpu"] = bullet_total / cpu_ms;
    state.counters["bullet_share_wall"] = bullet_total / wall_ms;
    const std::string b = std::to_string(bodies);
    add_row("publish.share." + b,
            "publishing every step: Bullet share of server CPU, " + b + " bodies",
            "CPU " + figure(cpu_ms / steps, "ms/step"),
            "Bullet " + figure(bullet_total / steps, "ms/step"), bullet_total / cpu_ms,
            bodies >= 1000 ? ">=0.80" : "-");
}
BENCHMARK(BM_Publishing)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

// sync_step round trips with 1,000 bodies mirrored by the rigid-body plug-in, the client
// sleeping while it waits, against the core's own steps of the same bodies in this process.
void BM_SyncStep(benchmark::State& state) {
    const int bodies = int(state.range(0));
    ServerFixture f;
    dax::client::DaxClient client(&f.peer);
    client.init("bench", [](int64_t, std::string) {});
    // A client spinning while it waits takes a core from the server it waits for.
    client.setWaitStrategy(dax::client::WaitStrategy::sleep);
    for (int i = 0; i < bodies; ++i) {
        auto* b = static_cast<rigid_body::Body*>(client.Create("Body"));
        b->shape = "sphere";
        b->size = {0.4, 0, 0};
        b->state.pose.position = {1.0 * (i % 32), 1.0 * (i / 32), 2.0};
    }
    client.Create("Ground");
    client.send_scene_to_server();
    const auto folder = temp_folder("sync");
    sim::CoreOptions options;
    options.data_dir = folder.string();
    sim::SimulationCore core(options);
    const std::vector<uint8_t> args = scene_argument(bodies);
    core.call(kOp + "SEND_SCENE", args.data(), args.size(), 1);
    double sync_ms = 0, core_ms = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        core.call(kOp + "STEP_SIMULATION");
        core_ms += micros_since(start) / 1000;
        start = Clock::now();
        client.sync_step();
        sync_ms += micros_since(start) / 1000;
    }
    std::filesystem::remove_all(folder);
    const double n = double(state.iterations());
    state.counters["round_trips/s"] = 1000 * n / sync_ms;
    state.counters["core_steps/s"] = 1000 * n / core_ms;
    add_row("sync.step." + std::to_string(bodies),
            "sync_step round trip / core step, " + std::to_string(bodies) + " bodies",
            figure(sync_ms / n, "ms"), "core " + figure(core_ms / n, "ms"), sync_ms / core_ms,
            "<=1.5");
}
BENCHMARK(BM_SyncStep)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::printf("\n");
    for (const Row& r : rows)
        std::printf("@row\t%s\t%s\t%s\t%s\t%.4g\t%s\n", r.key.c_str(), r.label.c_str(),
                    r.ours.c_str(), r.floor.c_str(), r.value, r.target.c_str());
    return 0;
}

