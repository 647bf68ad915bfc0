// The 43 operations on the wire, and the blocking wait around them.

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/testing.hpp"

namespace client_test {
namespace {

using namespace test_support;

using dax::client::DaxClient;
using qor::serialization::msgpack::buffer;
using qor::wamp::RpcResult;
namespace types = dax::types;

struct OperationRow {
    const char* name;
    std::function<void(DaxClient&)> send;  // the asynchronous form with sample arguments
    uint64_t count;                        // positional arguments in the CALL
    const char* args;                      // their encoding, in hex
};

// Accepts the result of any operation: the table only looks at what is sent.
const auto ignore = [](auto) {};

using OperationsTest = ClientTest;

TEST_F(OperationsTest, EveryOperationSendsItsUriAndArgumentsInOrder) {
    // Sample arguments: "ab" = a2 61 62, "c" = a1 63, true = c3, false = c2, 0.5 and 2.0 as
    // float 64, 300 as uint 16, 5000000000 as uint 64, an empty mesh batch = 93 90 90 90.
    // clang-format off
    const std::vector<OperationRow> table = {
        {"AUTHENTICATE", [](DaxClient& c) { c.AUTHENTICATE("ab", ignore); }, 1, "a26162"},
        {"BROWSE_PERSISTENCES", [](DaxClient& c) { c.BROWSE_PERSISTENCES(ignore); }, 0, ""},
        {"CLEAR_BODIES_PERSISTENCES", [](DaxClient& c) { c.CLEAR_BODIES_PERSISTENCES("ab", types::vector_string_t{{"x"}}, true, ignore); }, 3, "a26162 9191a178 c3"},
        {"CLEAR_PERSISTENCES", [](DaxClient& c) { c.CLEAR_PERSISTENCES(ignore); }, 0, ""},
        {"CLEAR_SCENE", [](DaxClient& c) { c.CLEAR_SCENE(ignore); }, 0, ""},
        {"CLEAR_SCENE_PERSISTENCES", [](DaxClient& c) { c.CLEAR_SCENE_PERSISTENCES("ab", false, ignore); }, 2, "a26162 c2"},
        {"CLEAR_TRIMESHES", [](DaxClient& c) { c.CLEAR_TRIMESHES(ignore); }, 0, ""},
        {"COMPONENTS_REGISTERED", [](DaxClient& c) { c.COMPONENTS_REGISTERED(ignore); }, 0, ""},
        {"CONFIGURE_COMPONENTS", [](DaxClient& c) { c.CONFIGURE_COMPONENTS(ignore); }, 0, ""},
        {"CREATE_COMPONENTS", [](DaxClient& c) { c.CREATE_COMPONENTS(ignore); }, 0, ""},
        {"CREATE_TRIMESH", [](DaxClient& c) { c.CREATE_TRIMESH("ab", 1, 2, 3, ignore); }, 4, "a26162 01 02 03"},
        {"DUMP", [](DaxClient& c) { c.DUMP(ignore); }, 0, ""},
        {"DUMP_MESHES_TO_OBJ", [](DaxClient& c) { c.DUMP_MESHES_TO_OBJ("ab", ignore); }, 1, "a26162"},
        {"ENABLE_SCHEDULING", [](DaxClient& c) { c.ENABLE_SCHEDULING(true, ignore); }, 1, "c3"},
        {"GET_LAST_ERRORS", [](DaxClient& c) { c.GET_LAST_ERRORS(false, ignore); }, 1, "c2"},
        {"GET_LOGS_LABELS", [](DaxClient& c) { c.GET_LOGS_LABELS(ignore); }, 0, ""},
        {"GET_PERSISTENCE_MODE", [](DaxClient& c) { c.GET_PERSISTENCE_MODE(ignore); }, 0, ""},
        {"GET_PROPERTY", [](DaxClient& c) { c.GET_PROPERTY("ab", ignore); }, 1, "a26162"},
        {"GET_SERVER_BUILD_NUMBER", [](DaxClient& c) { c.GET_SERVER_BUILD_NUMBER(ignore); }, 0, ""},
        {"GET_SERVER_SCENE", [](DaxClient& c) { c.GET_SERVER_SCENE(ignore); }, 0, ""},
        {"GET_TRIMESH", [](DaxClient& c) { c.GET_TRIMESH(300LL, ignore); }, 1, "cd012c"},
        {"GET_TRIMESH_INFO", [](DaxClient& c) { c.GET_TRIMESH_INFO(-1LL, ignore); }, 1, "ff"},
        {"HAS_PROPERTY", [](DaxClient& c) { c.HAS_PROPERTY("ab", ignore); }, 1, "a26162"},
        {"LOAD_COMPONENTS", [](DaxClient& c) { c.LOAD_COMPONENTS("ab", ignore); }, 1, "a26162"},
        {"LOCK_PHYSIC", [](DaxClient& c) { c.LOCK_PHYSIC(ignore); }, 0, ""},
        {"PAUSE_SIMULATION", [](DaxClient& c) { c.PAUSE_SIMULATION(ignore); }, 0, ""},
        {"QUIT", [](DaxClient& c) { c.QUIT(ignore); }, 0, ""},
        {"REGISTER_COMPONENTS", [](DaxClient& c) { c.REGISTER_COMPONENTS(ignore); }, 0, ""},
        {"RESUME_SIMULATION", [](DaxClient& c) { c.RESUME_SIMULATION(ignore); }, 0, ""},
        {"SAVE_COMPONENTS", [](DaxClient& c) { c.SAVE_COMPONENTS("ab", ignore); }, 1, "a26162"},
        {"SEND_SCENE", [](DaxClient& c) { c.SEND_SCENE(buffer(hex("01 02")), ignore); }, 1, "c4020102"},
        {"SET_PERSISTENCE_MODE", [](DaxClient& c) { c.SET_PERSISTENCE_MODE(2, ignore); }, 1, "02"},
        {"SET_PROPERTY", [](DaxClient& c) { c.SET_PROPERTY("ab", "c", ignore); }, 2, "a26162 a163"},
        {"SET_PUBLISH_COMPRESSION_LEVEL", [](DaxClient& c) { c.SET_PUBLISH_COMPRESSION_LEVEL(9, ignore); }, 1, "09"},
        {"SET_PUBLISH_PERIOD_MS", [](DaxClient& c) { c.SET_PUBLISH_PERIOD_MS(0.5, ignore); }, 1, "cb3fe0000000000000"},
        {"SET_SERVER_PERIOD_MS", [](DaxClient& c) { c.SET_SERVER_PERIOD_MS(2.0, ignore); }, 1, "cb4000000000000000"},
        {"SET_VERBOSE", [](DaxClient& c) { c.SET_VERBOSE(true, ignore); }, 1, "c3"},
        {"START_SIMULATION", [](DaxClient& c) { c.START_SIMULATION(ignore); }, 0, ""},
        {"STEP_SIMULATION", [](DaxClient& c) { c.STEP_SIMULATION(ignore); }, 0, ""},
        {"STOP_SIMULATION", [](DaxClient& c) { c.STOP_SIMULATION(ignore); }, 0, ""},
        {"UNLOCK_PHYSIC", [](DaxClient& c) { c.UNLOCK_PHYSIC(ignore); }, 0, ""},
        {"UNREGISTER_COMPONENTS", [](DaxClient& c) { c.UNREGISTER_COMPONENTS(ignore); }, 0, ""},
        {"UPDATE_TRIMESH", [](DaxClient& c) { c.UPDATE_TRIMESH(5000000000LL, 1, 2, types::mesh_batch_t{}, ignore); }, 4, "cf000000012a05f200 01 02 93909090"},
    };
    // clang-format on
    ASSERT_EQ(table.size(), 43u);
    for (const OperationRow& row : table) {
        SCOPED_TRACE(row.name);
        net.link.clear_written();
        row.send(*client);
        ASSERT_EQ(net.link.calls().size(), 1u);
        const qor::wamp::Message& call = net.link.last_call();
        EXPECT_EQ(call.procedure, std::string("qor.server.operation.") + row.name);
        EXPECT_EQ(call.args_count, row.count);
        EXPECT_EQ(args_hex(call), to_hex(hex(row.args)));
        // Without arguments the CALL stops after the URI: four elements instead of five.
        EXPECT_EQ(call.raw.data[0], row.count == 0 ? 0x94 : 0x95);
    }
}

TEST_F(OperationsTest, BlockingFormsReturnTheDecodedResultOrThrowTheErrorAsIs) {
    net.on_pass(1, [&] { net.link.reply_last_result(std::string("build 42")); });
    EXPECT_EQ(client->GET_SERVER_BUILD_NUMBER(), "build 42");

    net.on_pass(1, [&] { net.link.reply_last_result(buffer(hex("93 01 02 03"))); });
    EXPECT_EQ(to_hex(client->GET_SERVER_SCENE()), "93 01 02 03");

    // The answer comes several passes later; the wait keeps pumping until then.
    net.link.first_passes = 0;
    net.on_pass(5, [&] { net.link.reply_last_result(types::mesh_info_t{4, 5, 6, "cube"}); });
    const types::mesh_info_t got = client->GET_TRIMESH_INFO(9LL);
    EXPECT_EQ(got.value_3, 6);
    EXPECT_EQ(got.text, "cube");
    EXPECT_EQ(net.link.first_passes, 5u);

    net.on_pass(2, [&] { net.link.reply_last_error("qor.error.scene_locked"); });
    EXPECT_EQ(error_of([&] { client->CLEAR_SCENE(); }), "qor.error.scene_locked");
}

TEST_F(OperationsTest, OtherHandlersErrorsStayOutOfABlockingCall) {
    client->init("", nullptr);
    net.link.confirm_subscription("qor.server.update", qor::wamp::Id(900));
    client->full_update();
    // A state update naming a component this client lacks, then the call's own answer.
    const types::integration_result_t unknown{buffer(hex("81 63 c0")), 0, {}, {}, {}};
    net.on_pass(1, [&] {
        net.link.publish_event(qor::wamp::Id(900), unknown);
        net.link.reply_last_result(7);
    });
    EXPECT_EQ(client->CLEAR_SCENE(), 7);
    EXPECT_EQ(client->handler_errors, 1u);

    // The call's own answer failing to decode still leaves through the call.
    net.on_pass(1, [&] { net.link.reply_last_result(std::string("x")); });
    EXPECT_EQ(error_of([&] { client->CLEAR_SCENE(); }), "expecting integer value");
    // Pumped by the application, the same handler error leaves through full_update.
    net.link.publish_event(qor::wamp::Id(900), unknown);
    EXPECT_THROW(client->full_update(), std::runtime_error);
    EXPECT_EQ(client->handler_errors, 1u);
}

TEST_F(OperationsTest, NotConnectedFailsBothFormsWithoutSendingOrPumping) {
    net.peer.server_connected = false;
    const char* text = "qor client cannot call operations before server is connected";
    client->setTimeoutMs(-1);  // the time-out plays no part
    bool called = false;
    EXPECT_EQ(error_of([&] { client->STEP_SIMULATION(); }), text);
    EXPECT_EQ(error_of([&] { client->SET_VERBOSE(true, [&](RpcResult<int>) { called = true; }); }),
              text);
    EXPECT_TRUE(net.link.calls().empty());
    EXPECT_EQ(net.link.first_passes, 0u);
    EXPECT_FALSE(called);
}

TEST_F(OperationsTest, AsyncLimitCompletesTheCallWithAnErrorAndCancelsIt) {
    std::vector<RpcResult<int>> results;
    auto keep = [&](RpcResult<int> r) { results.push_back(r); };
    client->CLEAR_SCENE(keep);  // no limit: waits for ever, as by default
    client->setAsyncTimeoutMs(20);
    client->CLEAR_TRIMESHES(keep);
    const qor::wamp::Id limited = net.link.last_call().request;
    client->setAsyncTimeoutMs(0);
    const auto start = std::chrono::steady_clock::now();
    while (results.empty() && std::chrono::steady_clock::now() - start < std::chrono::seconds(5))
        client->full_update();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_TRUE(results[0].isError);
    EXPECT_EQ(results[0].error, "qor.error.call_timeout");
    ASSERT_EQ(net.link.written.back().type, 49u);  // CANCEL
    EXPECT_EQ(net.link.written.back().request, limited);
    // The late answer is dropped; the call without a limit is still pending.
    net.link.reply_result(limited, 3);
    client->full_update();
    EXPECT_EQ(results.size(), 1u);
    EXPECT_EQ(net.endpoint.caller.pending.size(), 1u);
}

// ---- the time-out --------------------------------------------------------------------------

TEST_F(OperationsTest, TimeoutTextNamesTheOperationAndTheLimitIsReadInEveryPass) {
    struct Row {
        int timeout_ms;
        uint64_t answer_pass;  // 0: nobody answers
        std::function<void(DaxClient&)> call;
        const char* operation;
        uint64_t passes;  // 0: at least one, as many as fit in the limit
    };
    const Row rows[] = {
        // Nobody answers: fails once a whole millisecond has passed.
        {0, 0, [](DaxClient& c) { c.CLEAR_SCENE(); }, "CLEAR_SCENE", 0},
        {0, 0, [](DaxClient& c) { c.SET_PUBLISH_PERIOD_MS(5.0); }, "SET_PUBLISH_PERIOD_MS", 0},
        // A negative limit fails the first pass, even the one that delivers the result.
        {-1, 1, [](DaxClient& c) { c.START_SIMULATION(); }, "START_SIMULATION", 1},
        // Lowered from inside the pass that also delivers the result: that pass fails.
        {1000, 3, [](DaxClient& c) { c.DUMP(); }, "DUMP", 3},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.operation);
        net.link.first_passes = 0;
        client->setTimeoutMs(row.timeout_ms);
        if (row.answer_pass != 0) {
            net.on_pass(row.answer_pass, [&] {
                net.link.reply_last_result(1);
                client->setTimeoutMs(-1);
            });
        }
        EXPECT_EQ(error_of([&] { row.call(*client); }),
                  std::string("DaxClient: timeout during '") + row.operation + "' call");
        if (row.passes == 0)
            EXPECT_GE(net.link.first_passes, 1u);
        else
            EXPECT_EQ(net.link.first_passes, row.passes);
        EXPECT_EQ(net.link.queued(), 0u);  // a result was delivered in that pass, and dropped
        net.link.before_first = nullptr;
    }
}

TEST_F(OperationsTest, ElapsedEqualToTheTimeoutDoesNotFail) {
    // With a limit of 0, a result that arrives while less than a whole millisecond has passed
    // is "equal", not over. A pass takes microseconds, but the machine may preempt us, so
    // several tries are made; a wait that failed on equality would fail every one of them.
    client->setTimeoutMs(0);
    int successes = 0;
    for (int attempt = 0; attempt < 20 && successes == 0; ++attempt) {
        net.on_pass(1, [&] { net.link.reply_last_result(5); });
        try {
            EXPECT_EQ(client->LOCK_PHYSIC(), 5);
            ++successes;
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "DaxClient: timeout during 'LOCK_PHYSIC' call");
        }
    }
    EXPECT_EQ(successes, 1);
}

TEST_F(OperationsTest, BlockingCallNestedInACallbackCompletes) {
    // A blocking call made from inside a result callback nests a second wait in the first.
    int inner = -1;
    client->PAUSE_SIMULATION([&](RpcResult<int>) {
        net.on_pass(1, [&] { net.link.reply_last_result(8); });
        inner = client->RESUME_SIMULATION();
    });
    net.link.reply_last_result(0);
    client->full_update();
    EXPECT_EQ(inner, 8);
}

TEST_F(OperationsTest, LateResultsAfterATimeoutChangeNothing) {
    // Under AddressSanitizer this proves that the pending call's copy of the completion
    // callback does not reach into the finished wait's stack.
    client->setTimeoutMs(0);
    EXPECT_EQ(error_of([&] { client->GET_PROPERTY("g"); }),
              "DaxClient: timeout during 'GET_PROPERTY' call");
    const auto late_value = net.link.last_call().request;
    EXPECT_EQ(error_of([&] { client->GET_LOGS_LABELS(); }),
              "DaxClient: timeout during 'GET_LOGS_LABELS' call");
    const auto late_error = net.link.last_call().request;

    net.link.reply_result(late_value, std::string("late"));
    net.link.reply_error(late_error, "qor.error.too_late");
    EXPECT_NO_THROW(EXPECT_TRUE(client->full_update()));

    // The client goes on working normally afterwards.
    client->setTimeoutMs(1000);
    net.on_pass(1, [&] { net.link.reply_last_result(std::string("fresh")); });
    EXPECT_EQ(client->GET_PROPERTY("g"), "fresh");
}

}  // namespace
}  // namespace client_test
