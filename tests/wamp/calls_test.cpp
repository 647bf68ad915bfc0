#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <dax/types.hpp>
#include <qor/serialization/msgpack/pack.hpp>

#include "support/testing.hpp"

using namespace qor::wamp;
using namespace test_support;
namespace mp = qor::serialization::msgpack;
namespace types = dax::types;

namespace {

const std::string clear_scene = "qor.server.operation.CLEAR_SCENE";

template <class T>
std::function<void(RpcResult<T>)> keep(std::vector<RpcResult<T>>& into) {
    return [&into](RpcResult<T> result) { into.push_back(std::move(result)); };
}

// A decoded result that counts how often it is copied: a large result (a list of millions
// of strings) must reach the caller's callback without a copy.
struct Counted {
    int copies = 0;
    long long value = 0;
    Counted() = default;
    Counted(const Counted& other) : copies(other.copies + 1), value(other.value) {}
    Counted(Counted&&) = default;
    Counted& operator=(const Counted&) = delete;  // a copy by assignment does not build
    Counted& operator=(Counted&&) = default;
};
void read(mp::ReadBuffer& in, Counted& c) {
    mp::read(in, c.value);
}

}  // namespace

TEST(WampCall, ResultReachesTheCallbackThroughThePump) {
    LoopbackPeer p;
    std::vector<RpcResult<int>> results;
    p.peer.call<int>(keep(results), clear_scene);

    const Message& call = p.link.last_call();
    EXPECT_EQ(call.procedure, clear_scene);
    EXPECT_GE(call.request.value(), 1u);
    EXPECT_EQ(call.args_count, 0u);
    EXPECT_EQ(p.endpoint.caller.pending.count(call.request.value()), 1u);

    p.link.reply_last_result(42);
    EXPECT_TRUE(results.empty()) << "answers are delivered inside the pump, not at inject time";
    EXPECT_TRUE(p.pump());
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].value, 42);
    EXPECT_FALSE(results[0].isError);
    EXPECT_EQ(results[0].getError(), "");
    EXPECT_TRUE(p.endpoint.caller.pending.empty());
    EXPECT_FALSE(p.pump());
}

TEST(WampCall, EachAnswerGivesItsValueErrorOrThrownText) {
    struct Row {
        const char* name;
        std::function<void(LoopbackPeer&)> answer;
        bool is_error;
        std::string error, thrown;
    };
    const Row rows[] = {
        {"error", [](LoopbackPeer& p) { p.link.reply_last_error("qor.error.x"); }, true,
         "qor.error.x", ""},
        {"no arguments", [](LoopbackPeer& p) { p.link.reply_last_result(); }, false, "", ""},
        {"does not decode", [](LoopbackPeer& p) { p.link.reply_last_result(std::string("no")); },
         false, "", "inconsistent data while parsing array"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LoopbackPeer p;
        std::vector<RpcResult<types::mesh_info_t>> results;
        p.peer.call<types::mesh_info_t>(keep(results), clear_scene, 1, 2);
        row.answer(p);
        EXPECT_EQ(error_of([&] { p.pump(); }), row.thrown);
        EXPECT_TRUE(p.endpoint.caller.pending.empty());
        if (!row.thrown.empty()) {
            EXPECT_TRUE(results.empty());
            continue;
        }
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0].isError, row.is_error);
        EXPECT_EQ(results[0].error, row.error);
        EXPECT_EQ(results[0].value.value_1, 0);
        EXPECT_EQ(results[0].value.text, "");
    }
}

TEST(WampCall, FailedSendLeavesNothingPending) {
    LoopbackPeer p;
    std::vector<RpcResult<int>> results;
    p.endpoint.session.write = [](const uint8_t*, uint64_t) {
        throw std::runtime_error("link down");
    };
    EXPECT_EQ(error_of([&] { p.peer.call<int>(keep(results), clear_scene); }), "link down");
    EXPECT_TRUE(p.endpoint.caller.pending.empty());
}

TEST(WampCall, LateAndUnknownAnswersAreDroppedAndLogged) {
    CapturedLog log(spdlog::level::debug);
    LoopbackPeer p(log.logger.get());
    std::vector<RpcResult<int>> results;
    p.peer.call<int>(keep(results), clear_scene);
    const Id request = p.link.last_call().request;
    p.link.reply_result(request, 1);
    p.link.reply_result(request, 2);  // a duplicate arriving after the first was handled
    p.link.reply_error(Id(request.value() == 1 ? 2 : 1), "qor.error.x");  // never asked
    EXPECT_NO_THROW(p.pump());
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].value, 1);
    EXPECT_NE(log.text().find("[server] dropping RESULT for unknown request " +
                              std::to_string(request.value())),
              std::string::npos)
        << log.text();
    EXPECT_NE(log.text().find("[server] dropping ERROR for unknown request"), std::string::npos);
}

TEST(WampCall, HandlerThatThrowsLeavesThroughThePumpAndIsGone) {
    LoopbackPeer p;
    int ran = 0;
    p.peer.call<int>(
        [&ran](RpcResult<int>) {
            ++ran;
            throw std::runtime_error("handler failed");
        },
        clear_scene);
    std::vector<RpcResult<int>> other;
    p.link.reply_last_result(1);
    p.peer.call<int>(keep(other), clear_scene);
    p.link.reply_last_result(2);

    EXPECT_EQ(error_of([&] { p.pump(); }), "handler failed");
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(p.endpoint.caller.pending.size(), 1u);
    // The second answer is still queued and is delivered by the next pump.
    p.pump();
    ASSERT_EQ(other.size(), 1u);
    EXPECT_EQ(other[0].value, 2);
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(p.endpoint.caller.pending.empty());
}

TEST(WampCall, HandlerMayStartTheNextCall) {
    LoopbackPeer p;
    std::vector<int> values;
    std::function<void(RpcResult<int>)> chain = [&](RpcResult<int> r) {
        values.push_back(r.value);
        if (values.size() < 3) p.peer.call<int>(chain, clear_scene);
    };
    p.peer.call<int>(chain, clear_scene);
    for (int i = 1; i <= 3; ++i) {
        p.link.reply_last_result(i * 10);
        p.pump();
    }
    EXPECT_EQ(values, (std::vector<int>{10, 20, 30}));
    EXPECT_EQ(p.link.calls().size(), 3u);
    EXPECT_TRUE(p.endpoint.caller.pending.empty());
}

TEST(WampCall, DefaultHandlerComplainsWhenTheAnswerArrives) {
    LoopbackPeer p;
    p.endpoint.caller.call(RPC<int>(clear_scene));
    p.link.reply_last_result(1);
    EXPECT_EQ(error_of([&] { p.pump(); }), "RPC onResult callback has not been set");
}

TEST(WampFillArgs, CountAndParsingErrorsHaveTheirTexts) {
    const Message three = parse_message(mp::buffer(hex("94 32 07 80 93 01 02 03")));
    int a = 0, b = 0;
    EXPECT_EQ(error_of([&] { IncomingMessage(three).fillArgsNS(a, b); }),
              "IncomingMessage::fillArgsNS : wrong number of arguments. 3 in message, 2 in tuple");
    const Message text = parse_message(mp::buffer(hex("94 32 07 80 91 A1 61")));
    EXPECT_EQ(
        error_of([&] { IncomingMessage(text).fillArgsNS(a); }),
        "IncomingMessage::fillArgsNS : error during argument parsing 'expecting integer value'");
    types::moticon_frame_t frame;
    const Message short_frame = parse_message(mp::buffer(hex("94 32 07 80 91 93 90 90 90")));
    EXPECT_EQ(error_of([&] { IncomingMessage(short_frame).fillArgsNS(frame); }),
              "IncomingMessage::fillArgsNS : error during argument parsing 'reading struct : wrong "
              "number of fields. 3 fields in message, 2 in struct'");
}

TEST(WampFailAll, CompletesEveryPendingCallOnceEvenWhenAHandlerThrows) {
    LoopbackPeer p;
    std::vector<std::string> completed;
    int throwing_runs = 0;
    std::function<void(RpcResult<int>)> record = [&completed](RpcResult<int> r) {
        EXPECT_TRUE(r.isError);
        EXPECT_EQ(r.value, 0);
        completed.push_back(r.error);
    };
    std::function<void(RpcResult<int>)> thrower = [&](RpcResult<int>) {
        ++throwing_runs;
        throw std::runtime_error("handler failed");
    };
    for (int i = 0; i < 3; ++i) p.peer.call<int>(record, clear_scene);
    p.peer.call<int>(thrower, clear_scene);
    for (int i = 0; i < 3; ++i) p.peer.call<int>(record, clear_scene);
    ASSERT_EQ(p.endpoint.caller.pending.size(), 7u);

    // The ids are random, so the thrower may come anywhere: keep failing until all are done.
    int rounds = 0;
    while (!p.endpoint.caller.pending.empty() && rounds++ < 10) {
        try {
            p.endpoint.caller.fail_all("qor.error.connection_lost");
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), "handler failed");
        }
    }
    EXPECT_EQ(throwing_runs, 1);
    EXPECT_EQ(completed, std::vector<std::string>(6, "qor.error.connection_lost"));
    EXPECT_LE(rounds, 2);
}

TEST(WampFailAll, CallsStartedByHandlersStayPending) {
    LoopbackPeer p;
    int failed = 0;
    std::vector<RpcResult<int>> retried;
    std::function<void(RpcResult<int>)> retry = [&](RpcResult<int> r) {
        EXPECT_EQ(r.error, "qor.error.connection_lost");
        ++failed;
        p.peer.call<int>(keep(retried), clear_scene);
    };
    p.peer.call<int>(retry, clear_scene);
    p.peer.call<int>(retry, clear_scene);
    p.endpoint.caller.fail_all("qor.error.connection_lost");
    EXPECT_EQ(failed, 2);
    EXPECT_EQ(p.endpoint.caller.pending.size(), 2u);
    EXPECT_TRUE(retried.empty());
    p.link.reply_last_result(8);
    p.pump();
    ASSERT_EQ(retried.size(), 1u);
    EXPECT_EQ(retried[0].value, 8);
}

TEST(WampCall, LargeResultsReachTheCallbackWithoutACopy) {
    LoopbackPeer p;
    std::vector<Counted> got;
    p.peer.call<Counted>([&](RpcResult<Counted> r) { got.push_back(std::move(r.value)); },
                         clear_scene);
    p.link.reply_last_result(42);
    p.pump();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].value, 42);
    EXPECT_EQ(got[0].copies, 0);
}
