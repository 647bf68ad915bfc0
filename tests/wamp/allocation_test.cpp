// Counts heap allocations to pin the encoding's cost: one block of the exact size per
// message, and no trace text unless the trace level is on.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "wamp_test_util.hpp"

// The replacement pair below allocates with malloc and releases with free; GCC cannot see
// that the two are paired once they are inlined into standard containers.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {

bool counting = false;
size_t allocations = 0;
size_t last_size = 0;

struct Counting {
    Counting() {
        allocations = 0;
        last_size = 0;
        counting = true;
    }
    ~Counting() { counting = false; }
};

}  // namespace

void* operator new(std::size_t size) {
    if (counting) {
        ++allocations;
        last_size = size;
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
using namespace wamp_test;

TEST(WampAllocation, SerializeAllocatesOneBlockOfExactlyTheMessageSize) {
    Message call(CALL, Id(123456789), "qor.server.operation.SEND_SCENE");
    call.args = {encoded(std::string(300, 's')), encoded(42), encoded(2.5)};
    call.details["timeout"] = encoded(1000);
    size_t count = 0, size = 0;
    uint64_t encoded_size = 0;
    {
        Counting scope;
        const mp::buffer bytes = serialize(call);
        count = allocations;
        size = last_size;
        encoded_size = bytes.size;
    }
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(size, encoded_size);
}

TEST(WampAllocation, SendWithoutTraceDoesNotPrint) {
    CapturedLog log(spdlog::level::debug);
    Client client("server", log.logger.get());
    uint64_t written = 0;
    client.session.write = [&written](const uint8_t*, uint64_t size) { written = size; };
    const Message call(CALL, Id(7), "qor.server.operation.CLEAR_SCENE");
    size_t count = 0;
    {
        Counting scope;
        client.session.send(call);
        count = allocations;
    }
    EXPECT_EQ(written, 38u);
    EXPECT_EQ(count, 1u);
}
