// RawSocket framing byte by byte, addresses, and the wampcra primitives against published
// vectors.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <qor/transport/rawsocket.hpp>
#include <qor/transport/url.hpp>

#include "support/testing.hpp"

namespace rs = qor::transport::rawsocket;

namespace {

using test_support::error_of;
using test_support::hex;
using test_support::to_hex;

}  // namespace

TEST(RawSocketHandshake, BytesAndLengths) {
    // Exponent in the high nibble, serializer in the low one.
    EXPECT_EQ("7f f2 00 00", to_hex(rs::client_hello(15).data(), 4));
    EXPECT_EQ("7f 72 00 00", to_hex(rs::client_hello(7).data(), 4));
    EXPECT_EQ("7f 02 00 00", to_hex(rs::server_accept(0).data(), 4));
    EXPECT_EQ("7f 10 00 00", to_hex(rs::server_refuse(1).data(), 4));
    EXPECT_EQ(512u, rs::max_length_of(0));
    EXPECT_EQ(1u << 24, rs::max_length_of(15));
    for (const auto& [length, exponent] : std::vector<std::pair<uint32_t, int>>{
             {1, 0}, {512, 0}, {513, 1}, {65536, 7}, {16u << 20, 15}, {0xFFFFFFFFu, 15}})
        EXPECT_EQ(exponent, rs::exponent_for(length)) << length;

    const auto accepted = rs::parse_handshake(hex("7f 72 00 00").data());
    EXPECT_EQ(7, accepted.exponent);
    EXPECT_EQ(2, accepted.serializer);
    const auto refused = rs::parse_handshake(hex("7f 40 00 00").data());
    EXPECT_EQ(0, refused.serializer);
    EXPECT_EQ("maximum connection count reached", rs::refusal_text(refused.exponent));
    EXPECT_EQ("serializer unsupported", rs::refusal_text(1));
    EXPECT_EQ("maximum message length unacceptable", rs::refusal_text(2));
    EXPECT_EQ("use of reserved bits (unsupported feature)", rs::refusal_text(3));

    EXPECT_EQ("rawsocket: bad handshake magic byte",
              error_of([] { rs::parse_handshake(hex("48 54 54 50").data()); }));
    EXPECT_EQ("rawsocket: reserved handshake bytes are not zero",
              error_of([] { rs::parse_handshake(hex("7f f2 00 01").data()); }));
}

TEST(RawSocketFrames, HeadersAreTypeAndBigEndianLength) {
    std::vector<uint8_t> out;
    rs::append_header(out, rs::FrameType::message, 0x010203);
    rs::append_header(out, rs::FrameType::ping, 0);
    const uint8_t payload[] = {0xAB, 0xCD};
    rs::append_frame(out, rs::FrameType::pong, payload, 2);
    EXPECT_EQ(hex("00 01 02 03 01 00 00 00 02 00 00 02 ab cd"), out);
    EXPECT_EQ("rawsocket: frame too large",
              error_of([&] { rs::append_header(out, rs::FrameType::message, 1u << 24); }));
}

// The middle piece is written through prepare and commit, as a socket read fills the buffer.
TEST(RawSocketFrames, SplitAtEveryOffsetGivesTheSameFrames) {
    // A message, a ping with payload, an empty message, a pong.
    const auto stream = hex("00 00 00 03 93 01 02  01 00 00 01 7a  00 00 00 00  02 00 00 00");
    struct Seen {
        rs::FrameType type;
        std::vector<uint8_t> data;
        bool operator==(const Seen& o) const { return type == o.type && data == o.data; }
    };
    const std::vector<Seen> expected = {{rs::FrameType::message, hex("93 01 02")},
                                        {rs::FrameType::ping, hex("7a")},
                                        {rs::FrameType::message, {}},
                                        {rs::FrameType::pong, {}}};
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        for (size_t second = cut; second <= stream.size(); ++second) {
            rs::Splitter splitter(1024);
            std::vector<Seen> seen;
            auto drain = [&] {
                rs::Frame f;
                while (splitter.next(f)) seen.push_back({f.type, {f.data, f.data + f.size}});
            };
            splitter.feed(stream.data(), cut);
            drain();
            std::copy(stream.begin() + long(cut), stream.begin() + long(second),
                      splitter.prepare(second - cut));
            splitter.commit(second - cut);
            drain();
            splitter.feed(stream.data() + second, stream.size() - second);
            drain();
            ASSERT_EQ(expected.size(), seen.size()) << "cuts at " << cut << " and " << second;
            EXPECT_TRUE(expected == seen) << "cuts at " << cut << " and " << second;
            EXPECT_EQ(0u, splitter.pending());
        }
    }
}

// A message taken out part-way (to be gathered elsewhere) leaves the frames after it intact.
TEST(RawSocketFrames, DetachedMessageLeavesTheStreamAfterIt) {
    const auto stream = hex("00 00 00 04 a1 a2 a3 a4 00 00 00 01 c2");
    // Bytes fed before detaching, whether a message can be detached, and what it holds.
    const std::tuple<size_t, bool, const char*> rows[] = {
        {3, false, ""},  // header incomplete
        {4, true, ""},         {6, true, "a1 a2"},
        {7, true, "a1 a2 a3"}, {8, false, ""},  // complete: `next` hands it out
    };
    for (const auto& [received, partial, detached] : rows) {
        SCOPED_TRACE(received);
        rs::Splitter splitter(16);
        splitter.feed(stream.data(), received);
        ASSERT_EQ(partial, splitter.partial_message());
        if (!partial) continue;
        std::vector<uint8_t> to(splitter.announced());
        to.resize(splitter.detach(to.data()));
        EXPECT_EQ(hex(detached), to);
        EXPECT_EQ(0u, splitter.pending());
        // The caller reads the rest of the payload itself; the next frame follows.
        splitter.feed(stream.data() + 8, stream.size() - 8);
        rs::Frame f;
        ASSERT_TRUE(splitter.next(f));
        EXPECT_EQ(hex("c2"), std::vector<uint8_t>(f.data, f.data + f.size));
    }
    const auto ping = hex("01 00 00 04 a1");
    rs::Splitter splitter(16);
    splitter.feed(ping.data(), ping.size());
    EXPECT_FALSE(splitter.partial_message());  // only messages are gathered elsewhere
}

TEST(RawSocketFrames, RefusedFrames) {
    const std::tuple<const char*, uint32_t, const char*> rows[] = {
        // Type 3 and type 7 do not exist.
        {"03 00 00 00", 64, "rawsocket: invalid frame type"},
        {"07 00 00 01 00", 64, "rawsocket: invalid frame type"},
        // One byte over the limit is refused from the header alone, before the payload.
        {"00 00 00 41", 64, "rawsocket: frame too large"},
        {"00 ff ff ff", 1u << 20, "rawsocket: frame too large"},
        {"01 00 00 41", 64, "rawsocket: frame too large"},
        {"00 00 00 02 c0 c0", 2, ""},  // exactly at the limit
    };
    for (const auto& [text, limit, error] : rows) {
        rs::Splitter splitter(limit);
        const auto bytes = hex(text);
        splitter.feed(bytes.data(), bytes.size());
        rs::Frame f;
        bool whole = false;
        EXPECT_EQ(error, error_of([&] { whole = splitter.next(f); })) << text;
        EXPECT_EQ(*error == '\0', whole) << text;
    }
}

TEST(Url, AcceptedForms) {
    // The address, and its host, port, path and flags.
    const std::pair<const char*, const char*> rows[] = {
        {"rs://127.0.0.1:8080", "127.0.0.1 8080 /"},
        {"rss://example.org:443", "example.org 443 / tls"},
        {"ws://localhost:9000/ws", "localhost 9000 /ws websocket"},
        {"ws://localhost", "localhost 80 / websocket"},
        {"wss://h/a/b?x=1", "h 443 /a/b?x=1 tls websocket"},
        {"ws://[::1]:7000/", "::1 7000 / websocket"},
        {"rs://[::1]:7000", "::1 7000 /"},
    };
    for (const auto& [text, parts] : rows) {
        const auto url = qor::transport::parse_url(text);
        EXPECT_EQ(parts, url.host + " " + url.port + " " + url.path + (url.tls ? " tls" : "") +
                             (url.websocket ? " websocket" : ""))
            << text;
    }
}

TEST(Url, RefusedFormsNameTheReason) {
    const std::pair<const char*, const char*> rows[] = {
        {"localhost:80", "invalid URL 'localhost:80': missing scheme"},
        {"http://h:1",
         "invalid URL 'http://h:1': unsupported scheme 'http' (use rs, rss, ws or wss)"},
        {"rs://h", "invalid URL 'rs://h': a RawSocket address needs a port"},
        {"rs://h:1/x", "invalid URL 'rs://h:1/x': a RawSocket address has no path"},
        {"ws://:80", "invalid URL 'ws://:80': missing host"},
        {"ws://h:", "invalid URL 'ws://h:': empty port"},
        {"ws://h:0", "invalid URL 'ws://h:0': bad port '0'"},
        {"ws://h:65536", "invalid URL 'ws://h:65536': bad port '65536'"},
        {"ws://h:8x", "invalid URL 'ws://h:8x': bad port '8x'"},
        {"ws://[::1:80", "invalid URL 'ws://[::1:80': unclosed IPv6 address"},
    };
    for (const auto& [text, error] : rows)
        EXPECT_EQ(error, error_of([&url = text] { qor::transport::parse_url(url); })) << text;
}
