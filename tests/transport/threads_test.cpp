// The client library starts no thread of its own: opening a session by host name (a lookup),
// calling and closing, over both framings, leave the process with the threads it had.

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
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
        std::optional<std::string> answer;
        std::function<void(qor::wamp::RpcResult<std::string>)> done =
            [&](qor::wamp::RpcResult<std::string> r) { answer = r.value; };
        peer.call<std::string>(done, "echo", std::string("x"));
        ASSERT_TRUE(pump_until(peer, [&] { return answer.has_value(); }));
        EXPECT_EQ(*answer, "x");
        EXPECT_EQ(thread_count(), before);
        endpoint.close();
    }
    EXPECT_EQ(thread_count(), before);
}
