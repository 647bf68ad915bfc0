// WebSocket framing byte by byte (the examples of RFC 6455 section 5.7 among the rows), and
// the router's rule for a peer that stops in the middle of a frame.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <qor/router/server.hpp>
#include <qor/transport/websocket.hpp>

#include "harness.hpp"
#include "support/testing.hpp"

namespace ws = qor::transport::websocket;

namespace {

using test_support::hex;
using test_support::operator+;
using test_support::to_hex;

const std::vector<uint8_t> HELLO = {'H', 'e', 'l', 'l', 'o'};
const uint8_t KEY[4] = {0x37, 0xfa, 0x21, 0x3d};

std::string frame_hex(ws::Opcode opcode, const std::vector<uint8_t>& payload, const uint8_t* key) {
    std::vector<uint8_t> out;
    ws::append_frame(out, opcode, payload.data(), payload.size(), key);
    return to_hex(out);
}

// Each message the reader hands out as "opcode:payload-hex", or "error code: text".
std::vector<std::string> read_all(const std::vector<uint8_t>& stream, bool from_client,
                                  uint64_t max, size_t piece) {
    ws::Reader reader(from_client, max);
    std::vector<std::string> out;
    try {
        for (size_t at = 0; at < stream.size(); at += piece) {
            reader.feed(stream.data() + at, std::min(piece, stream.size() - at));
            ws::Message m;
            while (reader.next(m))
                out.push_back(std::to_string(int(m.opcode)) + ":" + to_hex(m.data, m.size));
        }
        if (reader.pending() != 0) out.push_back("pending " + std::to_string(reader.pending()));
    } catch (const ws::Error& e) {
        out.push_back(std::to_string(e.code()) + " " + e.what());
    }
    return out;
}

}  // namespace

TEST(WebSocketFrames, Writer) {
    // Section 5.7: "Hello" unmasked and masked, a ping, a masked pong.
    EXPECT_EQ(to_hex(hex("81 05 48 65 6c 6c 6f")), frame_hex(ws::Opcode::text, HELLO, nullptr));
    EXPECT_EQ(to_hex(hex("81 85 37 fa 21 3d 7f 9f 4d 51 58")),
              frame_hex(ws::Opcode::text, HELLO, KEY));
    EXPECT_EQ(to_hex(hex("89 05 48 65 6c 6c 6f")), frame_hex(ws::Opcode::ping, HELLO, nullptr));
    EXPECT_EQ(to_hex(hex("8a 85 37 fa 21 3d 7f 9f 4d 51 58")),
              frame_hex(ws::Opcode::pong, HELLO, KEY));
    // The length forms at their edges: 125 in the first byte, 126 and 65535 in 16 bits, 65536
    // in 64.
    for (const auto& [size, header] :
         std::vector<std::pair<size_t, std::string>>{{125, "82 7d"},
                                                     {126, "82 7e 00 7e"},
                                                     {65535, "82 7e ff ff"},
                                                     {65536, "82 7f 00 00 00 00 00 01 00 00"}}) {
        const std::string out =
            frame_hex(ws::Opcode::binary, std::vector<uint8_t>(size, 0xAB), nullptr);
        EXPECT_EQ(to_hex(hex(header)), out.substr(0, to_hex(hex(header)).size())) << size;
    }
    std::vector<uint8_t> out;
    ws::append_close(out, 1009, nullptr);
    EXPECT_EQ(to_hex(hex("88 02 03 f1")), to_hex(out));
}

TEST(WebSocketFrames, MaskMatchesTheBytewiseRuleAtEveryLengthAndOffset) {
    std::vector<uint8_t> source(80);
    for (size_t i = 0; i < source.size(); ++i) source[i] = uint8_t(i * 7 + 3);
    for (size_t offset = 0; offset < 8; ++offset)
        for (size_t size = 0; size + offset <= source.size(); ++size) {
            std::vector<uint8_t> got(size);
            ws::mask(got.data(), source.data() + offset, size, KEY);
            for (size_t i = 0; i < size; ++i)
                ASSERT_EQ(uint8_t(source[offset + i] ^ KEY[i % 4]), got[i]) << offset << " " << i;
        }
}

TEST(WebSocketFrames, ReaderWholeAndInEveryPieceSize) {
    const std::string hello = "48 65 6c 6c 6f";
    // Bytes, whether a client sent them, the largest message, and what the reader hands out.
    const std::vector<std::tuple<const char*, bool, uint64_t, std::vector<std::string>>> rows = {
        // Section 5.7's examples.
        {"81 05 48 65 6c 6c 6f", false, 64, {"1:" + hello}},
        {"81 85 37 fa 21 3d 7f 9f 4d 51 58", true, 64, {"1:" + hello}},
        {"01 03 48 65 6c 80 02 6c 6f", false, 64, {"1:" + hello}},
        {"89 05 48 65 6c 6c 6f", false, 64, {"9:" + hello}},
        {"8a 85 37 fa 21 3d 7f 9f 4d 51 58", true, 64, {"10:" + hello}},
        // A ping between two fragments comes first; the message is whole after its last one.
        {"02 01 aa 89 00 80 01 bb 82 00", false, 64, {"9:", "2:aa bb", "2:"}},
        {"88 02 03 e8 88 00", false, 64, {"8:03 e8", "8:"}},
        // Exactly at the limit, then one byte over it, refused by the header alone.
        {"82 03 01 02 03", false, 3, {"2:01 02 03"}},
        {"82 04", false, 3, {"1009 websocket: message too large"}},
        {"82 7f 00 00 00 00 00 01 00 00", false, 65535, {"1009 websocket: message too large"}},
        {"02 02 01 02 80 02", false, 3, {"1009 websocket: message too large"}},
        // Incomplete: nothing handed out, every byte held.
        {"82 05 01 02", false, 64, {"pending 4"}},
        {"02 01 01", false, 64, {"pending 1"}},
        // Faults of the peer, each answered with 1002.
        {"c2 00", false, 64, {"1002 websocket: reserved bits set"}},
        {"83 00", false, 64, {"1002 websocket: unknown opcode"}},
        {"82 00", true, 64, {"1002 websocket: unmasked client frame"}},
        {"82 80 00 00 00 00", false, 64, {"1002 websocket: masked server frame"}},
        {"82 7e 00 7d", false, 1000, {"1002 websocket: length not minimally encoded"}},
        {"82 7f 00 00 00 00 00 00 ff ff",
         false,
         1u << 20,
         {"1002 websocket: length not minimally encoded"}},
        {"82 7f 80 00 00 00 00 00 00 00", false, 64, {"1002 websocket: length above 2^63"}},
        {"09 00", false, 64, {"1002 websocket: fragmented control frame"}},
        {"89 7e 00 7e", false, 1000, {"1002 websocket: control frame too long"}},
        {"88 01 03", false, 64, {"1002 websocket: close frame of one byte"}},
        {"88 02 03 ed", false, 64, {"1002 websocket: invalid close code"}},
        {"80 00", false, 64, {"1002 websocket: continuation without a message"}},
        {"01 00 82 00", false, 64, {"1002 websocket: new message inside a fragmented one"}},
    };
    for (const auto& [bytes, from_client, max, expected] : rows) {
        const std::vector<uint8_t> stream = hex(bytes);
        for (size_t piece = 1; piece <= stream.size(); ++piece)
            EXPECT_EQ(expected, read_all(stream, from_client, max, piece))
                << bytes << " in pieces of " << piece;
    }
}

namespace {

const std::string UPGRADE =
    "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Protocol: wamp.2.msgpack\r\n\r\n";

// Reads the answer to the upgrade up to its blank line; true when it is a 101.
bool upgraded(transport_test::RawConnection& connection) {
    std::string head;
    uint8_t byte = 0;
    while (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) {
        if (!connection.read(&byte, 1, std::chrono::seconds(5))) return false;
        head += char(byte);
    }
    return head.rfind("HTTP/1.1 101", 0) == 0;
}

}  // namespace

TEST(WebSocketFrames, RouterReadsFramesSentRightBehindTheUpgrade) {
    transport_test::Router router;
    transport_test::RawConnection connection(router.server.websocket_port());
    // HELLO ["realm1", {}], masked with a zero key, in the same write as the upgrade request.
    ASSERT_TRUE(connection.send(test_support::with({}, UPGRADE) +
                                hex("82 8a 00 00 00 00 93 01 a6 'realm1' 80")));
    ASSERT_TRUE(upgraded(connection));
    // WELCOME: an unmasked binary frame starting [2, ...
    uint8_t in[6];
    ASSERT_TRUE(connection.read(in, sizeof in));
    EXPECT_EQ(0x82, in[0]);
    const size_t payload = (in[1] & 0x7f) == 126 ? 4 : 2;
    EXPECT_EQ(to_hex(hex("93 02")), to_hex(in + payload, 2)) << to_hex(in, sizeof in);
}

// A frame announcing 1000 bytes, 10 of them sent, then nothing. Over WebSocket the answer is
// one close frame saying why (a protocol error, 1002); RawSocket has none. Then the stream ends.
TEST(WebSocketFrames, RouterEndsAPeerThatStopsInsideAFrameOverEitherFraming) {
    using namespace std::chrono_literals;
    qor::router::ServerOptions options;
    options.opening_timeout = 60s;       // far beyond the receive time-out: only the frame's own
    options.frame_idle_timeout = 100ms;  // limit can end this connection in time
    transport_test::Router router(options);
    for (const bool websocket : {true, false}) {
        SCOPED_TRACE(websocket ? "websocket" : "rawsocket");
        transport_test::RawConnection connection(websocket ? router.server.websocket_port()
                                                           : router.server.rawsocket_port());
        const std::vector<uint8_t> start =
            websocket ? test_support::with({}, UPGRADE) + hex("82 fe 03 e8 00 00 00 00")
                      : hex("7f f2 00 00 00 00 03 e8");
        ASSERT_TRUE(connection.send(start + std::vector<uint8_t>(10)));
        uint8_t accepted[4];
        ASSERT_TRUE(websocket ? upgraded(connection) : connection.read(accepted, 4));
        bool closed = false;
        const std::vector<uint8_t> in = connection.read_to_end(closed);
        ASSERT_TRUE(closed) << "the connection was not closed";
        EXPECT_EQ(websocket ? "88 02 03 ea" : "", to_hex(in));
        EXPECT_TRUE(transport_test::poll_until([&] { return router.server.connections() == 0; }));
    }
}
