#pragma once

// Helpers shared by the WAMP tests: hex byte vectors, a peer wired to a loopback server
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

namespace wamp_test {

namespace mp = qor::serialization::msgpack;

/// "94 30 07" -> {0x94, 0x30, 0x07}; blanks are ignored.
inline std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text) {
        if (c != ' ') digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

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

/// The what() text of the std::runtime_error that `f` throws, or "<no error>".
template <class F>
std::string error_of(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no error>";
}

}  // namespace wamp_test
