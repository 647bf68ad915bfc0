// One message of every kind the client sends or receives, with the exact bytes each encodes to:
// the serializer is checked against the bytes, the receive side against the messages.

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/testing.hpp"

using namespace qor::wamp;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

namespace {

const std::string clear_scene = "qor.server.operation.CLEAR_SCENE";

using M = Message;
using Args = std::vector<mp::buffer>;

template <class T>
struct same {
    using type = T;
};

// A message of `type` with each named field set: a row shows only the fields its kind carries.
Message make(uint32_t type) {
    return Message(type);
}
template <class T, class... Rest>
Message make(uint32_t type, T M::*field, typename same<T>::type value, Rest... rest) {
    Message m = make(type, rest...);
    m.*field = std::move(value);
    return m;
}

Message with_args(Message m, Args args) {
    m.args = std::move(args);
    return m;
}

struct SerializeRow {
    const char* name;
    Message message;
    std::vector<uint8_t> expected;
};

std::vector<SerializeRow> serialize_rows() {
    const std::vector<uint8_t> roles = hex("81 A6 'caller' 80");
    return {
        {"CALL without arguments", Message(CALL, Id(7), "qor.server.operation.CLEAR_SCENE"),
         with(hex("94 30 07 80 D9 20"), "qor.server.operation.CLEAR_SCENE")},
        {"CALL with arguments",
         with_args(Message(CALL, Id(7), "p"), {encoded(1), encoded(std::string("a"))}),
         hex("95 30 07 80 A1 70 92 01 A1 61")},
        {"HELLO", make(HELLO, &M::realm, "realm1"), with(hex("93 01 A6"), "realm1") + hex("80")},
        {"WELCOME", make(WELCOME, &M::session, Id(300)), hex("93 02 CD 01 2C 80")},
        {"ABORT", make(ABORT, &M::reason, "r"), hex("93 03 80 A1 72")},
        {"CHALLENGE", make(CHALLENGE, &M::authmethod, "ticket"),
         with(hex("93 04 A6"), "ticket") + hex("80")},
        {"AUTHENTICATE", make(AUTHENTICATE, &M::signature, "s"), hex("93 05 A1 73 80")},
        {"GOODBYE", make(GOODBYE, &M::reason, "wamp.close.normal"),
         with(hex("93 06 80 B1"), "wamp.close.normal")},
        {"ERROR left as built keeps request type 3", Message(ERROR), hex("95 08 03 00 80 A0")},
        {"ERROR of a CALL with arguments",
         make(ERROR, &M::request_type, 48, &M::request, Id(5), &M::error, "e", &M::args,
              Args{encoded(1)}),
         hex("96 08 30 05 80 A1 65 91 01")},
        {"PUBLISH without arguments", Message(PUBLISH, Id(1), "t"), hex("94 10 01 80 A1 74")},
        {"PUBLISH with one argument", with_args(Message(PUBLISH, Id(1), "t"), {encoded(42)}),
         hex("95 10 01 80 A1 74 91 2A")},
        {"PUBLISHED", make(PUBLISHED, &M::request, Id(1), &M::publication, Id(2)),
         hex("93 11 01 02")},
        {"SUBSCRIBE", Message(SUBSCRIBE, Id(1), "t"), hex("94 20 01 80 A1 74")},
        {"SUBSCRIBED", make(SUBSCRIBED, &M::request, Id(1), &M::subscription, Id(65536)),
         hex("93 21 01 CE 00 01 00 00")},
        {"UNSUBSCRIBE", make(UNSUBSCRIBE, &M::request, Id(1), &M::subscription, Id(2)),
         hex("93 22 01 02")},
        {"UNSUBSCRIBED", make(UNSUBSCRIBED, &M::request, Id(1)), hex("92 23 01")},
        {"EVENT",
         make(EVENT, &M::subscription, Id(2), &M::publication, Id(3), &M::args,
              Args{encoded(std::string("x"))}),
         hex("95 24 02 03 80 91 A1 78")},
        {"RESULT without arguments", make(RESULT, &M::request, Id(7)), hex("93 32 07 80")},
        {"RESULT with arguments", make(RESULT, &M::request, Id(7), &M::args, Args{encoded(true)}),
         hex("94 32 07 80 91 C3")},
        {"REGISTER", Message(REGISTER, Id(1), "p"), hex("94 40 01 80 A1 70")},
        {"REGISTERED", make(REGISTERED, &M::request, Id(1), &M::registration, Id(2)),
         hex("93 41 01 02")},
        {"UNREGISTER", make(UNREGISTER, &M::request, Id(1), &M::registration, Id(2)),
         hex("93 42 01 02")},
        {"UNREGISTERED", make(UNREGISTERED, &M::request, Id(1)), hex("92 43 01")},
        {"INVOCATION",
         make(INVOCATION, &M::request, Id(1), &M::registration, Id(2), &M::args,
              Args{encoded(false)}),
         hex("95 44 01 02 80 91 C2")},
        {"YIELD", make(YIELD, &M::request, Id(1)), hex("93 46 01 80")},
        // Id forms: smallest unsigned form, up to uint 64 for 2^53.
        {"id 127", Message(CALL, Id(127), "p"), hex("94 30 7F 80 A1 70")},
        {"id 128", Message(CALL, Id(128), "p"), hex("94 30 CC 80 80 A1 70")},
        {"id 255", Message(CALL, Id(255), "p"), hex("94 30 CC FF 80 A1 70")},
        {"id 256", Message(CALL, Id(256), "p"), hex("94 30 CD 01 00 80 A1 70")},
        {"id 65535", Message(CALL, Id(65535), "p"), hex("94 30 CD FF FF 80 A1 70")},
        {"id 65536", Message(CALL, Id(65536), "p"), hex("94 30 CE 00 01 00 00 80 A1 70")},
        {"id 4294967295", Message(CALL, Id(4294967295ULL), "p"),
         hex("94 30 CE FF FF FF FF 80 A1 70")},
        {"id 4294967296", Message(CALL, Id(4294967296ULL), "p"),
         hex("94 30 CF 00 00 00 01 00 00 00 00 80 A1 70")},
        {"id 2^53", Message(CALL, Id(max_id), "p"),
         hex("94 30 CF 00 20 00 00 00 00 00 00 80 A1 70")},
        // request_type follows the signed integer rule, narrow negative bounds included.
        {"request type 200", make(ERROR, &M::request_type, 200), hex("95 08 CC C8 00 80 A0")},
        {"request type -1", make(ERROR, &M::request_type, -1), hex("95 08 FF 00 80 A0")},
        {"request type -128", make(ERROR, &M::request_type, -128), hex("95 08 D1 FF 80 00 80 A0")},
        // details: keys in ascending order whatever the order given, values copied as held.
        {"details in key order",
         make(HELLO, &M::realm, "r", &M::details,
              std::map<std::string, mp::buffer>{{"b", encoded(2)},
                                                {"a", encoded(std::string("x"))}}),
         hex("93 01 A1 72 82 A1 61 A1 78 A1 62 02")},
        {"details value copied unchanged",
         make(HELLO, &M::details, std::map<std::string, mp::buffer>{{"roles", mp::buffer(roles)}}),
         with(hex("93 01 A0 81 A5"), "roles") + roles},
    };
}

Message parse(const std::vector<uint8_t>& bytes) {
    return parse_message(mp::buffer(bytes.data(), bytes.size()));
}

// Every field a message kind may carry, but its arguments.
auto fields(const Message& m) {
    return std::tie(m.type, m.realm, m.session, m.request, m.authmethod, m.signature,
                    m.request_type, m.error, m.reason, m.topic, m.publication, m.subscription,
                    m.procedure, m.registration, m.details);
}

}  // namespace

TEST(WampId, AcceptsUpToTwoToThe53AndRefusesAbove) {
    EXPECT_EQ(Id(0).value(), 0u);
    EXPECT_EQ(Id(9007199254740992ULL).value(), 9007199254740992ULL);
    EXPECT_EQ(error_of([] { Id(9007199254740993ULL); }), "WAMP id too big");
    EXPECT_EQ(error_of([] { Id(~0ULL); }), "WAMP id too big");
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
        const mp::buffer out = serialize(row.message);
        EXPECT_EQ(bytes_of(out), row.expected);
    }
}

// A last argument given as bytes lands exactly where the same argument in `args` would; raw
// bytes given as binary get the bin header of their length.
TEST(WampSerialize, LastArgumentGivenAsBytesIsAnArgumentLikeAnyOther) {
    const mp::buffer last = encoded(std::string("x"));
    for (size_t before : {0u, 1u, 15u}) {
        SCOPED_TRACE(before);
        Message m(EVENT);
        m.subscription = Id(2);
        m.publication = Id(3);
        for (size_t i = 0; i < before; ++i) m.args.push_back(encoded(int(i)));
        const std::vector<uint8_t> out = bytes_of(serialize(m, last.data, last.size));
        m.args.push_back(last);
        EXPECT_EQ(out, bytes_of(serialize(m)));
    }
    for (size_t size : {0u, 255u, 256u, 65535u, 65536u}) {
        SCOPED_TRACE(size);
        Message m(CALL, Id(7), "p");
        const mp::buffer raw(std::vector<uint8_t>(size, 0xAB));
        const Trailing binary = Trailing::binary(raw.data, raw.size);
        mp::buffer out(serialized_size(m, binary));
        serialize_into(m, binary, out.data);
        m.args.push_back(mp::pack_bin(raw));
        EXPECT_EQ(bytes_of(out), bytes_of(serialize(m)));
    }
}

TEST(WampSerialize, StringAndContainerHeadersSwitchFormAtTheirBounds) {
    const std::pair<size_t, std::vector<uint8_t>> rows[] = {
        {31, hex("BF")},        {32, hex("D9 20")},       {255, hex("D9 FF")},
        {256, hex("DA 01 00")}, {65535, hex("DA FF FF")}, {65536, hex("DB 00 01 00 00")}};
    for (const auto& [length, header] : rows) {
        SCOPED_TRACE(length);
        const std::string uri(length, 'u');
        EXPECT_EQ(bytes_of(serialize(Message(CALL, Id(1), uri))),
                  with(hex("94 30 01 80") + header, uri));
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

TEST(WampPrint, ValuesPrintAsTheLogShowsThem) {
    // Bytes, the print limit, the text.
    const std::tuple<const char*, uint64_t, const char*> rows[] = {
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
    for (const auto& [value, limit, text] : rows) {
        SCOPED_TRACE(value);
        const std::vector<uint8_t> bytes = hex(value);
        EXPECT_EQ(print(bytes.data(), bytes.size(), limit), text);
        EXPECT_EQ(print(bytes.data(), limit), text);
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

// ---- receive ------------------------------------------------------------------------------

// Every row of the serializer's table, and every truncation of it, which must be refused.
TEST(WampReceive, EveryKindParsesBackToWhatWasSerializedAndNoTruncationParses) {
    for (const SerializeRow& row : serialize_rows()) {
        SCOPED_TRACE(row.name);
        const Message& sent = row.message;
        const mp::buffer bytes = serialize(sent);
        const Message got = parse_message(bytes);
        EXPECT_EQ(got.raw, bytes);
        EXPECT_TRUE(fields(got) == fields(sent));
        EXPECT_EQ(got.args_count, sent.args.size());
        // Received arguments stay in `raw`; the copies must be the bytes that were sent.
        EXPECT_TRUE(got.args.empty());
        EXPECT_EQ(received_args(got), sent.args);
        // Serializing what was parsed, with its arguments, gives the same bytes again.
        Message again = got;
        again.args = received_args(got);
        EXPECT_EQ(serialize(again), bytes);
        for (size_t cut = 0; cut < bytes.size; ++cut) {
            SCOPED_TRACE(cut);
            // Each cut copy lives in its own allocation so the sanitizer sees any overread.
            const std::vector<uint8_t> part(bytes.data, bytes.data + cut);
            EXPECT_THROW(parse(part), std::runtime_error);
        }
    }
}

TEST(WampReceive, ArgumentOffsetsPointIntoRaw) {
    // [50, 7, {}, [1, "ab"]]
    const Message m = parse(hex("94 32 07 80 92 01 A2 61 62"));
    EXPECT_EQ(m.args_count, 2u);
    EXPECT_EQ(m.args_offset, 5u);
    EXPECT_EQ(m.args_end, 9u);
    int number = 0;
    std::string text;
    IncomingMessage(m).fillArgsNS(number, text);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(text, "ab");
}

TEST(WampReceive, ArgumentsKwAreKeptAsEncodedValues) {
    // [36, 1, 2, {}, [], {"b": [1], "a": "x"}]
    const Message m = parse(hex("96 24 01 02 80 90 82 A1 62 91 01 A1 61 A1 78"));
    EXPECT_EQ(m.args_count, 0u);
    ASSERT_EQ(m.arguments_kw.size(), 2u);
    EXPECT_EQ(bytes_of(m.arguments_kw.at("a")), hex("A1 78"));
    EXPECT_EQ(bytes_of(m.arguments_kw.at("b")), hex("91 01"));
}

TEST(WampReceive, AcceptsIdsInAnyNonNegativeIntegerForm) {
    // Some peers write small unsigned numbers with the signed forms.
    EXPECT_EQ(parse(hex("93 21 D0 05 D3 00 00 00 00 00 00 00 09")).subscription.value(), 9u);
    EXPECT_EQ(parse(hex("93 21 CC 05 CF 00 20 00 00 00 00 00 00")).subscription.value(), max_id);
}

TEST(WampReceive, MalformedMessagesRaiseClearErrors) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"not an array", "81 A1 61 01",
         "WAMP message: bad message: inconsistent data while parsing array"},
        {"empty array", "90", "WAMP message: empty array"},
        {"code as string", "92 A1 61 01",
         "WAMP message: bad message type: expecting integer value"},
        {"unknown code", "92 07 01", "WAMP message: unknown message type"},
        {"CANCEL is not handled", "93 31 01 80", "WAMP message: unknown message type"},
        {"negative code", "92 FF 01", "WAMP message: unknown message type"},
        {"too few elements", "92 32 07", "WAMP message: wrong number of elements for RESULT"},
        {"too many elements", "94 21 01 02 03",
         "WAMP message: wrong number of elements for SUBSCRIBED"},
        {"arguments where none may be", "95 20 01 80 A1 74 90",
         "WAMP message: wrong number of elements for SUBSCRIBE"},
        {"request as string", "93 32 A1 61 80",
         "WAMP message: bad request: expecting integer value"},
        {"request as float", "93 32 CB 3F F0 00 00 00 00 00 00 80",
         "WAMP message: bad request: expecting integer value"},
        {"negative request", "93 32 FF 80", "WAMP message: bad request: negative id"},
        {"id above 2^53", "93 21 01 CF 00 20 00 00 00 00 00 01",
         "WAMP message: bad subscription: WAMP id too big"},
        {"details as array", "93 32 07 90",
         "WAMP message: bad details: inconsistent data while parsing map"},
        {"details key not a string", "93 32 07 81 01 02",
         "WAMP message: bad details: inconsistent data while parsing string"},
        {"procedure as bin", "94 30 07 80 C4 01 70",
         "WAMP message: bad procedure: inconsistent data while parsing string"},
        {"arguments as map", "94 32 07 80 80",
         "WAMP message: bad arguments: inconsistent data while parsing array"},
        {"keyword arguments as array", "95 32 07 80 90 90",
         "WAMP message: bad keyword arguments: inconsistent data while parsing map"},
        {"request type as string", "95 08 A1 61 01 80 A0",
         "WAMP message: bad request type: expecting integer value"},
        {"trailing bytes", "93 32 07 80 00", "WAMP message: trailing bytes after the message"},
    };
    for (const auto& [why, text, error] : rows) {
        SCOPED_TRACE(why);
        const std::vector<uint8_t> bytes = hex(text);
        EXPECT_EQ(error_of([&] { parse(bytes); }), error);
    }
}

TEST(WampReceive, HugeCountsAreRefusedBeforeAnythingIsAllocated) {
    const char* rows[] = {
        "DD FF FF FF FF 32",              // outer array of 4294967295 elements
        "94 32 07 80 DD FF FF FF FF",     // 4294967295 arguments in a 9-byte message
        "94 32 07 DF FF FF FF FF 90",     // details with 4294967295 entries
        "95 32 07 80 90 DF 7F FF FF FF",  // ArgumentsKw with 2147483647 entries
        "94 30 07 80 DB FF FF FF FF",     // a procedure of 4 GiB
        "94 30 07 80 DB 00 00 00 05 61",  // a procedure cut short
    };
    for (const char* row : rows) {
        SCOPED_TRACE(row);
        EXPECT_THROW(parse(hex(row)), std::runtime_error);
    }
}
