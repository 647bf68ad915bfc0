#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/testing.hpp"

using namespace qor::wamp;
using qor::wamp::testing::LoopbackConnection;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

namespace {

// A connection that records each visit and answers what it is told to.
struct ScriptedConnection : Connection {
    std::string name;
    std::vector<std::string>& visits;
    bool busy = false;
    bool fail = false;
    ScriptedConnection(std::string n, std::vector<std::string>& log)
        : name(std::move(n)), visits(log) {}
    bool update_first() override { return visit("first"); }
    bool update_second() override { return visit("second"); }
    bool visit(const char* pass) {
        visits.push_back(name + ":" + pass);
        if (fail) throw std::runtime_error(name + " failed");
        return busy;
    }
};

struct Endpoint {
    Client client;
    ScriptedConnection connection;
    Endpoint(const std::string& name, std::vector<std::string>& visits)
        : client(name, nullptr), connection(name, visits) {
        client.connection = &connection;
    }
};

struct ScriptedPeer {
    std::vector<std::string> visits;
    Endpoint first{"first", visits};
    Endpoint server{"server", visits};
    Endpoint extra1{"extra1", visits};
    Endpoint extra2{"extra2", visits};
    qor::QorClient peer;
    ScriptedPeer() {
        peer.first_endpoint = &first.client;
        peer.server_endpoint = &server.client;
        peer.has_server = true;
        peer.extra_endpoints = {&extra1.client, &extra2.client};
    }
};

const std::string clear_scene = "qor.server.operation.CLEAR_SCENE";

}  // namespace

TEST(WampPump, EmptyPeerDoesNothing) {
    std::vector<std::string> visits;
    Endpoint server("server", visits);
    qor::QorClient peer;
    EXPECT_FALSE(peer.update_first());
    EXPECT_FALSE(peer.update_second());
    // A server endpoint that is set but not flagged is not visited.
    peer.server_endpoint = &server.client;
    server.connection.busy = true;
    EXPECT_FALSE(peer.update_first());
    EXPECT_FALSE(peer.update_second());
    EXPECT_TRUE(visits.empty());
}

TEST(WampPump, EveryEndpointIsVisitedInOrderWhateverTheOthersReturn) {
    struct Row {
        bool first, server, extra1, extra2, result;
    };
    const Row rows[] = {
        {false, false, false, false, false}, {true, false, false, false, true},
        {false, true, false, false, true},   {false, false, false, true, true},
        {true, true, true, true, true},
    };
    for (const Row& row : rows) {
        ScriptedPeer p;
        p.first.connection.busy = row.first;
        p.server.connection.busy = row.server;
        p.extra1.connection.busy = row.extra1;
        p.extra2.connection.busy = row.extra2;
        EXPECT_EQ(p.peer.update_first(), row.result);
        EXPECT_EQ(p.peer.update_second(), row.result);
        EXPECT_EQ(p.visits,
                  (std::vector<std::string>{"first:first", "server:first", "extra1:first",
                                            "extra2:first", "first:second", "server:second",
                                            "extra1:second", "extra2:second"}));
    }
}

TEST(WampPump, WithoutServerFlagOrFirstEndpointTheRestStillRun) {
    ScriptedPeer p;
    p.peer.first_endpoint = nullptr;
    p.peer.has_server = false;
    p.extra2.connection.busy = true;
    EXPECT_TRUE(p.peer.update_first());
    EXPECT_EQ(p.visits, (std::vector<std::string>{"extra1:first", "extra2:first"}));
}

TEST(WampPump, AnExceptionLeavesThePassAtOnce) {
    ScriptedPeer p;
    p.server.connection.fail = true;
    EXPECT_EQ(error_of([&] { p.peer.update_first(); }), "server failed");
    EXPECT_EQ(p.visits, (std::vector<std::string>{"first:first", "server:first"}));
}

TEST(WampLoopback, DeliversInItsPassAndAnswersInjectedByHandlersWaitForTheNext) {
    LoopbackPeer p;
    p.link.deliver_in = LoopbackConnection::Pass::second;
    std::vector<int> values;
    std::function<void(RpcResult<int>)> answer_and_call = [&](RpcResult<int> r) {
        values.push_back(r.value);
        p.peer.call<int>(answer_and_call, clear_scene);
        p.link.reply_last_result(r.value + 1);  // queued during the pass
    };
    p.peer.call<int>(answer_and_call, clear_scene);
    p.link.reply_last_result(1);
    EXPECT_FALSE(p.peer.update_first());
    EXPECT_TRUE(values.empty());
    EXPECT_TRUE(p.peer.update_second());
    EXPECT_EQ(values, std::vector<int>{1});
    EXPECT_EQ(p.link.queued(), 1u);
    p.pump();
    EXPECT_EQ(values, (std::vector<int>{1, 2}));
    EXPECT_EQ(p.link.first_passes, 2u);
    EXPECT_EQ(p.link.second_passes, 2u);
}

TEST(WampLoopback, HooksRunAtTheStartOfEachPassSoAnswersCanComeOnPassN) {
    LoopbackPeer p;
    std::vector<RpcResult<int>> results;
    p.peer.call<int>([&results](RpcResult<int> r) { results.push_back(r); }, clear_scene);
    p.link.before_first = [&p] {
        if (p.link.first_passes == 3) p.link.reply_last_result(3);
    };
    p.pump();
    p.pump();
    EXPECT_TRUE(results.empty());
    p.pump();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].value, 3);
}

TEST(WampLoopback, GarbageFromThePeerRaisesInThePumpAndLeavesTheEndpointUsable) {
    LoopbackPeer p;
    std::vector<RpcResult<int>> results;
    p.peer.call<int>([&results](RpcResult<int> r) { results.push_back(r); }, clear_scene);
    const uint8_t garbage[] = {0x94, 0x32, 0x07};
    p.link.inject(garbage, sizeof garbage);
    p.link.reply_last_result(5);
    EXPECT_THROW(p.pump(), std::runtime_error);
    p.pump();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].value, 5);
}

TEST(WampSessionLog, TraceLineComesBeforeTheBytesAndOnlyAtTraceLevel) {
    CapturedLog log(spdlog::level::trace);
    Client client("server", log.logger.get());
    std::string logged_before_write;
    std::vector<uint8_t> written;
    client.session.write = [&](const uint8_t* data, uint64_t size) {
        logged_before_write = log.text();
        written.assign(data, data + size);
    };
    client.session.send(Message(CALL, Id(7), clear_scene));
    EXPECT_EQ(logged_before_write,
              "trace [server WAMP Out] [48, 7, {}, \"qor.server.operation.CLEAR_SCENE\"]\n");
    EXPECT_EQ(written.size(), 38u);

    CapturedLog quiet(spdlog::level::debug);
    client.session.logger = quiet.logger.get();
    written.clear();
    client.session.send(Message(CALL, Id(7), clear_scene));
    EXPECT_EQ(written.size(), 38u);
    EXPECT_EQ(quiet.text(), "");
}

TEST(WampSessionLog, PrintLimitShortensTheTraceText) {
    CapturedLog log(spdlog::level::trace);
    Client client("s", log.logger.get());
    client.session.write = [](const uint8_t*, uint64_t) {};
    Message call(CALL, Id(7), "p");
    call.args = {encoded(std::vector<int>{1, 2, 3})};
    const uint64_t saved = print_limit;
    print_limit = 2;
    client.session.send(call);
    print_limit = 0;
    client.session.send(call);
    print_limit = saved;
    EXPECT_EQ(log.text(),
              "trace [s WAMP Out] [48, 7, ... (size=5)]\n"
              "trace [s WAMP Out] [48, 7, {}, \"p\", [[1, 2, 3]]]\n");
}

TEST(WampSessionLog, CallAndSubscribeLinesUseTheEndpointName) {
    CapturedLog log(spdlog::level::trace);
    LoopbackPeer p(log.logger.get());
    p.peer.call<int>([](RpcResult<int>) {}, clear_scene);
    p.endpoint.subscriber.subscribe("qor.server.update", [](const Message&) {}, {});
    const std::string text = log.text();
    EXPECT_NE(text.find("trace [server] CALL procedure 'qor.server.operation.CLEAR_SCENE'\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("debug [server] SUBSCRIBE to 'qor.server.update'\n"), std::string::npos)
        << text;
    // The CALL line comes before the message it announces.
    EXPECT_LT(text.find("CALL procedure"), text.find("WAMP Out] [48"));
}

TEST(WampSessionLog, SerializeFailureWritesAndLogsNothing) {
    CapturedLog log(spdlog::level::trace);
    Client client("s", log.logger.get());
    int writes = 0;
    client.session.write = [&writes](const uint8_t*, uint64_t) { ++writes; };
    EXPECT_THROW(client.session.send(Message(49)), std::runtime_error);
    EXPECT_EQ(writes, 0);
    EXPECT_EQ(log.text(), "");
}

TEST(WampSessionLog, MessageThatCannotBePrintedIsStillWritten) {
    CapturedLog log(spdlog::level::trace);
    Client client("s", log.logger.get());
    uint64_t written = 0;
    client.session.write = [&written](const uint8_t*, uint64_t size) { written = size; };
    // Arguments are copied as they are: a str 32 header that promises 4 GiB cannot be printed.
    Message call(CALL, Id(7), "p");
    const std::vector<uint8_t> bogus = hex("DB FF FF FF FF");
    call.args = {mp::buffer(bogus.data(), bogus.size())};
    client.session.send(call);
    EXPECT_EQ(written, 12u);
    EXPECT_EQ(log.text(), "trace [s WAMP Out] <unprintable: unexpected end of data>\n");
}
