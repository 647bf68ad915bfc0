#include "client_fixture.hpp"

#include <cctype>
#include <stdexcept>

namespace client_test {

std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> bytes;
    std::string digits;
    for (char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c))) digits.push_back(c);
    }
    if (digits.size() % 2 != 0) throw std::invalid_argument("odd number of hex digits");
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string to_hex(const uint8_t* data, uint64_t size) {
    static const char* digits = "0123456789abcdef";
    std::string text;
    for (uint64_t i = 0; i < size; ++i) {
        text.push_back(digits[data[i] >> 4]);
        text.push_back(digits[data[i] & 0xf]);
    }
    return text;
}

std::string to_hex(const std::vector<uint8_t>& bytes) {
    return to_hex(bytes.data(), bytes.size());
}

std::string to_hex(const qor::serialization::msgpack::buffer& bytes) {
    return to_hex(bytes.data, bytes.size);
}

std::string args_hex(const qor::wamp::Message& message) {
    if (message.args_count == 0) return "";
    return to_hex(message.raw.data + message.args_offset, message.args_end - message.args_offset);
}

}  // namespace client_test
