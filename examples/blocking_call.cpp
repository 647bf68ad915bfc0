// Blocking operations: connect to a simulation server, ask it something, and see both ways
// an operation can fail.
//
//   example-blocking-call rs://127.0.0.1:8081
//
// Exits 0 when every step behaved as described, 1 otherwise.

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/transport/connect.hpp>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s URL (rs://, rss://, ws:// or wss://)\n", argv[0]);
        return 2;
    }
    // The SDK logs through the spdlog logger named "logger"; register it before anything else.
    spdlog::stdout_color_mt("logger")->set_level(spdlog::level::warn);

    qor::QorClient peer;
    qor::transport::connect(peer, argv[1]);  // throws if the server cannot be reached
    dax::client::DaxClient client(&peer);
    client.setTimeoutMs(5000);               // a blocking call gives up after 5 s

    // States the server publishes for each step reach the local components only after init.
    client.init("example", [](int64_t, std::string) {});
    client.sync_step();  // one step on the server, its state applied before returning
    std::printf("state version %d\n", client.getSceneStateVersion());

    // A blocking call pumps the connection until the answer arrives, then returns the value.
    std::printf("server build %s\n", client.GET_SERVER_BUILD_NUMBER().c_str());
    client.SET_PROPERTY("colour", "teal");
    const std::string colour = client.GET_PROPERTY("colour");
    std::printf("colour = %s\n", colour.c_str());

    // When the server answers with an error, the blocking form throws its text (the error
    // URI); a server that does not answer in time gives "DaxClient: timeout during ...".
    try {
        client.GET_PROPERTY("no such property");
        std::printf("expected an error\n");
        return 1;
    } catch (const std::runtime_error& e) {
        std::printf("GET_PROPERTY failed: %s\n", e.what());
    }
    return colour == "teal" && client.getSceneStateVersion() >= 0 ? 0 : 1;
}
