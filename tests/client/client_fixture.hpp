#pragma once

// A DaxClient wired to an in-memory server endpoint: what the client sends is recorded by the
// loopback, and the test answers, confirms and publishes through it.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <dax/client.hpp>
#include <qor/qor_client.hpp>
#include <qor/wamp/client.hpp>
#include <qor/wamp/testing/loopback.hpp>

#include "support/testing.hpp"

namespace client_test {

using test_support::error_of;
using test_support::hex;
using test_support::to_hex;

/// The encoded positional arguments of a received or parsed message, as hex.
std::string args_hex(const qor::wamp::Message& message);

/// A peer whose server endpoint is a loopback, connected unless told otherwise.
struct LoopbackPeer {
    qor::wamp::Client endpoint{"server", nullptr};
    qor::wamp::testing::LoopbackConnection link{endpoint};
    qor::QorClient peer;

    LoopbackPeer() {
        peer.server_endpoint = &endpoint;
        peer.has_server = true;
        peer.server_connected = true;
    }

    /// In the first pass numbered `pass` (from 1), run `action` before delivery.
    void on_pass(uint64_t pass, std::function<void()> action) {
        link.before_first = [this, pass, action] {
            if (link.first_passes == pass) action();
        };
    }
};

/// A client beside the test plug-in (Body and Counter), on a loopback peer.
class ClientTest : public ::testing::Test {
  protected:
    LoopbackPeer net;
    std::unique_ptr<dax::client::DaxClient> client;

    void SetUp() override { client = std::make_unique<dax::client::DaxClient>(&net.peer); }
    void TearDown() override { client.reset(); }
};

}  // namespace client_test
