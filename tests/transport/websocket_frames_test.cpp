// WebSocket framing byte by byte (the examples of RFC 6455 section 5.7 among the rows), and
// the router's rule for a WebSocket peer that stops in the middle of a frame.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

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
    for (const auto& [size, header] : std::vector<std::pair<size_t, std::string>>{
             {125, "82 7d"},
             {126, "82 7e 00 7e"},
             {65535, "82 7e ff ff"},
             {65536, "82 7f 00 00 00 00 00 01 00 00"}}) {
        const std::string out = frame_hex(ws::Opcode::binary, std::vector<uint8_t>(size, 0xAB),
                                          nullptr);
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
    struct Row {
        const char* bytes;
        bool from_client;
        uint64_t max;
        std::vector<std::string> expected;
    };
    const std::string hello = "48 65 6c 6c 6f";
    const std::vector<Row> rows = {
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
        {"82 7f 00 00 00 00 00 00 ff ff", false, 1u << 20,
         {"1002 websocket: length not minimally encoded"}},
        {"82 7f 80 00 00 00 00 00 00 00", false, 64, {"1002 websocket: length above 2^63"}},
        {"09 00", false, 64, {"1002 websocket: fragmented control frame"}},
        {"89 7e 00 7e", false, 1000, {"1002 websocket: control frame too long"}},
        {"88 01 03", false, 64, {"1002 websocket: close frame of one byte"}},
        {"88 02 03 ed", false, 64, {"1002 websocket: invalid close code"}},
        {"80 00", false, 64, {"1002 websocket: continuation without a message"}},
        {"01 00 82 00", false, 64, {"1002 websocket: new message inside a fragmented one"}},
    };
    for (const Row& row : rows) {
        const std::vector<uint8_t> stream = hex(row.bytes);
        for (size_t piece = 1; piece <= stream.size(); ++piece)
            EXPECT_EQ(row.expected, read_all(stream, row.from_client, row.max, piece))
                << row.bytes << " in pieces of " << piece;
    }
}

namespace {

const std::string UPGRADE =
    "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Protocol: wamp.2.msgpack\r\n\r\n";

// Connects to the router's WebSocket port, writes the upgrade and `frames` in one piece, and
// returns the frame bytes that come back after the 101 answer, once the router closed (`closed`
// true) or the first `want` of them arrived, or after 5 s.
std::vector<uint8_t> exchange(uint16_t port, const std::vector<uint8_t>& frames, size_t want,
                              bool& closed) {
    namespace asio = boost::asio;
    asio::io_context io;
    asio::ip::tcp::socket s(io);
    s.connect({asio::ip::make_address("127.0.0.1"), port});
    std::vector<uint8_t> out(UPGRADE.begin(), UPGRADE.end());
    out.insert(out.end(), frames.begin(), frames.end());
    asio::write(s, asio::buffer(out));
    std::string in;
    closed = false;
    std::vector<char> chunk(4096);
    auto after_101 = [&]() -> size_t {
        const size_t end = in.find("\r\n\r\n");
        return end == std::string::npos || in.rfind("HTTP/1.1 101", 0) != 0 ? in.npos : end + 4;
    };
    std::function<void()> next = [&] {
        s.async_read_some(asio::buffer(chunk), [&](boost::system::error_code ec, size_t n) {
            in.append(chunk.data(), n);
            const size_t body = after_101();
            if (ec) closed = true;
            else if (want && body != in.npos && in.size() - body >= want) io.stop();
            else next();
        });
    };
    next();
    io.run_for(std::chrono::seconds(5));
    const size_t body = after_101();
    if (body == in.npos) return {};
    return std::vector<uint8_t>(in.begin() + long(body), in.end());
}

}  // namespace

TEST(WebSocketFrames, RouterReadsFramesSentRightBehindTheUpgrade) {
    transport_test::Router router;
    // HELLO ["realm1", {}], masked with a zero key, in the same write as the upgrade request.
    bool closed = false;
    const std::vector<uint8_t> in =
        exchange(router.server.websocket_port(),
                 hex("82 8a 00 00 00 00 93 01 a6 72 65 61 6c 6d 31 80"), 6, closed);
    // WELCOME: an unmasked binary frame starting [2, ...
    ASSERT_GE(in.size(), 6u) << to_hex(in);
    EXPECT_EQ(0x82, in[0]);
    const size_t payload = (in[1] & 0x7f) == 126 ? 4 : 2;
    EXPECT_EQ(to_hex(hex("93 02")), to_hex(in.data() + payload, 2)) << to_hex(in);
}

TEST(WebSocketFrames, RouterEndsAPeerThatStopsInsideAFrame) {
    using namespace std::chrono_literals;
    qor::router::ServerOptions options;
    options.opening_timeout = 60s;       // far beyond the receive time-out: only the frame's own
    options.frame_idle_timeout = 100ms;  // limit can end this connection in time
    transport_test::Router router(options);
    // A masked binary frame announcing 1000 bytes, 10 of them sent, then nothing: the answer
    // is one close frame saying why (a protocol error, 1002), then the end of the stream.
    bool closed = false;
    const std::vector<uint8_t> in = exchange(
        router.server.websocket_port(), hex("82 fe 03 e8 00 00 00 00") + std::vector<uint8_t>(10),
        0, closed);
    ASSERT_TRUE(closed) << "the connection was not closed";
    EXPECT_EQ(to_hex(hex("88 02 03 ea")), to_hex(in));
    EXPECT_TRUE(transport_test::poll_until([&] { return router.server.connections() == 0; }));
}
