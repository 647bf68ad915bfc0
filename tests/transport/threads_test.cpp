// The client library starts no thread of its own: opening a session by host name (a lookup),
// calling and closing, over both framings, leave the process with the threads it had.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "harness.hpp"

namespace {

using namespace transport_test;

size_t thread_count() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/task"))
        ++n;
    return n;
}

}  // namespace

TEST(ClientThreads, OpeningCallingAndClosingStartNone) {
    Router router;  // its I/O thread is running before the count is taken
    const size_t before = thread_count();
    for (const std::string& url :
         {"rs://localhost:" + std::to_string(router.server.rawsocket_port()),
          "ws://localhost:" + std::to_string(router.server.websocket_port()) + "/ws"}) {
        SCOPED_TRACE(url);
        qor::QorClient peer;
        auto& endpoint = qor::transport::connect(peer, url);
        EXPECT_EQ("x", outcome(call_and_wait<std::string>(peer, "echo", std::string("x"))));
        EXPECT_EQ(thread_count(), before);
        endpoint.close();
    }
    EXPECT_EQ(thread_count(), before);
}
