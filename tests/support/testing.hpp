#pragma once

// What every test area shares: hex byte vectors in and out, the text of a thrown error, the
// rule for tests that need a tool from outside the build (a Python peer, openssl), a captured
// log and a peer whose server endpoint is an in-memory loopback.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ostream_sink.h>

#include <qor/qor_client.hpp>
#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/wamp.hpp>
#include <qor/wamp/testing/loopback.hpp>

namespace test_support {

/// "cc 80", "cc80" or "CC 80" -> {0xCC, 0x80}. Blanks are ignored so that rows can group bytes
/// by field; anything else that is not a hex digit is a mistake in the test and throws.
inline std::vector<uint8_t> hex(std::string_view text) {
    std::vector<uint8_t> out;
    out.reserve(text.size() / 2);
    int high = -1;
    for (const char c : text) {
        int v;
        if (c == ' ' || c == '\n' || c == '\t') continue;
        if (c >= '0' && c <= '9') v = c - '0';
        else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
        else throw std::invalid_argument("bad hex digit in test vector: " + std::string(text));
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("odd number of hex digits in test vector");
    return out;
}

/// {0xCC, 0x80} -> "cc 80": lower case, one blank between bytes, as the tables are written.
inline std::string to_hex(const uint8_t* data, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 3);
    for (std::size_t i = 0; i < size; ++i) {
        if (i != 0) out += ' ';
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}
inline std::string to_hex(const std::vector<uint8_t>& bytes) {
    return to_hex(bytes.data(), bytes.size());
}
inline std::string to_hex(const qor::serialization::msgpack::buffer& bytes) {
    return to_hex(bytes.data, static_cast<std::size_t>(bytes.size));
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

inline std::vector<uint8_t> bytes_of(const qor::serialization::msgpack::buffer& b) {
    return std::vector<uint8_t>(b.data, b.data + b.size);
}

/// One value encoded as a WAMP argument.
template <class T>
qor::serialization::msgpack::buffer encoded(const T& value) {
    std::vector<uint8_t> scratch;
    return qor::wamp::encode_argument(scratch, value);
}

/// The encoded positional arguments of a received or parsed message, as hex.
inline std::string args_hex(const qor::wamp::Message& message) {
    if (message.args_count == 0) return "";
    return to_hex(message.raw.data + message.args_offset, message.args_end - message.args_offset);
}

/// The what() text of the std::runtime_error that `f` throws, or "" when it throws none.
/// Other exceptions pass through, so a wrong exception type fails the test loudly.
template <class F>
std::string error_of(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

/// A fresh, empty folder under the system's temporary folder, removed with everything in it.
class TempFolder {
  public:
    TempFolder() {
        static std::atomic<unsigned> counter{0};
        std::random_device entropy;
        do {
            path_ = std::filesystem::temp_directory_path() /
                    ("qor-test-" + std::to_string(entropy()) + "-" + std::to_string(counter++));
        } while (!std::filesystem::create_directory(path_));
        path_ = std::filesystem::canonical(path_);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::filesystem::path& path() const { return path_; }
    std::string str() const { return path_.string(); }

  private:
    std::filesystem::path path_;
};

/// A logger writing "%l %v" lines into a string.
struct CapturedLog {
    std::ostringstream lines;
    std::shared_ptr<spdlog::logger> logger;

    explicit CapturedLog(spdlog::level::level_enum level) {
        auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(lines);
        // Lines end in "\n" on every platform (spdlog ends them in "\r\n" on Windows).
        sink->set_formatter(std::make_unique<spdlog::pattern_formatter>(
            "%l %v", spdlog::pattern_time_type::local, std::string("\n")));
        logger = std::make_shared<spdlog::logger>("test", sink);
        logger->set_level(level);
    }
    std::string text() const { return lines.str(); }
};

/// A connected peer whose server endpoint talks to a loopback: what the peer sends is recorded
/// by `link`, and the test answers, confirms and publishes through it.
struct LoopbackPeer {
    qor::wamp::Client endpoint;
    qor::wamp::testing::LoopbackConnection link{endpoint};
    qor::QorClient peer;

    explicit LoopbackPeer(spdlog::logger* logger = nullptr)
        : endpoint("server", logger), peer(logger) {
        peer.server_endpoint = &endpoint;
        peer.has_server = true;
        peer.server_connected = true;
    }
    /// One full pump: both passes.
    bool pump() {
        const bool first = peer.update_first();
        const bool second = peer.update_second();
        return first || second;
    }
    /// In the first pass numbered `pass` (from 1), run `action` before delivery.
    void on_pass(uint64_t pass, std::function<void()> action) {
        link.before_first = [this, pass, action] {
            if (link.first_passes == pass) action();
        };
    }
};

/// True when the tests run under CI (env `CI` set and not empty), where every tool a test
/// needs is installed by scripts/install-deps and a missing one is a failure, not a skip.
inline bool in_ci() {
    const char* ci = std::getenv("CI");
    return ci != nullptr && *ci != '\0';
}

}  // namespace test_support

/// Skips the current test when `available` is false, or fails it under CI. `what` names the
/// missing tool; use it first thing in a TEST body or a fixture's SetUp.
#define QOR_REQUIRE_TOOL(available, what)                                                  \
    if (available) {                                                                       \
    } else if (::test_support::in_ci()) {                                                  \
        GTEST_FAIL() << what << " is missing; under CI scripts/install-deps must supply it"; \
    } else                                                                                 \
        GTEST_SKIP() << what << " is missing"
