// The client's receiving paths, each beside the least work it could do, in the same run:
//
//   state   update_scene_state of 10,000 and 100,000 bodies (the rigid-body state layout)
//           against decoding the same map into a plain vector
//   result  a GET_TRIMESH-sized result (1M vertices, 2M triangles) from its received frame to
//           the callback, through parse_message and the caller, against one copy of the frame
//           and one decode of the mesh into a fresh value

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/wamp/caller.hpp>
#include <qor/wamp/receive.hpp>
#include <rigid_body/components.hpp>

namespace {

namespace mp = qor::serialization::msgpack;
namespace dt = dax::types;
namespace qw = qor::wamp;

// ---- state updates ----------------------------------------------------------------------------

class BodyFactory : public dax::client::IModuleFactory {
  public:
    dax::client::IClientComponent* create(const std::string& type, dax::client::DaxClient* client,
                                          int64_t id) override {
        return type == rigid_body::kBodyType ? new rigid_body::Body(id, client) : nullptr;
    }
};

struct Scene {
    qor::QorClient peer;
    dax::client::DaxClient client{&peer};
    dt::integration_result_t update;

    explicit Scene(int bodies) {
        client.factories.push_back(new BodyFactory);
        std::vector<uint8_t> states;
        mp::pack_map_header(states, uint64_t(bodies));
        std::mt19937_64 random(7);
        auto value = [&random] { return double(random() % 100000) / 1024.0 + 1.0 / 4096.0; };
        for (int i = 0; i < bodies; ++i) {
            const int64_t id = 1 + i;  // the ground, which has no state, is 0
            client.Create(rigid_body::kBodyType, id, 0);
            rigid_body::BodyState s;
            s.pose.position = {value(), value(), value()};
            s.pose.qw = value();
            s.linear = {value(), value(), value()};
            s.angular = {value(), value(), value()};
            mp::pack(states, static_cast<long long>(id));
            rigid_body::write(states, s);
        }
        update.states = mp::buffer(states);
    }
};

Scene& scene(int bodies) {
    static std::map<int, std::unique_ptr<Scene>> scenes;
    auto& s = scenes[bodies];
    if (!s) s = std::make_unique<Scene>(bodies);
    return *s;
}

void state_apply(benchmark::State& state, int bodies) {
    Scene& s = scene(bodies);
    for (auto _ : state) {
        s.client.update_scene_state(s.update);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * bodies);
}

void state_decode(benchmark::State& state, int bodies) {
    Scene& s = scene(bodies);
    std::vector<std::pair<long long, rigid_body::BodyState>> decoded;
    for (auto _ : state) {
        mp::ReadBuffer in(s.update.states);
        decoded.resize(mp::read_map_header(in));
        for (auto& [id, body] : decoded) {
            mp::read(in, id);
            body = rigid_body::read_state(in);
        }
        benchmark::DoNotOptimize(decoded.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * bodies);
}

// ---- a large result ---------------------------------------------------------------------------

struct Answer {
    std::vector<uint8_t> frame;  // RESULT [50, request, {}, [mesh]] as received
    uint64_t request = 0;
};

const Answer& answer() {
    static const Answer a = [] {
        Answer a;
        dt::mesh_batch_t mesh;
        std::mt19937_64 random(42);
        mesh.vertices.resize(1000000);
        for (auto& v : mesh.vertices)
            v = {double(random() % 100000) / 1024.0 + 1.0 / 4096.0, 1.5, -2.25};
        mesh.triangles.resize(2000000);
        for (auto& t : mesh.triangles)
            t = {uint32_t(random() % 1000000), uint32_t(random() % 1000000), 7u};
        a.request = 12345;
        mp::pack_array_header(a.frame, 4);
        mp::pack(a.frame, 50);
        mp::pack(a.frame, static_cast<unsigned long>(a.request));
        mp::pack_map_header(a.frame, 0);
        mp::pack_array_header(a.frame, 1);
        dt::pack(a.frame, mesh);
        return a;
    }();
    return a;
}

// The caller's path as the client drives it: the frame copied out of the transport's buffer,
// parsed, matched to its pending call, decoded, and moved to the callback.
void result_ours(benchmark::State& state) {
    const Answer& a = answer();
    qw::Session session;
    session.write = [](const uint8_t*, uint64_t) {};
    qw::Caller caller(&session);
    uint64_t vertices = 0;
    const std::function<void(qw::RpcResult<dt::mesh_batch_t>)> callback =
        [&vertices](qw::RpcResult<dt::mesh_batch_t> result) {
            vertices += result.value.vertices.size();
        };
    for (auto _ : state) {
        qw::RPC<dt::mesh_batch_t> rpc("qor.server.operation.GET_TRIMESH", 1LL);
        rpc.onResult = [&callback](const qw::RpcResult<dt::mesh_batch_t>& result) {
            callback(std::move(const_cast<qw::RpcResult<dt::mesh_batch_t>&>(result)));
        };
        caller.call(rpc);
        qw::Message m = qw::parse_message(mp::buffer(a.frame.data(), a.frame.size()));
        m.request = qw::Id(caller.last_request);
        caller.handle(m);
        benchmark::ClobberMemory();
    }
    if (vertices != state.iterations() * 1000000ull) state.SkipWithError("result not delivered");
}

// The least the contract allows: one copy of the frame, one decode into a fresh value.
void result_floor(benchmark::State& state) {
    const Answer& a = answer();
    uint64_t vertices = 0;
    for (auto _ : state) {
        mp::buffer copy(a.frame.data(), a.frame.size());
        mp::ReadBuffer in(copy);
        mp::read_array_header(in);
        for (int i = 0; i < 3; ++i) mp::skip(in);
        mp::read_array_header(in);
        dt::mesh_batch_t mesh;
        dt::read(in, mesh);
        vertices += mesh.vertices.size();
        benchmark::ClobberMemory();
    }
    if (vertices != state.iterations() * 1000000ull) state.SkipWithError("result not decoded");
}

// ---- rows ---------------------------------------------------------------------------------------

class RowReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                ms_[run.benchmark_name()] = run.GetAdjustedCPUTime() / 1e3;  // us -> ms
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        struct Row {
            const char* key;
            const char* label;
            const char* ours;
            const char* floor;
            const char* floor_name;
            const char* target;
        };
        const Row rows[] = {
            {"state.apply.10k", "update_scene_state, 10k bodies", "state/apply/10000",
             "state/decode/10000", "decode", "<=1.5"},
            {"state.apply.100k", "update_scene_state, 100k bodies", "state/apply/100000",
             "state/decode/100000", "decode", "<=1.5"},
            {"result.mesh", "GET_TRIMESH result to its callback", "result/ours",
             "result/copy+decode", "copy+decode", "<=1.2"},
        };
        for (const Row& r : rows) {
            const auto ours = ms_.find(r.ours);
            const auto floor = ms_.find(r.floor);
            if (ours == ms_.end() || floor == ms_.end() || floor->second <= 0) continue;
            std::printf("@row\t%s\t%s\t%.3f ms\t%s %.3f ms\t%.3f\t%s\n", r.key, r.label,
                        ours->second, r.floor_name, floor->second, ours->second / floor->second,
                        r.target);
        }
    }

  private:
    std::map<std::string, double> ms_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    for (int bodies : {10000, 100000}) {
        const std::string n = std::to_string(bodies);
        scene(bodies);  // build before any timing
        benchmark::RegisterBenchmark(("state/apply/" + n).c_str(), state_apply, bodies)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("state/decode/" + n).c_str(), state_decode, bodies)
            ->Unit(benchmark::kMicrosecond);
    }
    answer();
    benchmark::RegisterBenchmark("result/ours", result_ours)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("result/copy+decode", result_floor)
        ->Unit(benchmark::kMicrosecond);
    RowReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
