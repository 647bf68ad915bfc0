// Builds against the installed package only. Runs the package's router on a free loopback
// port with a dealer that answers one procedure, connects a peer to it by URL over RawSocket
// and WebSocket, and makes the call through a DaxClient.
#include <dax/client.hpp>
#include <qor/router/broker.hpp>
#include <qor/router/server.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport.hpp>
#include <qor/wamp.hpp>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace mp = qor::serialization::msgpack;

namespace {

std::optional<qor::router::Answer> answer_build_number(uint64_t, const qor::wamp::Message&) {
    std::vector<uint8_t> out;
    mp::pack(out, std::string("consumer-build-7"));
    return qor::router::Answer::result(mp::buffer(out));
}

int run(const std::string& url) {
    qor::QorClient peer;
    qor::transport::ConnectOptions options;
    options.realm = "consumer";
    qor::transport::connect(peer, url, options);
    dax::client::DaxClient client(&peer);
    const std::string build = client.GET_SERVER_BUILD_NUMBER();
    std::printf("%s: GET_SERVER_BUILD_NUMBER -> %s\n", url.c_str(), build.c_str());
    return build == "consumer-build-7" ? 0 : 1;
}

}  // namespace

int main() {
    try {
        qor::router::ServerOptions options;
        options.realm = "consumer";
        qor::router::Server server(options);
        qor::router::Broker broker(server, answer_build_number);
        server.on_message([&broker](uint64_t session, const qor::wamp::Message& message) {
            broker.on_message(session, message);
        });
        server.start();
        int failures = run("rs://127.0.0.1:" + std::to_string(server.rawsocket_port()));
        failures += run("ws://127.0.0.1:" + std::to_string(server.websocket_port()) + "/ws");
        server.stop();
        return failures == 0 ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "consumer failed: %s\n", e.what());
        return 1;
    }
}
