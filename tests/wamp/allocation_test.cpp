// Counts heap allocations to pin the encoding's cost: one block of the exact size per
// message, and no trace text unless the trace level is on.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "support/testing.hpp"

// The replacement pair below allocates with malloc and releases with free; GCC cannot see
// that the two are paired once they are inlined into standard containers.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {

bool counting = false;
size_t allocations = 0;
size_t last_size = 0;
size_t largest = 0;
size_t large_blocks = 0;  // allocations of a megabyte or more
constexpr size_t kLarge = 1 << 20;

struct Counting {
    Counting() {
        allocations = 0;
        last_size = 0;
        largest = 0;
        large_blocks = 0;
        counting = true;
    }
    ~Counting() { counting = false; }
};

// The allocations `f` makes; the other counts stay readable after it.
template <class F>
size_t allocations_of(F&& f) {
    Counting scope;
    f();
    return allocations;
}

}  // namespace

void* operator new(std::size_t size) {
    if (counting) {
        ++allocations;
        last_size = size;
        if (size > largest) largest = size;
        if (size >= kLarge) ++large_blocks;
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
// The array forms are replaced too: a sanitizer runtime provides its own, which would not
// come through the counting form above.
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

using namespace qor::wamp;
using namespace test_support;
namespace mp = qor::serialization::msgpack;

// Serializing takes one block of exactly the message's size; a send below the trace level
// takes nothing more.
TEST(WampAllocation, SerializeAndSendAllocateOneBlockOfExactlyTheMessageSize) {
    Message call(CALL, Id(123456789), "qor.server.operation.SEND_SCENE");
    call.args = {encoded(std::string(300, 's')), encoded(42), encoded(2.5)};
    call.details["timeout"] = encoded(1000);
    CapturedLog log(spdlog::level::debug);
    Client client("server", log.logger.get());
    uint64_t written = 0;
    client.session.write = [&written](const uint8_t*, uint64_t size) { written = size; };
    uint64_t encoded_size = 0;
    EXPECT_EQ(allocations_of([&] { encoded_size = serialize(call).size; }), 1u);
    EXPECT_EQ(last_size, encoded_size);
    EXPECT_EQ(allocations_of([&] { client.session.send(call); }), 1u);
    EXPECT_EQ(written, encoded_size);
    // Framed in place, the message needs no block of its own.
    std::vector<uint8_t> frame(encoded_size);
    client.session.write_in_place = [&](uint64_t size, const std::function<void(uint8_t*)>& fill) {
        written = size;
        fill(frame.data());
        return true;
    };
    EXPECT_EQ(allocations_of([&] { client.session.send(call); }), 0u);
    EXPECT_TRUE(mp::buffer(frame) == serialize(call));
}

// A large argument is copied once, into its encoded block, on its way from the caller's value
// to the connection's frame: the pending call keeps only its handler, the CALL takes the
// block, and the message is written where the connection frames it. Without a connection
// that frames in place, the one serialized block is handed to `write`.
TEST(WampAllocation, LargeArgumentIsCopiedOnceOnItsWayToTheFrame) {
    const mp::buffer scene(std::vector<uint8_t>(kLarge, 7));
    Message expected(CALL, Id(1), "qor.server.operation.SEND_SCENE");
    expected.args.push_back(encoded(scene));
    for (const bool in_place : {true, false}) {
        SCOPED_TRACE(in_place ? "in place" : "through write");
        Client client("server", nullptr);
        std::vector<uint8_t> frame;
        frame.reserve(2 * kLarge);
        client.session.write = [&frame](const uint8_t* data, uint64_t size) {
            frame.assign(data, data + size);
        };
        if (in_place) {
            client.session.write_in_place = [&frame](uint64_t size,
                                                     const std::function<void(uint8_t*)>& fill) {
                frame.resize(size);
                fill(frame.data());
                return true;
            };
        }
        allocations_of([&] {
            RPC<int> rpc(expected.procedure, scene);
            rpc.onResult = [](const RpcResult<int>&) {};
            client.caller.call(std::move(rpc));
        });
        EXPECT_EQ(large_blocks, in_place ? 1u : 2u);
        // Only the random request id differs from the expected bytes.
        expected.request = Id(client.caller.last_request);
        const mp::buffer bytes = serialize(expected);
        EXPECT_TRUE(mp::buffer(frame) == bytes);
    }
}

// A RESULT whose one argument is an array of one nil per byte left: the count passes every
// bytes-left check, yet the first element already fails to read as T.
template <class T>
size_t largest_block_reading_hostile_array(size_t message_size, std::string& error) {
    const size_t count = message_size - 10;
    std::vector<uint8_t> bytes =
        hex("94 32 01 80 91 dd") + std::vector<uint8_t>{0, 0, uint8_t(count >> 8), uint8_t(count)};
    bytes.resize(message_size, 0xC0);
    const Message result = parse_message(mp::buffer(bytes));
    T value;
    allocations_of([&] { error = error_of([&] { IncomingMessage(result).fillArgsNS(value); }); });
    return largest;
}

TEST(WampAllocation, HostileCountsReserveInProportionToTheBytesReceived) {
    const size_t size = 4000;
    const std::pair<const char*, size_t (*)(size_t, std::string&)> rows[] = {
        {"strings", &largest_block_reading_hostile_array<std::vector<std::string>>},
        {"arrays", &largest_block_reading_hostile_array<std::vector<std::vector<double>>>},
        {"binaries", &largest_block_reading_hostile_array<std::vector<mp::buffer>>},
        {"maps", &largest_block_reading_hostile_array<std::vector<std::map<int, int>>>},
    };
    for (const auto& [type, read] : rows) {
        SCOPED_TRACE(type);
        std::string error;
        const size_t block = read(size, error);
        // Reading fails at the first element; on the way no single block took more than a
        // fixed multiple of the message's bytes.
        EXPECT_FALSE(error.empty());
        EXPECT_LE(block, mp::kReservePerByte * size);
    }
}
