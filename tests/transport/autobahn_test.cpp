// An independent WAMP implementation (autobahn, Python) reads what our client puts on the
// wire, and our receive side reads what autobahn writes.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "harness.hpp"
#include "support/testing.hpp"

namespace {

using namespace transport_test;

using test_support::hex;
using test_support::to_hex;

bool autobahn_available() {
    return std::system(
               "/usr/bin/python3 -c 'import autobahn.wamp.serializer, msgpack, txaio' "
               ">/dev/null 2>&1") == 0;
}

// Runs the check script in `mode` with `input` on stdin; returns its output lines.
std::vector<std::string> run_script(const std::string& mode, const std::string& input) {
    const auto folder = std::filesystem::temp_directory_path();
    const auto in_path = folder / ("qor_autobahn_in_" + std::to_string(::getpid()));
    {
        std::ofstream in(in_path);
        in << input;
    }
    const std::string command = "/usr/bin/python3 " QOR_TRANSPORT_TEST_DIR "/autobahn_check.py " +
                                mode + " < '" + in_path.string() + "'";
    std::vector<std::string> lines;
    if (FILE* out = ::popen(command.c_str(), "r")) {
        char line[8192];
        while (std::fgets(line, sizeof line, out)) {
            std::string text(line);
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
            lines.push_back(text);
        }
        ::pclose(out);
    }
    std::filesystem::remove(in_path);
    return lines;
}

TEST(Autobahn, ParsesEverythingOurClientSends) {
    QOR_REQUIRE_TOOL(autobahn_available(), "/usr/bin/python3 with autobahn and msgpack");
    std::mutex mutex;
    std::vector<std::pair<uint32_t, std::string>> captured;  // first element code, hex
    qor::router::ServerOptions options;
    options.tap = [&](const uint8_t* data, size_t size) {
        std::lock_guard<std::mutex> lock(mutex);
        captured.emplace_back(size > 1 ? data[1] : 0, to_hex(data, size));
    };
    qor::router::Credential alice;
    alice.authid = "alice";
    alice.ticket = "t1";
    qor::router::Credential bob;
    bob.authid = "bob";
    bob.wampcra_secret = "s2";
    bob.wampcra_salt = "salt";
    options.credentials = {alice, bob};
    Router router(options);

    struct Way {
        std::string url;
        std::string authid;
        std::string method;
    };
    const Way ways[] = {
        {url_of("rs", router.server), "alice", "ticket"},
        {url_of("ws", router.server), "bob", "wampcra"},
    };
    for (const Way& way : ways) {
        qor::QorClient peer;
        qor::transport::ConnectOptions o;
        o.authid = way.authid;
        o.authmethods = {way.method};
        o.ticket = "t1";
        o.secret = "s2";
        auto& endpoint = qor::transport::connect(peer, way.url, o);
        int answers = 0;
        std::function<void(qor::wamp::RpcResult<std::string>)> done =
            [&](qor::wamp::RpcResult<std::string>) { ++answers; };
        peer.call<std::string>(done, "echo");
        peer.call<std::string>(done, "echo", std::string("with"), 42LL, 2.5);
        bool subscribed = false;
        peer.server_endpoint->subscriber.subscribe(
            "qor.server.update", [](const qor::wamp::Message&) {},
            [&](bool, std::string) { subscribed = true; });
        ASSERT_TRUE(pump_until(peer, [&] { return answers == 2 && subscribed; }));
        endpoint.close();
    }
    ASSERT_TRUE(router.wait([&] { return router.leaves.size() == 2; }));

    std::string input;
    std::set<uint32_t> kinds;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& [code, hex] : captured) {
            input += hex + "\n";
            kinds.insert(code);
        }
    }
    // HELLO, AUTHENTICATE, GOODBYE, SUBSCRIBE, CALL.
    EXPECT_EQ((std::set<uint32_t>{1, 5, 6, 32, 48}), kinds);
    const auto lines = run_script("parse", input);
    ASSERT_EQ(captured.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(0u, lines[i].find("ok ")) << captured[i].second << " -> " << lines[i];
}

TEST(Autobahn, OurReceiveSideParsesWhatAutobahnWrites) {
    QOR_REQUIRE_TOOL(autobahn_available(), "/usr/bin/python3 with autobahn and msgpack");
    std::map<std::string, qor::wamp::Message> parsed;
    for (const auto& line : run_script("emit", "")) {
        const auto space = line.find(' ');
        ASSERT_NE(std::string::npos, space) << line;
        const auto bytes = hex(line.substr(space + 1));
        parsed.emplace(line.substr(0, space),
                       qor::wamp::parse_message(msgpack::buffer(bytes.data(), bytes.size())));
    }
    ASSERT_EQ(9u, parsed.size());

    const auto& welcome = parsed.at("WELCOME");
    EXPECT_EQ(qor::wamp::WELCOME, welcome.type);
    EXPECT_EQ(123456u, welcome.session.value());
    EXPECT_EQ("alice", text_of(welcome.details.at("authid")));
    EXPECT_EQ("ticket", text_of(welcome.details.at("authmethod")));
    EXPECT_EQ(1u, welcome.details.count("roles"));

    const auto& challenge = parsed.at("CHALLENGE");
    EXPECT_EQ("wampcra", challenge.authmethod);
    EXPECT_EQ("{\"nonce\":\"x\"}", text_of(challenge.details.at("challenge")));
    EXPECT_EQ("pepper", text_of(challenge.details.at("salt")));

    const auto& result = parsed.at("RESULT");
    EXPECT_EQ(77u, result.request.value());
    ASSERT_EQ(2u, result.args_count);
    std::string text;
    long long number = 0;
    qor::wamp::IncomingMessage(result).fillArgsNS(text, number);
    EXPECT_EQ("text", text);
    EXPECT_EQ(3, number);
    EXPECT_EQ(0u, parsed.at("RESULT_EMPTY").args_count);

    const auto& error = parsed.at("ERROR");
    EXPECT_EQ(48, error.request_type);
    EXPECT_EQ(78u, error.request.value());
    EXPECT_EQ("app.error.failed", error.error);
    EXPECT_EQ(1u, error.args_count);

    EXPECT_EQ(5u, parsed.at("SUBSCRIBED").request.value());
    EXPECT_EQ(999u, parsed.at("SUBSCRIBED").subscription.value());

    const auto& event = parsed.at("EVENT");
    EXPECT_EQ(999u, event.subscription.value());
    EXPECT_EQ(1234u, event.publication.value());
    std::string frame;
    qor::wamp::IncomingMessage(event).fillArgsNS(frame);
    EXPECT_EQ("frame", frame);

    EXPECT_EQ("wamp.error.no_such_realm", parsed.at("ABORT").reason);
    EXPECT_EQ("no realm", text_of(parsed.at("ABORT").details.at("message")));
    EXPECT_EQ("wamp.close.system_shutdown", parsed.at("GOODBYE").reason);
}

}  // namespace
