// Builds against the installed package only. Runs a WAMP server of the SDK's own on a free
// loopback port that answers one procedure, connects a peer to it by URL over RawSocket and
// WebSocket, and makes the call through a DaxClient.
#include <dax/client.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport.hpp>
#include <qor/wamp.hpp>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace mp = qor::serialization::msgpack;

namespace {

void answer_build_number(qor::transport::Server& server, uint64_t session,
                         const qor::wamp::Message& call) {
    if (call.type != qor::wamp::CALL) return;
    qor::wamp::Message result(qor::wamp::RESULT);
    result.request = call.request;
    std::vector<uint8_t> out;
    mp::pack(out, std::string("consumer-build-7"));
    result.args.emplace_back(out);
    server.send(session, result);
}

int run(const std::string& url) {
    qor::QorClient peer;
    qor::transport::ConnectOptions options;
    options.realm = "consumer";
    qor::transport::connect(peer, url, options);
    dax::client::DaxClient client(&peer);
    const std::string build = client.GET_SERVER_BUILD_NUMBER();
    if (build != "consumer-build-7") {
        std::fprintf(stderr, "%s: unexpected answer '%s'\n", url.c_str(), build.c_str());
        return 1;
    }
    std::printf("%s: GET_SERVER_BUILD_NUMBER -> %s\n", url.c_str(), build.c_str());
    return 0;
}

}  // namespace

int main() {
    try {
        qor::transport::ServerOptions options;
        options.realm = "consumer";
        qor::transport::Server server(options);
        server.on_message([&server](uint64_t session, const qor::wamp::Message& message) {
            answer_build_number(server, session, message);
        });
        server.start();
        const std::string port_rs = std::to_string(server.rawsocket_port());
        const std::string port_ws = std::to_string(server.websocket_port());
        int failures = run("rs://127.0.0.1:" + port_rs);
        failures += run("ws://127.0.0.1:" + port_ws + "/ws");
        server.stop();
        return failures == 0 ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "consumer failed: %s\n", e.what());
        return 1;
    }
}
