#pragma once

// One message of every kind the client sends or receives, with the exact bytes each encodes to.
// The serializer is checked against the bytes, the receive side against the messages.

#include <functional>
#include <string>
#include <vector>

#include "support/testing.hpp"

namespace wamp_test {

namespace mp = qor::serialization::msgpack;
using namespace qor::wamp;
using namespace test_support;

struct SerializeRow {
    const char* name;
    std::function<Message()> build;
    std::vector<uint8_t> expected;
};

inline Message with_args(Message m, std::vector<mp::buffer> args) {
    m.args = std::move(args);
    return m;
}

inline std::vector<SerializeRow> serialize_rows() {
    auto msg = [](uint32_t type, std::function<void(Message&)> fill) {
        return [type, fill] {
            Message m(type);
            fill(m);
            return m;
        };
    };
    return {
        {"CALL without arguments",
         [] { return Message(CALL, Id(7), "qor.server.operation.CLEAR_SCENE"); },
         with(hex("94 30 07 80 D9 20"), "qor.server.operation.CLEAR_SCENE")},
        {"CALL with arguments",
         [] {
             return with_args(Message(CALL, Id(7), "p"), {encoded(1), encoded(std::string("a"))});
         },
         hex("95 30 07 80 A1 70 92 01 A1 61")},
        {"HELLO", msg(HELLO, [](Message& m) { m.realm = "realm1"; }),
         with(hex("93 01 A6"), "realm1") + std::vector<uint8_t>{0x80}},
        {"WELCOME", msg(WELCOME, [](Message& m) { m.session = Id(300); }),
         hex("93 02 CD 01 2C 80")},
        {"ABORT", msg(ABORT, [](Message& m) { m.reason = "r"; }), hex("93 03 80 A1 72")},
        {"CHALLENGE", msg(CHALLENGE, [](Message& m) { m.authmethod = "ticket"; }),
         with(hex("93 04 A6"), "ticket") + std::vector<uint8_t>{0x80}},
        {"AUTHENTICATE", msg(AUTHENTICATE, [](Message& m) { m.signature = "s"; }),
         hex("93 05 A1 73 80")},
        {"GOODBYE", msg(GOODBYE, [](Message& m) { m.reason = "wamp.close.normal"; }),
         with(hex("93 06 80 B1"), "wamp.close.normal")},
        {"ERROR left as built keeps request type 3", [] { return Message(ERROR); },
         hex("95 08 03 00 80 A0")},
        {"ERROR of a CALL with arguments",
         msg(ERROR,
             [](Message& m) {
                 m.request_type = 48;
                 m.request = Id(5);
                 m.error = "e";
                 m.args = {encoded(1)};
             }),
         hex("96 08 30 05 80 A1 65 91 01")},
        {"PUBLISH without arguments", [] { return Message(PUBLISH, Id(1), "t"); },
         hex("94 10 01 80 A1 74")},
        {"PUBLISH with one argument",
         [] { return with_args(Message(PUBLISH, Id(1), "t"), {encoded(42)}); },
         hex("95 10 01 80 A1 74 91 2A")},
        {"PUBLISHED",
         msg(PUBLISHED,
             [](Message& m) {
                 m.request = Id(1);
                 m.publication = Id(2);
             }),
         hex("93 11 01 02")},
        {"SUBSCRIBE", [] { return Message(SUBSCRIBE, Id(1), "t"); }, hex("94 20 01 80 A1 74")},
        {"SUBSCRIBED",
         msg(SUBSCRIBED,
             [](Message& m) {
                 m.request = Id(1);
                 m.subscription = Id(65536);
             }),
         hex("93 21 01 CE 00 01 00 00")},
        {"UNSUBSCRIBE",
         msg(UNSUBSCRIBE,
             [](Message& m) {
                 m.request = Id(1);
                 m.subscription = Id(2);
             }),
         hex("93 22 01 02")},
        {"UNSUBSCRIBED", msg(UNSUBSCRIBED, [](Message& m) { m.request = Id(1); }), hex("92 23 01")},
        {"EVENT",
         msg(EVENT,
             [](Message& m) {
                 m.subscription = Id(2);
                 m.publication = Id(3);
                 m.args = {encoded(std::string("x"))};
             }),
         hex("95 24 02 03 80 91 A1 78")},
        {"RESULT without arguments", msg(RESULT, [](Message& m) { m.request = Id(7); }),
         hex("93 32 07 80")},
        {"RESULT with arguments",
         msg(RESULT,
             [](Message& m) {
                 m.request = Id(7);
                 m.args = {encoded(true)};
             }),
         hex("94 32 07 80 91 C3")},
        {"REGISTER", [] { return Message(REGISTER, Id(1), "p"); }, hex("94 40 01 80 A1 70")},
        {"REGISTERED",
         msg(REGISTERED,
             [](Message& m) {
                 m.request = Id(1);
                 m.registration = Id(2);
             }),
         hex("93 41 01 02")},
        {"UNREGISTER",
         msg(UNREGISTER,
             [](Message& m) {
                 m.request = Id(1);
                 m.registration = Id(2);
             }),
         hex("93 42 01 02")},
        {"UNREGISTERED", msg(UNREGISTERED, [](Message& m) { m.request = Id(1); }), hex("92 43 01")},
        {"INVOCATION",
         msg(INVOCATION,
             [](Message& m) {
                 m.request = Id(1);
                 m.registration = Id(2);
                 m.args = {encoded(false)};
             }),
         hex("95 44 01 02 80 91 C2")},
        {"YIELD", msg(YIELD, [](Message& m) { m.request = Id(1); }), hex("93 46 01 80")},
        // Id forms: smallest unsigned form, up to uint 64 for 2^53.
        {"id 127", [] { return Message(CALL, Id(127), "p"); }, hex("94 30 7F 80 A1 70")},
        {"id 128", [] { return Message(CALL, Id(128), "p"); }, hex("94 30 CC 80 80 A1 70")},
        {"id 255", [] { return Message(CALL, Id(255), "p"); }, hex("94 30 CC FF 80 A1 70")},
        {"id 256", [] { return Message(CALL, Id(256), "p"); }, hex("94 30 CD 01 00 80 A1 70")},
        {"id 65535", [] { return Message(CALL, Id(65535), "p"); }, hex("94 30 CD FF FF 80 A1 70")},
        {"id 65536", [] { return Message(CALL, Id(65536), "p"); },
         hex("94 30 CE 00 01 00 00 80 A1 70")},
        {"id 4294967295", [] { return Message(CALL, Id(4294967295ULL), "p"); },
         hex("94 30 CE FF FF FF FF 80 A1 70")},
        {"id 4294967296", [] { return Message(CALL, Id(4294967296ULL), "p"); },
         hex("94 30 CF 00 00 00 01 00 00 00 00 80 A1 70")},
        {"id 2^53", [] { return Message(CALL, Id(max_id), "p"); },
         hex("94 30 CF 00 20 00 00 00 00 00 00 80 A1 70")},
        // request_type follows the signed integer rule, narrow negative bounds included.
        {"request type 200", msg(ERROR, [](Message& m) { m.request_type = 200; }),
         hex("95 08 CC C8 00 80 A0")},
        {"request type -1", msg(ERROR, [](Message& m) { m.request_type = -1; }),
         hex("95 08 FF 00 80 A0")},
        {"request type -128", msg(ERROR, [](Message& m) { m.request_type = -128; }),
         hex("95 08 D1 FF 80 00 80 A0")},
        // details: keys in ascending order whatever the insertion order, values copied as held.
        {"details in key order",
         msg(HELLO,
             [](Message& m) {
                 m.realm = "r";
                 m.details["b"] = encoded(2);
                 m.details["a"] = encoded(std::string("x"));
             }),
         hex("93 01 A1 72 82 A1 61 A1 78 A1 62 02")},
        {"details value copied unchanged",
         msg(HELLO,
             [](Message& m) {
                 m.details["roles"] = mp::buffer(hex("81 A6 63 61 6C 6C 65 72 80").data(), 9);
             }),
         with(hex("93 01 A0 81 A5"), "roles") + hex("81 A6 63 61 6C 6C 65 72 80")},
    };
}

}  // namespace wamp_test
