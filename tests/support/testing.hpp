#pragma once

// What every test area shares: hex byte vectors in and out, the text of a thrown error, and
// the rule for tests that need a tool from outside the build (a Python peer, openssl).

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <qor/serialization/msgpack/buffer.hpp>

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
