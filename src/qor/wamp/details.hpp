#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include <qor/serialization/msgpack/pack.hpp>
#include <qor/wamp/message.hpp>

// Reading and writing the `details` map of WAMP messages. Every value is held as its encoded
// bytes; these helpers decode one on demand and encode one in place.
namespace qor::wamp {

/// The string detail `key`; empty when absent. Throws the decoder's error for another type.
std::string detail_text(const Message& message, const std::string& key);
/// The list-of-strings detail `key`; empty when absent. Throws the decoder's error for another
/// type.
std::vector<std::string> detail_list(const Message& message, const std::string& key);
/// The integer detail `key`; `fallback` when absent. Throws the decoder's error for another
/// type.
long long detail_integer(const Message& message, const std::string& key, long long fallback);

/// Sets detail `key` to `value`, encoded as the codec's `pack` writes it.
template <class T>
void set_detail(Message& message, const std::string& key, const T& value) {
    std::vector<uint8_t> encoded;
    serialization::msgpack::pack(encoded, value);
    message.details[key] = serialization::msgpack::buffer(encoded);
}

/// Sets the "roles" detail: a map from each role name to an empty map of features.
void set_roles(Message& message, std::initializer_list<const char*> roles);

}  // namespace qor::wamp
