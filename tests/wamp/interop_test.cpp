// Cross-checks against msgpack-cxx, an encoder and decoder written without our codec.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <msgpack.hpp>

#include "wamp_test_util.hpp"

using namespace qor::wamp;
using namespace wamp_test;

TEST(WampInterop, MsgpackCxxDecodesWhatWeSend) {
    Message call(CALL, Id(4294967296ULL), "qor.server.operation.SET_PROPERTY");
    call.details["receive_progress"] = encoded(false);
    call.args = {encoded(std::string("gravity")), encoded(-9.81), encoded(-200)};
    const mp::buffer bytes = serialize(call);

    msgpack::object_handle handle =
        msgpack::unpack(reinterpret_cast<const char*>(bytes.data), bytes.size);
    using Args = std::tuple<std::string, double, int>;
    auto decoded =
        handle.get()
            .as<std::tuple<int, uint64_t, std::map<std::string, bool>, std::string, Args>>();
    EXPECT_EQ(std::get<0>(decoded), 48);
    EXPECT_EQ(std::get<1>(decoded), 4294967296ULL);
    EXPECT_EQ(std::get<2>(decoded), (std::map<std::string, bool>{{"receive_progress", false}}));
    EXPECT_EQ(std::get<3>(decoded), "qor.server.operation.SET_PROPERTY");
    EXPECT_EQ(std::get<4>(decoded), Args("gravity", -9.81, -200));
}

TEST(WampInterop, WeParseWhatMsgpackCxxSends) {
    // An EVENT as another peer writes it: [36, sub, pub, {"topic": "..."}, [[1, 2]], {"k": "v"}]
    msgpack::sbuffer out;
    msgpack::packer<msgpack::sbuffer> packer(out);
    packer.pack_array(6);
    packer.pack(36);
    packer.pack(uint64_t(9007199254740992ULL));
    packer.pack(77);
    packer.pack(std::map<std::string, std::string>{{"topic", "qor.server.update"}});
    packer.pack(std::make_tuple(std::vector<int>{1, 2}));
    packer.pack(std::map<std::string, std::string>{{"k", "v"}});

    const Message m =
        parse_message(mp::buffer(reinterpret_cast<const uint8_t*>(out.data()), out.size()));
    EXPECT_EQ(m.type, EVENT);
    EXPECT_EQ(m.subscription.value(), max_id);
    EXPECT_EQ(m.publication.value(), 77u);
    ASSERT_EQ(m.details.count("topic"), 1u);
    EXPECT_EQ(bytes_of(m.details.at("topic")), with(hex("B1"), "qor.server.update"));
    EXPECT_EQ(bytes_of(m.arguments_kw.at("k")), hex("A1 76"));
    std::vector<int> values;
    IncomingMessage(m).fillArgsNS(values);
    EXPECT_EQ(values, (std::vector<int>{1, 2}));
}
