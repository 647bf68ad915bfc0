// The broker and dealer as a peer sees them on the wire: one raw RawSocket session sends
// each message and reads the answer, byte for byte. Expected bytes were written with an
// independent MessagePack encoder.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "harness.hpp"
#include "support/testing.hpp"

namespace {

using namespace transport_test;
using test_support::hex;
using test_support::to_hex;

// A RawSocket session driven by hand; every read gives up after two seconds.
class RawSession {
  public:
    explicit RawSession(uint16_t port) : connection_(port) {}

    bool open() {
        if (!connection_.connected) return false;
        const auto hello = qor::transport::rawsocket::client_hello(
            qor::transport::rawsocket::exponent_for(1u << 24));
        std::vector<uint8_t> reply(4);
        if (!connection_.send(hello.data(), 4) || !connection_.read(reply.data(), 4, 2s) ||
            reply[1] >> 4 == 0)
            return false;
        send(hex("93 01 A6 'realm1' 80"));  // HELLO "realm1"
        const std::vector<uint8_t> welcome = receive();
        return welcome.size() > 1 && welcome[1] == 0x02;
    }

    bool send(const std::vector<uint8_t>& message) {
        std::vector<uint8_t> frame;
        qor::transport::rawsocket::append_frame(frame,
                                                qor::transport::rawsocket::FrameType::message,
                                                message.data(), uint32_t(message.size()));
        return connection_.send(frame);
    }

    /// The next message frame (pings are not sent by the router); empty when none came.
    std::vector<uint8_t> receive() {
        uint8_t header[4];
        if (!connection_.read(header, 4, 2s)) return {};
        std::vector<uint8_t> payload((header[1] << 16) | (header[2] << 8) | header[3]);
        if (!connection_.read(payload.data(), payload.size(), 2s)) return {};
        return payload;
    }

  private:
    RawConnection connection_;
};

}  // namespace

TEST(Broker, EachMessageGetsItsAnswer) {
    // What is sent, and the whole answer, or its start when `prefix_only`.
    const std::tuple<const char*, const char*, const char*, bool> rows[] = {
        {"SUBSCRIBE confirmed with the topic's id", "94 20 01 80 A1 74", "93 21 01 01", false},
        {"UNSUBSCRIBE of an unknown id refused", "93 22 02 63",
         "96 08 22 02 80 BF 'wamp.error.no_such_subscription' 91 AE 'not subscribed'", false},
        {"REGISTER refused", "94 40 04 80 A1 70",
         "96 08 40 04 80 B9 'wamp.error.not_authorized' 91 D9 24 'this server accepts no "
         "registrations'",
         false},
        {"CALL answered by the dealer", "95 30 06 80 A4 'echo' 91 01", "94 32 06 80 91 01", false},
        // The publisher is subscribed to "t" but gets no EVENT of its own publication: the
        // next frame is the acknowledgement.
        {"PUBLISH acknowledged, no copy to the publisher",
         "95 10 05 81 AB 'acknowledge' C3 A1 74 91 A1 78", "93 11 05", true},
        {"PUBLISH to a topic the server owns refused",
         "95 10 07 81 AB 'acknowledge' C3 A1 73 91 A1 78",
         "96 08 10 07 80 B9 'wamp.error.not_authorized' 91 D9 29 'topic ' 27 's' 27 ' is published "
         "by the server only'",
         false},
        {"UNSUBSCRIBE confirmed", "93 22 03 01", "92 23 03", false},
        {"GOODBYE answered", "93 06 80 B6 'wamp.close.close_realm'",
         "93 06 80 BA 'wamp.close.goodbye_and_out'", false},
    };
    Router router;
    RawSession session(router.server.rawsocket_port()), other(router.server.rawsocket_port());
    ASSERT_TRUE(session.open());
    ASSERT_TRUE(other.open());
    ASSERT_TRUE(other.send(hex("94 20 01 80 A1 74")));  // SUBSCRIBE "t" first: its id is 1
    ASSERT_EQ(to_hex(other.receive()), to_hex(hex("93 21 01 01")));
    for (const auto& [name, sent, answer, prefix_only] : rows) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(session.send(hex(sent)));
        std::vector<uint8_t> got = session.receive();
        const std::vector<uint8_t> expected = hex(answer);
        if (prefix_only && got.size() > expected.size()) got.resize(expected.size());
        EXPECT_EQ(to_hex(got), to_hex(expected));
    }
    // The other subscriber got the publication: EVENT [36, 1, publication, {}, ["x"]], the
    // publication id random.
    const std::vector<uint8_t> event = other.receive();
    ASSERT_GE(event.size(), 7u);
    EXPECT_EQ(to_hex(event.data(), 3), to_hex(hex("95 24 01")));
    EXPECT_EQ(to_hex(event.data() + event.size() - 4, 4), to_hex(hex("80 91 A1 78")));
    EXPECT_EQ(router.publish("t", "y"), 1);  // the session that unsubscribed gets none
}

// With a worker, quick calls are answered on the I/O thread, but never ahead of a call
// already waiting: answers keep the order of the calls.
TEST(Broker, QuickCallsNeverOvertakeWaitingOnes) {
    std::atomic<int> quick_answers{0};
    qor::router::BrokerOptions options;
    // "q" is quick; "slow" is declined and takes a while on the worker.
    options.quick = [&](uint64_t, const qor::wamp::Message& m,
                        std::optional<qor::router::Answer>& answer) {
        if (m.procedure != "q") return false;
        ++quick_answers;
        answer = qor::router::Answer{};
        return true;
    };
    const auto dealer = [](uint64_t, const qor::wamp::Message& m) {
        if (m.procedure == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return std::optional<qor::router::Answer>(qor::router::Answer{});
    };
    Router router({}, dealer, options);
    RawSession session(router.server.rawsocket_port());
    ASSERT_TRUE(session.open());
    // CALL [48, id, {}, procedure]; RESULT [50, id, {}].
    ASSERT_TRUE(session.send(hex("94 30 01 80 A1 71")));  // "q" alone
    EXPECT_EQ(to_hex(session.receive()), to_hex(hex("93 32 01 80")));
    EXPECT_EQ(quick_answers, 1);
    ASSERT_TRUE(session.send(hex("94 30 02 80 A4 'slow'")));  // "slow"
    ASSERT_TRUE(session.send(hex("94 30 03 80 A1 71")));      // "q" behind it
    EXPECT_EQ(to_hex(session.receive()), to_hex(hex("93 32 02 80")));
    EXPECT_EQ(to_hex(session.receive()), to_hex(hex("93 32 03 80")));
    EXPECT_EQ(quick_answers, 1) << "the call behind a waiting one went to the worker";
}
