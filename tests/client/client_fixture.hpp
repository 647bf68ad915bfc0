#pragma once

// A DaxClient beside the test plug-in (Body and Counter), on a loopback peer: what the client
// sends is recorded by the loopback, and the test answers, confirms and publishes through it.

#include <memory>

#include <gtest/gtest.h>

#include <dax/client.hpp>

#include "support/testing.hpp"

namespace client_test {

using namespace test_support;

class ClientTest : public ::testing::Test {
  protected:
    LoopbackPeer net;
    std::unique_ptr<dax::client::DaxClient> client;

    void SetUp() override { client = std::make_unique<dax::client::DaxClient>(&net.peer); }
    void TearDown() override { client.reset(); }
};

}  // namespace client_test
