// What only a Windows build can get wrong: <windows.h> included before the SDK and the
// transports of a build without TLS. (64-bit ids where `long` has 32 bits: the codec's and the
// messages' byte tables run on Windows too.)

// Deliberately first and without WIN32_LEAN_AND_MEAN: wingdi.h defines ERROR as 0, nb30.h
// REGISTERED.
#include <windows.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <dax/client.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport.hpp>
#include <qor/wamp.hpp>

#include "support/testing.hpp"

#if !defined(ERROR) || !defined(REGISTERED)
#error "the SDK's headers must give <windows.h> its macros back"
#endif
// This file names qor::wamp::ERROR itself, as the README tells such programs to do.
#undef ERROR

namespace {

using qor::wamp::Message;

// Caller::call's answer handler is compiled here, after <windows.h>: an ERROR answer must be
// taken as an error, not as a RESULT (the macro would turn the test into `type == 0`).
TEST(WindowsHeadersFirst, CallerTellsErrorFromResult) {
    qor::wamp::Session session;
    std::vector<uint8_t> sent;
    session.write = [&sent](const uint8_t* data, uint64_t size) { sent.assign(data, data + size); };
    qor::wamp::Caller caller(&session);

    const std::pair<uint32_t, bool> rows[] = {{qor::wamp::ERROR, true}, {qor::wamp::RESULT, false}};
    for (const auto& [type, is_error] : rows) {
        qor::wamp::RPC<int> rpc("com.example.answer");
        qor::wamp::RpcResult<int> got;
        bool called = false;
        rpc.onResult = [&](const qor::wamp::RpcResult<int>& r) {
            got = r;
            called = true;
        };
        caller.call(rpc);
        ASSERT_EQ(caller.pending.size(), 1u);
        Message answer(type);
        answer.request = qor::wamp::Id(caller.pending.begin()->first);
        answer.error = "com.example.failed";
        EXPECT_TRUE(caller.handle(answer));
        EXPECT_TRUE(called);
        EXPECT_EQ(got.isError, is_error) << qor::wamp::type_name(type);
    }
    EXPECT_FALSE(sent.empty());
}

#if !QOR_HAVE_TLS
TEST(TransportWithoutTls, SecureSchemesAreRefusedClearly) {
    for (const std::string url : {"rss://127.0.0.1:9", "wss://127.0.0.1:9/ws"}) {
        qor::QorClient peer;
        EXPECT_EQ(test_support::error_of([&] { qor::transport::connect(peer, url); }),
                  "cannot connect to '" + url + "': TLS is not available in this build");
    }
}
#endif

}  // namespace
