#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace codec_test {

// "cc 80" or "cc80" -> {0xCC, 0x80}; spaces are ignored so rows can group bytes by field.
inline std::vector<uint8_t> hex(std::string_view text) {
    std::vector<uint8_t> out;
    int high = -1;
    for (char c : text) {
        if (c == ' ') continue;
        int v;
        if (c >= '0' && c <= '9') {
            v = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            v = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            v = c - 'A' + 10;
        } else {
            throw std::invalid_argument("bad hex digit in test vector");
        }
        if (high < 0) {
            high = v;
        } else {
            out.push_back(uint8_t(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument("odd number of hex digits in test vector");
    return out;
}

// {0xCC, 0x80} -> "cc 80", for readable failure messages.
inline std::string to_hex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out += ' ';
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

// The what() text of the std::runtime_error that `f` throws, or "" when it throws nothing.
template <class F>
std::string error_of(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

}  // namespace codec_test
