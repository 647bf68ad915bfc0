// Round trips and pipelined calls through the client transports and the in-process server,
// beside a plain TCP ping-pong of the same message size (the floor) measured in the same run.
//
//   bench_transport [--benchmark_filter=...]
//
// After the benchmarks a table prints median and p99 round trips, the call/TCP ratio and
// the pipelined rate.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

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

}  // namespace

int main(int argc, char** argv) {
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
    benchmark::Shutdown();
    return 0;
}
