#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "sample_messages.hpp"

using namespace qor::wamp;
using namespace wamp_test;

namespace {

const std::string clear_scene = "qor.server.operation.CLEAR_SCENE";

}  // namespace

TEST(WampId, AcceptsUpToTwoToThe53AndRefusesAbove) {
    EXPECT_EQ(Id(0).value(), 0u);
    EXPECT_EQ(Id(9007199254740992ULL).value(), 9007199254740992ULL);
    EXPECT_EQ(error_of([] { Id(9007199254740993ULL); }), "WAMP id too big");
    EXPECT_EQ(error_of([] { Id(~0ULL); }), "WAMP id too big");
    Message fresh(CALL);
    EXPECT_EQ(fresh.request.value(), 0u);
    EXPECT_EQ(fresh.session.value(), 0u);
    EXPECT_EQ(fresh.subscription.value(), 0u);
}

TEST(WampId, RandomStaysInOneToTwoToThe53AndVaries) {
    std::set<uint64_t> seen;
    for (int i = 0; i < 10000; ++i) {
        const uint64_t v = Id::Random().value();
        ASSERT_GE(v, 1u);
        ASSERT_LE(v, max_id);
        seen.insert(v);
    }
    EXPECT_GT(seen.size(), 9990u);
}

TEST(WampMessage, UriConstructorRefusesKindsWithoutAUri) {
    EXPECT_EQ(error_of([] { Message(RESULT, Id(3), "x"); }),
              "WAMP message: a URI is given only to CALL, REGISTER, SUBSCRIBE or PUBLISH");
}

// ---- serialize: one row per message kind and per boundary of each element's form ----------

TEST(WampSerialize, EveryKindAndFormIsExact) {
    for (const SerializeRow& row : serialize_rows()) {
        SCOPED_TRACE(row.name);
        const mp::buffer out = serialize(row.build());
        EXPECT_EQ(bytes_of(out), row.expected);
    }
}

TEST(WampSerialize, CallExampleIsThirtyEightBytes) {
    EXPECT_EQ(serialize(Message(CALL, Id(7), clear_scene)).size, 38u);
}

TEST(WampSerialize, StringAndContainerHeadersSwitchFormAtTheirBounds) {
    struct Row {
        size_t length;
        std::vector<uint8_t> header;
    };
    const Row rows[] = {{31, hex("BF")},          {32, hex("D9 20")},
                        {255, hex("D9 FF")},      {256, hex("DA 01 00")},
                        {65535, hex("DA FF FF")}, {65536, hex("DB 00 01 00 00")}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.length);
        const std::string uri(row.length, 'u');
        const std::vector<uint8_t> out = bytes_of(serialize(Message(CALL, Id(1), uri)));
        std::vector<uint8_t> expected = hex("94 30 01 80");
        expected.insert(expected.end(), row.header.begin(), row.header.end());
        expected.insert(expected.end(), uri.begin(), uri.end());
        EXPECT_EQ(out, expected);
    }

    Message many(CALL, Id(1), "p");
    for (int i = 0; i < 16; ++i) many.args.push_back(encoded(i));
    for (int i = 0; i < 16; ++i) many.details["k" + std::to_string(i + 10)] = encoded(i);
    const std::vector<uint8_t> out = bytes_of(serialize(many));
    ASSERT_GE(out.size(), 7u);
    EXPECT_EQ(std::vector<uint8_t>(out.begin() + 3, out.begin() + 6), hex("DE 00 10"));
    const size_t args_at = out.size() - 16 - 3;
    EXPECT_EQ(std::vector<uint8_t>(out.begin() + args_at, out.begin() + args_at + 3),
              hex("DC 00 10"));
}

TEST(WampSerialize, RefusesCodesOutsideTheTable) {
    for (uint32_t code : {0u, 7u, 9u, 15u, 18u, 31u, 37u, 47u, 49u, 51u, 63u, 69u, 71u, 255u}) {
        SCOPED_TRACE(code);
        EXPECT_EQ(error_of([&] { serialize(Message(code)); }),
                  "Wamp message serialize : unkown message type");
    }
}

TEST(WampTopic, OnlyTheSessionMetaTopicsMayBeginWithWamp) {
    for (const char* accepted : {"wamp.session.on_join", "wamp.session.on_leave",
                                 "qor.server.update", "wam", "", "WAMP.x", "art_frame"}) {
        SCOPED_TRACE(accepted);
        EXPECT_NO_THROW(check_topic(accepted));
        EXPECT_NO_THROW(Message(SUBSCRIBE, Id(1), accepted));
    }
    for (const char* refused : {"wamp.session.on_join2", "wamp", "wampx", "wampum",
                                "wamp.session.on_joined", "wamp.custom"}) {
        SCOPED_TRACE(refused);
        EXPECT_EQ(error_of([&] { Message(SUBSCRIBE, Id(1), refused); }),
                  std::string("wamp topic '") + refused + "'invalid, cannot start with 'wamp'");
    }
}

// ---- print ---------------------------------------------------------------------------------

struct PrintRow {
    const char* bytes;
    uint64_t limit;
    const char* text;
};

TEST(WampPrint, ValuesPrintAsTheLogShowsThem) {
    const PrintRow rows[] = {
        {"C0", 10, "nil"},
        {"C2", 10, "false"},
        {"C3", 10, "true"},
        {"7F", 10, "127"},
        {"E0", 10, "-32"},
        {"D0 81", 10, "-127"},
        {"D1 FF 80", 10, "-128"},
        {"CC FF", 10, "255"},
        {"CD 01 00", 10, "256"},
        {"CE FF FF FF FF", 10, "4294967295"},
        {"D3 FF FF FF FF FF FF FF FE", 10, "-2"},
        {"CF FF FF FF FF FF FF FF FF", 10, "-1"},
        {"CA 3F C0 00 00", 10, "1.5f"},
        {"CB 40 00 00 00 00 00 00 00", 10, "2d"},
        {"CB 3F B9 99 99 99 99 99 9A", 10, "0.1d"},
        {"A0", 10, "\"\""},
        {"A2 68 69", 10, "\"hi\""},
        {"C4 03 01 02 03", 10, "bin(3)"},
        {"C4 00", 10, "bin(0)"},
        {"80", 10, "{}"},
        {"90", 10, "[]"},
        {"82 A1 61 01 A1 62 92 02 03", 10, "{\"a\":1, \"b\":[2, 3]}"},
        {"93 01 02 03", 2, "[1, 2, ... (size=3)]"},
        {"93 01 02 03", 0, "[1, 2, 3]"},
        {"93 01 02 03", 3, "[1, 2, 3]"},
        {"83 01 01 02 02 03 03", 1, "{1:1, ... (size=3)}"},
        // A shortened container reports only what it read: the next member starts inside it.
        {"92 93 01 02 03 04", 2, "[[1, 2, ... (size=3)], 3]"},
        // ext and 0xC1 print nothing and consume nothing.
        {"D4 01 00", 10, ""},
        {"C1", 10, ""},
        {"92 C1 05", 10, "[, ]"},
    };
    for (const PrintRow& row : rows) {
        SCOPED_TRACE(row.bytes);
        const std::vector<uint8_t> bytes = hex(row.bytes);
        EXPECT_EQ(print(bytes.data(), bytes.size(), row.limit), row.text);
        EXPECT_EQ(print(bytes.data(), row.limit), row.text);
    }
}

TEST(WampPrint, CallWithLongArgumentIsShortenedByTheDefaultLimit) {
    Message call(CALL, Id(7), clear_scene);
    // Twelve integer arguments: the argument list is the array that gets shortened.
    for (int i = 1; i <= 12; ++i) call.args.push_back(encoded(i));
    const mp::buffer bytes = serialize(call);
    EXPECT_EQ(print_limit, 10u);
    EXPECT_EQ(print(bytes.data, print_limit),
              "[48, 7, {}, \"qor.server.operation.CLEAR_SCENE\", [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, "
              "... (size=12)]]");
}

TEST(WampPrint, BoundedPrintRefusesCutAndRunawayValues) {
    const std::vector<uint8_t> call = bytes_of(serialize(Message(CALL, Id(7), clear_scene)));
    for (size_t cut = 0; cut < call.size(); ++cut) {
        SCOPED_TRACE(cut);
        EXPECT_THROW(print(call.data(), cut, 0), std::runtime_error);
    }
    const std::vector<uint8_t> deep(100000, 0x91);
    EXPECT_EQ(error_of([&] { print(deep.data(), deep.size(), 0); }), "print : nesting too deep");
}
