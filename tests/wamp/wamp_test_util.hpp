#pragma once

// Helpers shared by the WAMP tests: a peer wired to a loopback server
// endpoint, and a logger whose lines land in a string.

#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp.hpp>
#include <qor/wamp/testing/loopback.hpp>

#include "support/testing.hpp"

namespace wamp_test {

namespace mp = qor::serialization::msgpack;

using test_support::error_of;
using test_support::hex;
using test_support::to_hex;

/// `a` followed by `b`.
inline std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// The bytes of `text` appended to `prefix`.
inline std::vector<uint8_t> with(std::vector<uint8_t> prefix, const std::string& text) {
    prefix.insert(prefix.end(), text.begin(), text.end());
    return prefix;
}

inline std::vector<uint8_t> bytes_of(const mp::buffer& b) {
    return std::vector<uint8_t>(b.data, b.data + b.size);
}

/// One encoded value, as a buffer.
template <class T>
mp::buffer encoded(const T& value) {
    std::vector<uint8_t> scratch;
    return qor::wamp::encode_argument(scratch, value);
}

/// A logger writing "%l %v" lines into `lines`.
struct CapturedLog {
    std::ostringstream lines;
    std::shared_ptr<spdlog::logger> logger;

    explicit CapturedLog(spdlog::level::level_enum level) {
        auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(lines);
        sink->set_pattern("%l %v");
        logger = std::make_shared<spdlog::logger>("wamp-test", sink);
        logger->set_level(level);
    }
    std::string text() const { return lines.str(); }
};

/// A connected peer whose server endpoint talks to a loopback.
struct LoopbackPeer {
    qor::QorClient peer;
    qor::wamp::Client server;
    qor::wamp::testing::LoopbackConnection link;

    explicit LoopbackPeer(spdlog::logger* logger = nullptr)
        : peer(logger), server("server", logger), link(server) {
        peer.server_endpoint = &server;
        peer.has_server = true;
        peer.server_connected = true;
    }
    /// One full pump: both passes.
    bool pump() {
        const bool first = peer.update_first();
        const bool second = peer.update_second();
        return first || second;
    }
};

}  // namespace wamp_test
