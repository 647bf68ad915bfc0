// Round trips and pipelined calls through the client transports and the in-process server,
// beside a plain TCP ping-pong of the same message size (the floor) measured in the same run.
//
//   bench_transport [--benchmark_filter=...]
//
// After the benchmarks a table prints median and p99 round trips, the call/TCP ratio and
// the pipelined rate. Then, outside Google Benchmark: pipelined calls of ours beside
// autobahn-cpp's (bench/peers, run as a child process against the same router and callee),
// interleaved, with the CPU each caller used; and the CPU per wall second of a client that
// waits, idle and on a slow call, with the busy loop and with the sleeping wait. Each issue
// row ends up as an "@row" line (see bench/README.md).

#include <arpa/inet.h>
#include <sys/resource.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/router/broker.hpp>
#include <qor/router/server.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport.hpp>
#include <qor/wamp.hpp>

namespace {

using Clock = std::chrono::steady_clock;

struct Latency {
    double median_us = 0;
    double p99_us = 0;
};
std::map<std::string, Latency> latencies;
std::map<std::string, double> rates;

Latency summarize(std::vector<double>& samples) {
    Latency l;
    if (samples.empty()) return l;
    std::sort(samples.begin(), samples.end());
    l.median_us = samples[samples.size() / 2];
    l.p99_us = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
    return l;
}

void record(benchmark::State& state, const std::string& name, std::vector<double>& samples) {
    const Latency l = summarize(samples);
    latencies[name] = l;
    state.counters["median_us"] = l.median_us;
    state.counters["p99_us"] = l.p99_us;
}

// The router of the benchmarks answers every CALL at once with an empty RESULT, from its
// I/O thread.
struct EchoServer {
    qor::router::Server server;
    qor::router::Broker broker{server, answer_empty, inline_calls()};
    EchoServer() {
        server.on_message([this](uint64_t session, const qor::wamp::Message& m) {
            broker.on_message(session, m);
        });
        server.start();
    }
    ~EchoServer() { server.stop(); }

    static std::optional<qor::router::Answer> answer_empty(uint64_t, const qor::wamp::Message&) {
        return qor::router::Answer{};
    }
    static qor::router::BrokerOptions inline_calls() {
        qor::router::BrokerOptions o;
        o.call_worker = false;
        return o;
    }
};

EchoServer& echo_server() {
    static EchoServer s;
    return s;
}

const char* const PROCEDURE = "bench.noop";

// Size of the CALL frame a no-argument call puts on a RawSocket link.
size_t call_frame_size() {
    qor::wamp::Message call(qor::wamp::CALL, qor::wamp::Id(4503599627370496ULL), PROCEDURE);
    return 4 + qor::wamp::serialize(call).size;
}

void BM_TcpPingPong(benchmark::State& state) {
    const size_t size = call_frame_size();
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener, 1);
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    std::thread echo([listener, size] {
        const int s = ::accept(listener, nullptr, nullptr);
        int one = 1;
        ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        std::vector<char> buffer(size);
        for (;;) {
            size_t got = 0;
            while (got < size) {
                const ssize_t n = ::recv(s, buffer.data() + got, size - got, 0);
                if (n <= 0) {
                    ::close(s);
                    return;
                }
                got += size_t(n);
            }
            ::send(s, buffer.data(), size, MSG_NOSIGNAL);
        }
    });
    const int c = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(c, reinterpret_cast<sockaddr*>(&address), sizeof address);
    int one = 1;
    ::setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::vector<char> out(size, 'x'), in(size);
    std::vector<double> samples;
    for (auto _ : state) {
        const auto start = Clock::now();
        ::send(c, out.data(), size, MSG_NOSIGNAL);
        size_t got = 0;
        while (got < size) {
            const ssize_t n = ::recv(c, in.data() + got, size - got, 0);
            if (n <= 0) break;
            got += size_t(n);
        }
        samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    ::close(c);
    echo.join();
    ::close(listener);
    state.counters["bytes"] = double(size);
    record(state, "tcp ping-pong", samples);
}
BENCHMARK(BM_TcpPingPong)->Iterations(20000)->UseRealTime();

std::string url_of(bool websocket) {
    auto& s = echo_server().server;
    return websocket ? "ws://127.0.0.1:" + std::to_string(s.websocket_port())
                     : "rs://127.0.0.1:" + std::to_string(s.rawsocket_port());
}

void BM_BlockingCall(benchmark::State& state) {
    const bool websocket = state.range(0) != 0;
    qor::QorClient peer;
    qor::transport::connect(peer, url_of(websocket));
    bool done = false;
    std::function<void(qor::wamp::RpcResult<int>)> finish = [&](qor::wamp::RpcResult<int>) {
        done = true;
    };
    std::vector<double> samples;
    for (auto _ : state) {
        const auto start = Clock::now();
        done = false;
        peer.call<int>(finish, PROCEDURE);
        // What a blocking operation does: pump until its flag is set.
        while (!done) {
            peer.update_first();
            peer.update_second();
        }
        samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    record(state, websocket ? "blocking call, websocket" : "blocking call, rawsocket", samples);
}
BENCHMARK(BM_BlockingCall)->Arg(0)->Arg(1)->Iterations(20000)->UseRealTime();

void BM_PipelinedCalls(benchmark::State& state) {
    const bool websocket = state.range(0) != 0;
    const int batch = int(state.range(1));
    qor::QorClient peer;
    qor::transport::connect(peer, url_of(websocket));
    int answered = 0;
    std::function<void(qor::wamp::RpcResult<int>)> finish = [&](qor::wamp::RpcResult<int>) {
        ++answered;
    };
    int64_t calls = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        answered = 0;
        for (int i = 0; i < batch; ++i) {
            peer.call<int>(finish, PROCEDURE);
            // An application pumps while it issues; so does this loop, every 64 calls.
            if ((i & 63) == 63) {
                peer.update_first();
                peer.update_second();
            }
        }
        while (answered < batch) {
            peer.update_first();
            peer.update_second();
        }
        calls += batch;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.SetItemsProcessed(calls);
    rates[websocket ? "pipelined calls/s, websocket" : "pipelined calls/s, rawsocket"] =
        double(calls) / seconds;
}
BENCHMARK(BM_PipelinedCalls)->Args({0, 1000})->Args({1, 1000})->Iterations(200)->UseRealTime();

// ---- pipelining beside autobahn-cpp, and the CPU a waiting client burns -------------------

double seconds_of(const timeval& t) {
    return double(t.tv_sec) + double(t.tv_usec) / 1e6;
}

// CPU of the calling thread: our client has no thread of its own, so this is all it uses.
double thread_cpu() {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime);
}

double process_cpu() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime);
}

struct Rate {
    double calls_per_s = 0;
    double caller_cpu_per_s = 0;  // the caller's CPU seconds per wall second
    double router_cpu_per_s = 0;  // the router's, over the same time
};

// Our caller as an application that does not spin would write it: issue a batch, pump, and
// sleep on the link whenever a pass found nothing to do.
Rate ours_pipelined(bool websocket, int batch, int batches) {
    qor::QorClient peer;
    qor::transport::connect(peer, url_of(websocket));
    int answered = 0;
    std::function<void(qor::wamp::RpcResult<int>)> finish = [&](qor::wamp::RpcResult<int>) {
        ++answered;
    };
    const double cpu0 = thread_cpu();
    const double all0 = process_cpu();
    const auto start = Clock::now();
    for (int b = 0; b < batches; ++b) {
        answered = 0;
        for (int i = 0; i < batch; ++i) peer.call<int>(finish, PROCEDURE);
        while (answered < batch) {
            const bool first = peer.update_first();
            const bool second = peer.update_second();
            if (!first && !second && answered < batch) peer.wait(std::chrono::seconds(1));
        }
    }
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    Rate r;
    r.calls_per_s = double(batch) * batches / wall;
    r.caller_cpu_per_s = (thread_cpu() - cpu0) / wall;
    r.router_cpu_per_s = (process_cpu() - all0) / wall - r.caller_cpu_per_s;
    return r;
}

std::string self_dir;  // where this program lies; the peers are built beside it

// autobahn-cpp's caller as a child process; nullopt when it is not built or failed.
std::optional<Rate> autobahn_pipelined(bool websocket, int batch, int batches) {
    const std::string program = self_dir + "/peer_autobahn_caller";
    if (::access(program.c_str(), X_OK) != 0) return std::nullopt;
    const std::string command = program + " " + url_of(websocket) + (websocket ? "/" : "") + " " +
                                PROCEDURE + " " + std::to_string(batch) + " " +
                                std::to_string(batches) + " 2>&1";
    const double all0 = process_cpu();
    const auto start = Clock::now();
    FILE* out = ::popen(command.c_str(), "r");
    if (out == nullptr) return std::nullopt;
    char line[256] = {};
    long long calls = 0;
    double seconds = 0, cpu = 0;
    bool parsed = false;
    while (std::fgets(line, sizeof line, out) != nullptr) {
        if (std::sscanf(line, "calls %lld seconds %lf cpu %lf", &calls, &seconds, &cpu) == 3)
            parsed = true;
        else
            std::fprintf(stderr, "autobahn caller: %s", line);
    }
    const int status = ::pclose(out);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    if (!parsed || status != 0 || seconds <= 0) return std::nullopt;
    Rate r;
    r.calls_per_s = double(calls) / seconds;
    r.caller_cpu_per_s = cpu / seconds;
    // Our process is only the router while the child runs (its opening included).
    r.router_cpu_per_s = (process_cpu() - all0) / wall;
    return r;
}

double median_of(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

void row(const char* key, const std::string& label, const std::string& ours,
         const std::string& floor, double value, const char* target) {
    std::printf("@row\t%s\t%s\t%s\t%s\t%.3f\t%s\n", key, label.c_str(), ours.c_str(), floor.c_str(),
                value, target);
}

std::string text(const char* format, double a, double b = 0, double c = 0) {
    char buffer[160];
    std::snprintf(buffer, sizeof buffer, format, a, b, c);
    return buffer;
}

// Three rounds per framing, ours and the peer alternating, medians of each; then ws beside rs.
void pipelining_rows() {
    const int batch = 1000, batches = 100;
    double ours_rate[2] = {0, 0};
    for (const bool websocket : {false, true}) {
        std::vector<double> ours, theirs, ours_cpu, theirs_cpu, router_ours, router_theirs;
        bool peer_ran = true;
        for (int round = 0; round < 3; ++round) {
            const Rate o = ours_pipelined(websocket, batch, batches);
            ours.push_back(o.calls_per_s);
            ours_cpu.push_back(o.caller_cpu_per_s);
            router_ours.push_back(o.router_cpu_per_s);
            const std::optional<Rate> t = autobahn_pipelined(websocket, batch, batches);
            if (!t) {
                peer_ran = false;
                continue;
            }
            theirs.push_back(t->calls_per_s);
            theirs_cpu.push_back(t->caller_cpu_per_s);
            router_theirs.push_back(t->router_cpu_per_s);
        }
        ours_rate[websocket] = median_of(ours);
        const char* key = websocket ? "link.pipe.ws" : "link.pipe.rs";
        const std::string label = std::string("pipelined calls via our router, ") +
                                  (websocket ? "ws" : "rs") + " (ours / autobahn-cpp)";
        const std::string ours_text =
            text("%.0f calls/s, caller %.2f CPU s/s, router %.2f", median_of(ours),
                 median_of(ours_cpu), median_of(router_ours));
        if (!peer_ran) {
            std::fprintf(stderr, "peer_autobahn_caller missing or failed: see bench/README.md\n");
            row(key, label, ours_text, "autobahn-cpp not run", 0, ">=2.0");
            continue;
        }
        row(key, label, ours_text,
            text("%.0f calls/s, caller %.2f CPU s/s, router %.2f", median_of(theirs),
                 median_of(theirs_cpu), median_of(router_theirs)),
            median_of(ours) / median_of(theirs), ">=2.0");
    }
    row("link.ws_rs", "pipelined call time, ws / rs (ours)",
        text("ws %.0f calls/s", ours_rate[1]), text("rs %.0f calls/s", ours_rate[0]),
        ours_rate[1] > 0 ? ours_rate[0] / ours_rate[1] : 0, "<=1.5");
}

// A router whose one procedure answers after 200 ms, from its worker thread (asleep meanwhile).
struct SlowServer {
    qor::router::Server server;
    qor::router::Broker broker{server, answer_late, on_worker()};
    SlowServer() {
        server.on_message([this](uint64_t session, const qor::wamp::Message& m) {
            broker.on_message(session, m);
        });
        server.start();
    }
    ~SlowServer() { server.stop(); }

    static std::optional<qor::router::Answer> answer_late(uint64_t, const qor::wamp::Message&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        std::vector<uint8_t> zero;
        qor::serialization::msgpack::pack(zero, 0);
        return qor::router::Answer::result(qor::serialization::msgpack::buffer(zero));
    }
    static qor::router::BrokerOptions on_worker() {
        qor::router::BrokerOptions o;
        o.call_worker = true;
        return o;
    }
};

// CPU per wall second of a client connected and doing nothing for `seconds`, pumping as an
// application's main loop does: back to back, or sleeping on the link between passes.
double idle_cpu(bool sleep, double seconds) {
    qor::QorClient peer;
    qor::transport::connect(peer, url_of(false));
    const double cpu0 = thread_cpu();
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(seconds));
    while (Clock::now() < end) {
        const bool first = peer.update_first();
        const bool second = peer.update_second();
        if (sleep && !first && !second) peer.wait(end - Clock::now());
    }
    return (thread_cpu() - cpu0) / std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU per wall second of a DaxClient in blocking operations that the server answers after
// 200 ms, with the given wait strategy.
double slow_call_cpu(dax::client::WaitStrategy strategy, int calls) {
    static SlowServer slow;
    qor::QorClient peer;
    qor::transport::connect(peer, "rs://127.0.0.1:" + std::to_string(slow.server.rawsocket_port()));
    dax::client::DaxClient client(&peer);
    client.setWaitStrategy(strategy);
    client.setTimeoutMs(5000);
    const double cpu0 = thread_cpu();
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) client.CLEAR_SCENE();
    return (thread_cpu() - cpu0) / std::chrono::duration<double>(Clock::now() - start).count();
}

void waiting_rows() {
    using dax::client::WaitStrategy;
    const double idle_spin = idle_cpu(false, 1.0), idle_sleep = idle_cpu(true, 1.0);
    const double slow_spin = slow_call_cpu(WaitStrategy::spin, 5);
    const double slow_sleep = slow_call_cpu(WaitStrategy::sleep, 5);
    // The busy loop is the contract's default and has no target; the sleeping wait has one.
    row("link.cpu.idle.spin", "CPU s per wall s, idle client, busy loop (default)",
        text("%.3f", idle_spin), "-", idle_spin, "-");
    row("link.cpu.idle.sleep", "CPU s per wall s, idle client, sleeping wait",
        text("%.3f", idle_sleep), "-", idle_sleep, "<=0.01");
    row("link.cpu.slow.spin", "CPU s per wall s, blocking 200 ms call, busy loop (default)",
        text("%.3f", slow_spin), "-", slow_spin, "-");
    row("link.cpu.slow.sleep", "CPU s per wall s, blocking 200 ms call, sleeping wait",
        text("%.3f", slow_sleep), "-", slow_sleep, "<=0.01");
}

}  // namespace

int main(int argc, char** argv) {
    self_dir = argv[0];
    self_dir = self_dir.find('/') == std::string::npos ? "." : self_dir.substr(0, self_dir.rfind('/'));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    std::printf(
        "\n| measure | median (us) | p99 (us) | median / TCP median |\n|---|---|---|---|\n");
    const double floor =
        latencies.count("tcp ping-pong") ? latencies["tcp ping-pong"].median_us : 0;
    for (const auto& [name, l] : latencies)
        std::printf("| %s | %.1f | %.1f | %.2f |\n", name.c_str(), l.median_us, l.p99_us,
                    floor > 0 ? l.median_us / floor : 0.0);
    for (const auto& [name, rate] : rates) std::printf("| %s | %.0f | | |\n", name.c_str(), rate);

    for (const bool websocket : {false, true}) {
        const char* name = websocket ? "blocking call, websocket" : "blocking call, rawsocket";
        if (!latencies.count(name) || floor <= 0) continue;
        const double ours = latencies[name].median_us;
        row(websocket ? "link.call.ws" : "link.call.rs",
            std::string("blocking no-argument call, in-process router, ") +
                (websocket ? "ws" : "rs") + " / TCP ping-pong",
            text("%.1f us", ours), text("TCP %.1f us", floor), ours / floor, "<=1.5");
    }
    std::fflush(stdout);
    pipelining_rows();
    waiting_rows();
    benchmark::Shutdown();
    return 0;
}
