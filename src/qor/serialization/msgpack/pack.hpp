#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>

namespace qor::serialization::msgpack {

// Every function appends the MessagePack form of one value to `out`. The form chosen for
// each type is part of the wire contract with the server: keep it byte for byte.

/// Appends `n` zero bytes and returns the index of the first of them.
uint64_t grow_tail(std::vector<uint8_t>& out, uint64_t n);

/// fixarray, array 16 or array 32; "array too large" above 4294967295.
void pack_array_header(std::vector<uint8_t>& out, uint64_t count);
/// fixmap, map 16 or map 32; "map too large" above 4294967295.
void pack_map_header(std::vector<uint8_t>& out, uint64_t count);

/// 0xC2 or 0xC3.
void pack(std::vector<uint8_t>& out, bool value);
/// Smallest form; the negative bounds are one step narrower than the format allows.
void pack(std::vector<uint8_t>& out, int value);
// Every integer type has its own overload, so that the same call picks the same rule whether
// int64_t is `long` (LP64: Linux) or `long long` (LLP64: Windows, where `long` is 32 bits).
/// Smallest form, 64-bit forms allowed.
void pack(std::vector<uint8_t>& out, long value);
/// Smallest form, 64-bit forms allowed.
void pack(std::vector<uint8_t>& out, long long value);
/// Always uint 32: five bytes whatever the value (mesh index fields).
void pack(std::vector<uint8_t>& out, uint32_t value);
/// Smallest unsigned form (WAMP ids and other unsigned counters).
void pack(std::vector<uint8_t>& out, unsigned long value);
/// Smallest unsigned form (uint64_t on Windows).
void pack(std::vector<uint8_t>& out, unsigned long long value);
/// Always float 64, nine bytes.
void pack(std::vector<uint8_t>& out, double value);
/// Single precision is only ever read, never written.
void pack(std::vector<uint8_t>& out, float value) = delete;
/// fixstr, str 8, str 16 or str 32; "string too long" above 4294967295 bytes.
void pack(std::vector<uint8_t>& out, const std::string& value);
/// Same as the std::string form (keeps literals from decaying to bool).
void pack(std::vector<uint8_t>& out, const char* value);
/// One bin value (bin 8, 16 or 32); "binary data too large" above 4294967295 bytes.
/// The same bin value in a block of exactly its encoded size, written once.
buffer pack_bin(const buffer& value);
void pack(std::vector<uint8_t>& out, const buffer& value);
/// The header alone of a bin value of `size` bytes, for a writer that appends exactly that
/// many bytes itself (a value encoded in place instead of in a `buffer` first).
void pack_bin_header(std::vector<uint8_t>& out, uint64_t size);
/// Array of single-byte booleans.
void pack(std::vector<uint8_t>& out, const std::vector<bool>& values);

// Runs of numbers, each by its own rule above and without an array header: the same bytes
// as packing them one at a time, with the target grown once for the whole run.
/// `count` values of `values`, each in its smallest form.
void pack_values(std::vector<uint8_t>& out, const int* values, uint64_t count);
/// `count` values of `values`, each in its smallest form.
void pack_values(std::vector<uint8_t>& out, const long* values, uint64_t count);
/// `count` values of `values`, each in its smallest form.
void pack_values(std::vector<uint8_t>& out, const long long* values, uint64_t count);
/// `count` values of `values`, each in its smallest unsigned form.
void pack_values(std::vector<uint8_t>& out, const unsigned long* values, uint64_t count);
/// `count` values of `values`, each in its smallest unsigned form.
void pack_values(std::vector<uint8_t>& out, const unsigned long long* values, uint64_t count);
/// `count` values of `values`, each as uint 32.
void pack_values(std::vector<uint8_t>& out, const uint32_t* values, uint64_t count);
/// `count` values of `values`, each as float 64.
void pack_values(std::vector<uint8_t>& out, const double* values, uint64_t count);

// The container templates are declared together before any is defined, so that each finds
// the others for nested types (a vector of tuples, a tuple holding a map...).
template <class T>
void pack(std::vector<uint8_t>& out, const std::vector<T>& values);
template <class V>
void pack(std::vector<uint8_t>& out, const std::map<std::string, V>& values);
template <class... Ts>
void pack(std::vector<uint8_t>& out, const std::tuple<Ts...>& values);
template <class A, class B>
void pack(std::vector<uint8_t>& out, const std::pair<A, B>& value);

/// Array header, then each element by its own rule (numbers in one run).
template <class T>
void pack(std::vector<uint8_t>& out, const std::vector<T>& values) {
    pack_array_header(out, values.size());
    if constexpr (std::is_same_v<T, int> || std::is_same_v<T, long> ||
                  std::is_same_v<T, long long> || std::is_same_v<T, unsigned long> ||
                  std::is_same_v<T, unsigned long long> || std::is_same_v<T, uint32_t> ||
                  std::is_same_v<T, double>) {
        pack_values(out, values.data(), values.size());
    } else {
        for (const T& v : values) pack(out, v);
    }
}

/// Map header, then each key and value in the map's key order.
template <class V>
void pack(std::vector<uint8_t>& out, const std::map<std::string, V>& values) {
    pack_map_header(out, values.size());
    for (const auto& [k, v] : values) {
        pack(out, k);
        pack(out, v);
    }
}

/// Array of N, then each member.
template <class... Ts>
void pack(std::vector<uint8_t>& out, const std::tuple<Ts...>& values) {
    pack_array_header(out, sizeof...(Ts));
    std::apply([&out](const auto&... v) { (pack(out, v), ...); }, values);
}

/// Array of 2, then both members.
template <class A, class B>
void pack(std::vector<uint8_t>& out, const std::pair<A, B>& value) {
    pack_array_header(out, 2);
    pack(out, value.first);
    pack(out, value.second);
}

}  // namespace qor::serialization::msgpack
