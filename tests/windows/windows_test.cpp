// What only a Windows build can get wrong: <windows.h> included before the SDK, 64-bit ids on
// a system where `long` has 32 bits, and the transports of a build without TLS.

// Deliberately first and without WIN32_LEAN_AND_MEAN: wingdi.h defines ERROR as 0, nb30.h
// REGISTERED.
#include <windows.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <dax/client.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/transport.hpp>
#include <qor/wamp.hpp>

#if !defined(ERROR) || !defined(REGISTERED)
#error "the SDK's headers must give <windows.h> its macros back"
#endif
// This file names qor::wamp::ERROR itself, as the README tells such programs to do.
#undef ERROR

namespace {

namespace mp = qor::serialization::msgpack;
using qor::wamp::Message;

// Caller::call's answer handler is compiled here, after <windows.h>: an ERROR answer must be
// taken as an error, not as a RESULT (the macro would turn the test into `type == 0`).
TEST(WindowsHeadersFirst, CallerTellsErrorFromResult) {
    qor::wamp::Session session;
    std::vector<uint8_t> sent;
    session.write = [&sent](const uint8_t* data, uint64_t size) { sent.assign(data, data + size); };
    qor::wamp::Caller caller(&session);

    struct Row {
        uint32_t type;
        bool is_error;
    };
    for (const Row row : {Row{qor::wamp::ERROR, true}, Row{qor::wamp::RESULT, false}}) {
        qor::wamp::RPC<int> rpc("com.example.answer");
        qor::wamp::RpcResult<int> got;
        bool called = false;
        rpc.onResult = [&](const qor::wamp::RpcResult<int>& r) {
            got = r;
            called = true;
        };
        caller.call(rpc);
        ASSERT_EQ(caller.pending.size(), 1u);
        Message answer(row.type);
        answer.request = qor::wamp::Id(caller.pending.begin()->first);
        answer.error = "com.example.failed";
        EXPECT_TRUE(caller.handle(answer));
        EXPECT_TRUE(called);
        EXPECT_EQ(got.isError, row.is_error) << qor::wamp::type_name(row.type);
    }
    EXPECT_FALSE(sent.empty());
}

// Ids travel as uint 64 above 2^32 - 1 and must keep all their bits where `long` is 32 bits.
TEST(LLP64, IdsAndNumbersKeepTheirHighBits) {
    static_assert(sizeof(long) == 4, "this suite is for LLP64 systems");
    struct Row {
        uint64_t id;
        std::vector<uint8_t> encoded;
    };
    const Row rows[] = {
        {0xFFFFFFFFull, {0xCE, 0xFF, 0xFF, 0xFF, 0xFF}},
        {0x100000000ull, {0xCF, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00}},
        {9007199254740992ull, {0xCF, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}},
    };
    for (const Row& row : rows) {
        std::vector<uint8_t> out;
        mp::pack(out, row.id);
        EXPECT_EQ(out, row.encoded) << row.id;

        // RESULT [50, id, {}, [7]] through the receive side.
        std::vector<uint8_t> bytes = {0x94, 0x32};
        bytes.insert(bytes.end(), row.encoded.begin(), row.encoded.end());
        bytes.insert(bytes.end(), {0x80, 0x91, 0x07});
        const Message m = qor::wamp::parse_message(mp::buffer(bytes.data(), bytes.size()));
        EXPECT_EQ(m.request.value(), row.id);

        mp::ReadBuffer in(row.encoded.data(), row.encoded.size());
        int64_t as_signed = 0;
        mp::read(in, as_signed);
        EXPECT_EQ(static_cast<uint64_t>(as_signed), row.id);
    }
}

#if !QOR_HAVE_TLS
TEST(TransportWithoutTls, SecureSchemesAreRefusedClearly) {
    for (const std::string url : {"rss://127.0.0.1:9", "wss://127.0.0.1:9/ws"}) {
        qor::QorClient peer;
        try {
            qor::transport::connect(peer, url);
            ADD_FAILURE() << url << " connected";
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()),
                      "cannot connect to '" + url + "': TLS is not available in this build");
        }
    }
}
#endif

}  // namespace
