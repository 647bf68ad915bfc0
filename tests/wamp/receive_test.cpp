#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/pack.hpp>

#include "sample_messages.hpp"

using namespace qor::wamp;
using namespace wamp_test;

namespace {

Message parse(const std::vector<uint8_t>& bytes) {
    return parse_message(mp::buffer(bytes.data(), bytes.size()));
}

std::string parse_error(const std::vector<uint8_t>& bytes) {
    return error_of([&] { parse(bytes); });
}

// One sample of every kind, and of every form of each element.
std::vector<Message> samples() {
    std::vector<Message> out;
    for (const SerializeRow& row : serialize_rows()) out.push_back(row.build());
    return out;
}

}  // namespace

TEST(WampReceive, EveryKindParsesBackToWhatWasSerialized) {
    for (const Message& sent : samples()) {
        SCOPED_TRACE(type_name(sent.type));
        const mp::buffer bytes = serialize(sent);
        const Message got = parse_message(bytes);
        EXPECT_EQ(got.type, sent.type);
        EXPECT_EQ(got.raw, bytes);
        EXPECT_EQ(got.realm, sent.realm);
        EXPECT_EQ(got.session, sent.session);
        EXPECT_EQ(got.request, sent.request);
        EXPECT_EQ(got.authmethod, sent.authmethod);
        EXPECT_EQ(got.signature, sent.signature);
        EXPECT_EQ(got.request_type, sent.request_type);
        EXPECT_EQ(got.error, sent.error);
        EXPECT_EQ(got.reason, sent.reason);
        EXPECT_EQ(got.topic, sent.topic);
        EXPECT_EQ(got.publication, sent.publication);
        EXPECT_EQ(got.subscription, sent.subscription);
        EXPECT_EQ(got.procedure, sent.procedure);
        EXPECT_EQ(got.registration, sent.registration);
        EXPECT_EQ(got.details, sent.details);
        EXPECT_EQ(got.args_count, sent.args.size());
        // Received arguments stay in `raw`; the copies must be the bytes that were sent.
        EXPECT_TRUE(got.args.empty());
        EXPECT_EQ(received_args(got), sent.args);
        // Serializing what was parsed, with its arguments, gives the same bytes again.
        Message again = got;
        again.args = received_args(got);
        EXPECT_EQ(serialize(again), bytes);
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

    const Message bare = parse(hex("93 32 07 80"));
    EXPECT_EQ(bare.args_count, 0u);
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
    struct Row {
        const char* why;
        const char* bytes;
        const char* error;
    };
    const Row rows[] = {
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
    for (const Row& row : rows) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(parse_error(hex(row.bytes)), row.error);
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

TEST(WampReceive, EveryTruncationOfEveryKindIsRefused) {
    for (const Message& sent : samples()) {
        SCOPED_TRACE(type_name(sent.type));
        const std::vector<uint8_t> whole = bytes_of(serialize(sent));
        for (size_t cut = 0; cut < whole.size(); ++cut) {
            SCOPED_TRACE(cut);
            // Each cut copy lives in its own allocation so the sanitizer sees any overread.
            const std::vector<uint8_t> part(whole.begin(), whole.begin() + cut);
            EXPECT_THROW(parse(part), std::runtime_error);
        }
    }
}
