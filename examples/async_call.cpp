// Asynchronous operations: start several calls at once and pump until every result is in.
// Results, values and errors alike, arrive in an RpcResult inside full_update(), on this
// thread; nothing is thrown for a server error.
//
//   example-async-call rs://127.0.0.1:8081

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/transport/connect.hpp>

using qor::wamp::RpcResult;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s URL\n", argv[0]);
        return 2;
    }
    spdlog::stdout_color_mt("logger")->set_level(spdlog::level::warn);
    qor::QorClient peer;
    qor::transport::connect(peer, argv[1]);
    dax::client::DaxClient client(&peer);

    int pending = 3;
    bool as_expected = true;
    client.SET_PROPERTY("answer", "42", [&](RpcResult<int> r) {
        --pending;
        as_expected &= !r.isError;
    });
    // Calls leave in order, so this one sees the property set just above.
    client.GET_PROPERTY("answer", [&](RpcResult<std::string> r) {
        --pending;
        std::printf("answer = %s\n", r.value.c_str());
        as_expected &= !r.isError && r.value == "42";
    });
    client.GET_PROPERTY("no such property", [&](RpcResult<std::string> r) {
        --pending;
        std::printf("error: %s\n", r.getError().c_str());
        as_expected &= r.isError;
    });

    // The pump loop: full_update() handles what has arrived and returns at once; it returns
    // false when there was nothing to do, so sleep a little rather than spin.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (pending > 0 && std::chrono::steady_clock::now() < deadline) {
        if (!client.full_update()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (pending > 0) std::printf("%d results missing\n", pending);
    return pending == 0 && as_expected ? 0 : 1;
}
