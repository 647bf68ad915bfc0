// The client's receiving paths, each beside the least work it could do, in the same run:
//
//   state   update_scene_state of 10,000 and 100,000 bodies (the rigid-body state layout)
//           against decoding the same map into a plain vector
//   result  a GET_TRIMESH-sized result (1M vertices, 2M triangles) from its received frame to
//           the callback, through parse_message and the caller, against one copy of the frame
//           and one decode of the mesh into a fresh value
//   link    a GET_TRIMESH of a 16 MiB result over a RawSocket link, from the socket to the
//           value the blocking call returns, against reading the same bytes from a plain
//           socket into a reused buffer and decoding them; ours also walks the whole message
//           once before dispatch, to refuse a malformed one as a protocol error

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/transport.hpp>
#include <qor/transport/rawsocket.hpp>
#include <qor/wamp/caller.hpp>
#include <qor/wamp/opening.hpp>
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

// ---- a large result over a real link ------------------------------------------------------------

// Speaks just enough RawSocket and WAMP for one caller: opens its session, then answers each
// request with the same prebuilt frame. As the caller of `link/ours` it answers every CALL
// with a RESULT carrying the mesh; as the other end of `link/tcp+decode` it answers any frame
// with the same bytes, which the floor's plain socket reads and decodes.
class FrameServer {
  public:
    FrameServer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 4);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~FrameServer() {
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        for (std::thread& t : threads_) t.join();
    }

    // Serves one connection on a thread of its own: `wamp` opens a WAMP session first and
    // writes each CALL's request id into the answer.
    void serve(const std::vector<uint8_t>& answer, bool wamp) {
        threads_.emplace_back([this, &answer, wamp] {
            const int s = ::accept(listener_, nullptr, nullptr);
            if (s < 0) return;
            int one = 1;
            ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            run(s, answer, wamp);
            ::close(s);
        });
    }

    uint16_t port = 0;

  private:
    static bool read_all(int s, uint8_t* to, size_t size) {
        while (size > 0) {
            const ssize_t n = ::recv(s, to, size, 0);
            if (n <= 0) return false;
            to += n;
            size -= size_t(n);
        }
        return true;
    }
    static void write_all(int s, const uint8_t* from, size_t size) {
        while (size > 0) {
            const ssize_t n = ::send(s, from, size, MSG_NOSIGNAL);
            if (n <= 0) return;
            from += n;
            size -= size_t(n);
        }
    }
    static void write_frame(int s, const qw::Message& m) {
        const mp::buffer bytes = qw::serialize(m);
        std::vector<uint8_t> frame;
        qor::transport::rawsocket::append_frame(
            frame, qor::transport::rawsocket::FrameType::message, bytes.data, uint32_t(bytes.size));
        write_all(s, frame.data(), frame.size());
    }

    static void run(int s, const std::vector<uint8_t>& answer_frame, bool wamp) {
        std::vector<uint8_t> answer = answer_frame;
        uint8_t header[4];
        if (wamp) {
            if (!read_all(s, header, 4)) return;
            const auto accept = qor::transport::rawsocket::server_accept(15);
            write_all(s, accept.data(), accept.size());
        }
        qw::RouterOpening opening("realm1", {});
        std::vector<uint8_t> payload;
        while (read_all(s, header, 4)) {
            payload.resize((size_t(header[1]) << 16) | (size_t(header[2]) << 8) | header[3]);
            if (!read_all(s, payload.data(), payload.size())) return;
            if (wamp) {
                const qw::Message m = qw::parse_message(mp::buffer(payload.data(), payload.size()));
                if (m.type != qw::CALL) {
                    for (const qw::Message& reply : opening.receive(m)) write_frame(s, reply);
                    continue;
                }
                // The RESULT's request id is the uint64 right after its first two bytes.
                const uint64_t request = m.request.value();
                for (int i = 0; i < 8; ++i) answer[4 + 3 + i] = uint8_t(request >> (56 - 8 * i));
            }
            write_all(s, answer.data(), answer.size());
        }
    }

    int listener_ = -1;
    std::vector<std::thread> threads_;
};

// The mesh a GET_TRIMESH answers with, as large as a RawSocket frame may be (16 MiB).
const std::vector<uint8_t>& link_answer() {
    static const std::vector<uint8_t> frame = [] {
        dt::mesh_batch_t mesh;
        std::mt19937_64 random(5);
        mesh.vertices.resize(250000);
        for (auto& v : mesh.vertices)
            v = {double(random() % 100000) / 1024.0 + 1.0 / 4096.0, 1.5, -2.25};
        mesh.triangles.resize(500000);
        for (auto& t : mesh.triangles)
            t = {uint32_t(random() % 250000), uint32_t(random() % 250000), 7u};
        std::vector<uint8_t> message;
        mp::pack_array_header(message, 4);
        mp::pack(message, 50);
        message.push_back(0xcf);  // the request id, written in per call
        message.insert(message.end(), 8, 0);
        mp::pack_map_header(message, 0);
        mp::pack_array_header(message, 1);
        dt::pack(message, mesh);
        std::vector<uint8_t> frame;
        qor::transport::rawsocket::append_frame(frame,
                                                qor::transport::rawsocket::FrameType::message,
                                                message.data(), uint32_t(message.size()));
        return frame;
    }();
    return frame;
}

// GET_TRIMESH through a RawSocket link, from the socket to the callback; the caller sleeps
// in the OS between passes, as the floor sleeps in recv.
void link_ours(benchmark::State& state) {
    FrameServer server;
    server.serve(link_answer(), true);
    qor::QorClient peer;
    qor::transport::connect(peer, "rs://127.0.0.1:" + std::to_string(server.port));
    dax::client::DaxClient client(&peer);
    client.setTimeoutMs(60000);
    client.setWaitStrategy(dax::client::WaitStrategy::sleep);
    uint64_t vertices = 0;
    for (auto _ : state) vertices += client.GET_TRIMESH(1LL).vertices.size();
    if (vertices != state.iterations() * 250000ull) state.SkipWithError("result not delivered");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(link_answer().size()));
}

// The same bytes answering a small request on a plain socket, read into a buffer and decoded.
void link_floor(benchmark::State& state) {
    FrameServer server;
    server.serve(link_answer(), false);
    const int c = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(server.port);
    ::connect(c, reinterpret_cast<sockaddr*>(&address), sizeof address);
    int one = 1;
    ::setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const uint8_t request[5] = {0, 0, 0, 1, 0x90};
    std::vector<uint8_t> frame(link_answer().size());  // reused: the least a reader can do
    uint64_t vertices = 0;
    for (auto _ : state) {
        ::send(c, request, sizeof request, MSG_NOSIGNAL);
        size_t got = 0;
        while (got < frame.size()) {
            const ssize_t n = ::recv(c, frame.data() + got, frame.size() - got, 0);
            if (n <= 0) break;
            got += size_t(n);
        }
        mp::ReadBuffer in(frame.data() + 4, frame.size() - 4);
        mp::read_array_header(in);
        for (int i = 0; i < 3; ++i) mp::skip(in);
        mp::read_array_header(in);
        dt::mesh_batch_t mesh;
        dt::read(in, mesh);
        vertices += mesh.vertices.size();
    }
    ::close(c);
    if (vertices != state.iterations() * 250000ull) state.SkipWithError("result not decoded");
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(link_answer().size()));
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
            {"link.result", "GET_TRIMESH 16 MiB over RawSocket", "link/ours", "link/tcp+decode",
             "tcp+decode", "<=1.2"},
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
    link_answer();
    benchmark::RegisterBenchmark("link/ours", link_ours)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("link/tcp+decode", link_floor)->Unit(benchmark::kMicrosecond);
    RowReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
