#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/testing.hpp"

using namespace qor::wamp;
using qor::wamp::testing::LoopbackConnection;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

namespace {

// An endpoint whose connection records each visit and answers what it is told to.
struct Endpoint : Connection {
    Client client;
    std::string name;
    std::vector<std::string>& visits;
    bool busy = false;
    bool fail = false;
    Endpoint(const std::string& n, std::vector<std::string>& log)
        : client(n, nullptr), name(n), visits(log) {
        client.connection = this;
    }
    bool update_first() override { return visit("first"); }
    bool update_second() override { return visit("second"); }
    bool visit(const char* pass) {
        visits.push_back(name + ":" + pass);
        if (fail) throw std::runtime_error(name + " failed");
        return busy;
    }
};

const std::string clear_scene = "qor.server.operation.CLEAR_SCENE";

}  // namespace

TEST(WampPump, EmptyPeerDoesNothing) {
    qor::QorClient peer;
    EXPECT_FALSE(peer.update_first());
    EXPECT_FALSE(peer.update_second());
}

// Each pass visits every endpoint in order, whatever the others return; an exception leaves
// the pass at once.
TEST(WampPump, EveryEndpointIsVisitedInOrderWhateverTheOthersReturn) {
    const char* const all =
        "first:first server:first extra1:first extra2:first "
        "first:second server:second extra1:second extra2:second";
    struct Row {
        bool first, server, extra1, extra2, result;
        bool first_endpoint, has_server, server_fails;
        const char* visits;
    };
    const Row rows[] = {
        {false, false, false, false, false, true, true, false, all},
        {true, false, false, false, true, true, true, false, all},
        {false, true, false, false, true, true, true, false, all},
        {false, false, false, true, true, true, true, false, all},
        {true, true, true, true, true, true, true, false, all},
        {false, false, false, true, true, false, false, false,
         "extra1:first extra2:first extra1:second extra2:second"},
        {false, false, false, false, false, true, true, true, "first:first server:first"},
    };
    for (const Row& row : rows) {
        std::vector<std::string> log;
        Endpoint first("first", log), server("server", log), extra1("extra1", log),
            extra2("extra2", log);
        first.busy = row.first;
        server.busy = row.server;
        extra1.busy = row.extra1;
        extra2.busy = row.extra2;
        server.fail = row.server_fails;
        qor::QorClient peer;
        peer.first_endpoint = row.first_endpoint ? &first.client : nullptr;
        peer.server_endpoint = &server.client;
        peer.has_server = row.has_server;
        peer.extra_endpoints = {&extra1.client, &extra2.client};
        bool first_pass = false, second_pass = false;
        const std::string error = error_of([&] {
            first_pass = peer.update_first();
            second_pass = peer.update_second();
        });
        EXPECT_EQ(error, row.server_fails ? "server failed" : "");
        EXPECT_EQ(first_pass, row.result);
        EXPECT_EQ(second_pass, row.result);
        std::string visits;
        for (const std::string& v : log) visits += (visits.empty() ? "" : " ") + v;
        EXPECT_EQ(visits, row.visits);
    }
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

// What a send writes and logs; the trace line is logged before the bytes are written.
TEST(WampSessionLog, TraceLinesAtTraceLevelOnlyShortenedByThePrintLimit) {
    Message args(CALL, Id(7), "p");
    args.args = {encoded(std::vector<int>{1, 2, 3})};
    // Arguments are copied as they are: a str 32 header that promises 4 GiB cannot be printed.
    Message bogus(CALL, Id(7), "p");
    const std::vector<uint8_t> bogus_bytes = hex("DB FF FF FF FF");
    bogus.args = {mp::buffer(bogus_bytes.data(), bogus_bytes.size())};
    // Log level, print limit, message, bytes written (0: the send throws), lines logged.
    const std::tuple<spdlog::level::level_enum, uint64_t, Message, uint64_t, std::string> rows[] = {
        {spdlog::level::trace, print_limit, Message(CALL, Id(7), clear_scene), 38,
         "trace [s WAMP Out] [48, 7, {}, \"qor.server.operation.CLEAR_SCENE\"]\n"},
        {spdlog::level::debug, print_limit, Message(CALL, Id(7), clear_scene), 38, ""},
        {spdlog::level::trace, 2, args, 11, "trace [s WAMP Out] [48, 7, ... (size=5)]\n"},
        {spdlog::level::trace, 0, args, 11, "trace [s WAMP Out] [48, 7, {}, \"p\", [[1, 2, 3]]]\n"},
        {spdlog::level::trace, print_limit, bogus, 12,
         "trace [s WAMP Out] <unprintable: unexpected end of data>\n"},
        {spdlog::level::trace, print_limit, Message(49), 0, ""},
    };
    const uint64_t saved = print_limit;
    for (const auto& [level, limit, message, sent, lines] : rows) {
        SCOPED_TRACE(lines);
        CapturedLog log(level);
        Client client("s", log.logger.get());
        std::string logged_before_write;
        uint64_t written = 0;
        client.session.write = [&](const uint8_t*, uint64_t size) {
            logged_before_write = log.text();
            written = size;
        };
        print_limit = limit;
        const std::string error = error_of([&, &m = message] { client.session.send(m); });
        print_limit = saved;
        EXPECT_EQ(error.empty(), sent != 0) << error;
        EXPECT_EQ(written, sent);
        EXPECT_EQ(log.text(), lines);
        EXPECT_EQ(logged_before_write, sent != 0 ? lines : "");
    }
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
