// An independent WAMP implementation (autobahn, Python) reads what our client puts on the
// wire, and our receive side reads what autobahn writes.

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>

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

// Runs the check script with `arguments`; returns its output lines.
std::vector<std::string> run_script(const std::string& arguments) {
    const std::string command =
        "/usr/bin/python3 " QOR_TRANSPORT_TEST_DIR "/autobahn_check.py " + arguments;
    std::vector<std::string> lines;
    FILE* out = ::popen(command.c_str(), "r");
    if (out == nullptr) return lines;
    char line[8192];
    while (std::fgets(line, sizeof line, out)) {
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        lines.push_back(text);
    }
    ::pclose(out);
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

    std::string arguments = "parse";
    std::set<uint32_t> kinds;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& [code, bytes] : captured) {
            arguments += " '" + bytes + "'";
            kinds.insert(code);
        }
    }
    // HELLO, AUTHENTICATE, GOODBYE, SUBSCRIBE, CALL.
    EXPECT_EQ((std::set<uint32_t>{1, 5, 6, 32, 48}), kinds);
    const auto lines = run_script(arguments);
    ASSERT_EQ(captured.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(0u, lines[i].find("ok ")) << captured[i].second << " -> " << lines[i];
}

TEST(Autobahn, OurReceiveSideParsesWhatAutobahnWrites) {
    QOR_REQUIRE_TOOL(autobahn_available(), "/usr/bin/python3 with autobahn and msgpack");
    // Each message as we parsed it, written again by our serializer (which sorts map keys) and
    // printed: every field read wrong, lost or misplaced shows.
    const std::map<std::string, std::string> expected = {
        {"WELCOME", R"([2, 123456, {"authid":"alice", "authmethod":"ticket", "authrole":"user", )"
                    R"("roles":{"broker":{}, "dealer":{}}}])"},
        {"CHALLENGE",
         R"([4, "wampcra", {"challenge":"{"nonce":"x"}", "iterations":100, "keylen":16, )"
         R"("salt":"pepper"}])"},
        {"RESULT", R"([50, 77, {}, ["text", 3]])"},
        {"RESULT_EMPTY", R"([50, 79, {}])"},
        {"ERROR", R"([8, 48, 78, {}, "app.error.failed", ["why"]])"},
        {"SUBSCRIBED", "[33, 5, 999]"},
        {"EVENT", R"([36, 999, 1234, {}, ["frame"]])"},
        {"ABORT", R"([3, {"message":"no realm"}, "wamp.error.no_such_realm"])"},
        {"GOODBYE", R"([6, {}, "wamp.close.system_shutdown"])"},
    };
    std::map<std::string, std::string> got;
    for (const auto& line : run_script("emit")) {
        const auto space = line.find(' ');
        ASSERT_NE(std::string::npos, space) << line;
        const auto bytes = hex(line.substr(space + 1));
        qor::wamp::Message m = qor::wamp::parse_message(msgpack::buffer(bytes));
        m.args = qor::wamp::received_args(m);
        const msgpack::buffer again = qor::wamp::serialize(m);
        got[line.substr(0, space)] = qor::wamp::print(again.data, again.size, 0);
    }
    EXPECT_EQ(expected, got);
}

}  // namespace
