#include <qor/wamp/details.hpp>

#include <qor/serialization/msgpack/read.hpp>

namespace qor::wamp {

namespace msgpack = serialization::msgpack;

namespace {

template <class T>
T detail_as(const Message& message, const std::string& key, T fallback) {
    auto it = message.details.find(key);
    if (it == message.details.end()) return fallback;
    msgpack::ReadBuffer in(it->second);
    T value{};
    msgpack::read(in, value);
    return value;
}

}  // namespace

std::string detail_text(const Message& message, const std::string& key) {
    return detail_as<std::string>(message, key, {});
}

std::vector<std::string> detail_list(const Message& message, const std::string& key) {
    return detail_as<std::vector<std::string>>(message, key, {});
}

long long detail_integer(const Message& message, const std::string& key, long long fallback) {
    return detail_as<long long>(message, key, fallback);
}

void set_roles(Message& message, std::initializer_list<const char*> roles) {
    std::vector<uint8_t> encoded;
    msgpack::pack_map_header(encoded, static_cast<uint32_t>(roles.size()));
    for (const char* role : roles) {
        msgpack::pack(encoded, role);
        msgpack::pack_map_header(encoded, 0);
    }
    message.details["roles"] = msgpack::buffer(encoded);
}

}  // namespace qor::wamp
