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

/// A non-owning decoding cursor. Every reader checks the bytes it needs against `size`:
/// a value that runs past the end raises "unexpected end of data" and nothing outside
/// [data, data + size) is ever read. Used from one thread at a time.
struct ReadBuffer {
    const uint8_t* data;  ///< first encoded byte; not owned
    uint64_t size;        ///< number of readable bytes at `data`
    uint64_t position;    ///< index of the next byte to read

    /// A cursor over the bytes of `block`, at position 0.
    explicit ReadBuffer(const buffer& block);
    /// A cursor over `count` bytes at `bytes`, at position 0.
    ReadBuffer(const uint8_t* bytes, uint64_t count);

    /// Bytes not yet read (0 for a cursor moved past its end).
    uint64_t remaining() const { return position < size ? size - position : 0; }
    /// Pointer to the next byte to read.
    const uint8_t* current() const { return data + position; }
};

/// What a container may set aside before its elements are read, per byte left: a count is
/// only checked against the bytes left (one per element), so elements larger in memory than on
/// the wire could make a small hostile message reserve many times its size. 8 covers a vector
/// of 64-bit numbers written as one-byte integers; larger elements grow as they are read.
inline constexpr uint64_t kReservePerByte = 8;

/// Whether `count` elements of `element_size` bytes each may be allocated at once, before they
/// are read from what is left of `in` (see `kReservePerByte`).
inline bool affordable(const ReadBuffer& in, uint64_t count, uint64_t element_size) {
    return count <= kReservePerByte * in.remaining() / element_size;
}

/// Array header count: fixarray, array 16, array 32. Refuses a count larger than the bytes left
/// ("unexpected end of data", header not consumed).
uint64_t read_array_header(ReadBuffer& in);
/// Array header count of a record or tuple, checked only for the header's own bytes: the caller
/// compares the count with its number of fields first, so a wrong count gets the count error
/// even when the bytes left could not hold that many values. Each field is bounds-checked when
/// it is read.
uint64_t read_fields_header(ReadBuffer& in);
/// Map header count: fixmap, map 16, map 32. Refuses a count larger than half the bytes left.
uint64_t read_map_header(ReadBuffer& in);

// One overload per integer type, as for packing: int64_t and uint64_t read the same on LP64
// and LLP64 systems.
/// Any integer form, kept to the width of `long` (64 bits on Linux, 32 on Windows).
void read(ReadBuffer& in, long& value);
/// Any integer form.
void read(ReadBuffer& in, long long& value);
/// Any integer form, kept to its low 32 bits.
void read(ReadBuffer& in, int& value);
/// Any integer form, kept to its low 32 bits.
void read(ReadBuffer& in, uint32_t& value);
/// Any integer form, kept to the width of `unsigned long` (64 bits on Linux, 32 on Windows).
void read(ReadBuffer& in, unsigned long& value);
/// Any integer form, as unsigned 64 bits (WAMP ids; uint64_t on Windows).
void read(ReadBuffer& in, unsigned long long& value);
/// float 32, or float 64 narrowed to the nearest single-precision value.
void read(ReadBuffer& in, float& value);
/// float 64, or float 32 widened exactly.
void read(ReadBuffer& in, double& value);
/// Any integer or float form, as a double: for peers that send 0 where 0.0 is meant.
/// A byte of neither kind raises "expecting integer value".
double read_number(ReadBuffer& in);
/// Any single byte: only 0xC3 is true. Never fails on content.
void read(ReadBuffer& in, bool& value);
/// fixstr, str 8, str 16, str 32.
void read(ReadBuffer& in, std::string& value);
/// bin 8, bin 16, bin 32; the payload is copied into a fresh block.
void read(ReadBuffer& in, buffer& value);
/// Array of single-byte booleans.
void read(ReadBuffer& in, std::vector<bool>& values);

// Runs of numbers read into consecutive elements, each by its reader above. On an error the
// position is at the failing value and the elements before it are already overwritten.
/// `count` integers into `values`.
void read_values(ReadBuffer& in, int* values, uint64_t count);
/// `count` integers into `values`.
void read_values(ReadBuffer& in, long* values, uint64_t count);
/// `count` integers into `values`.
void read_values(ReadBuffer& in, long long* values, uint64_t count);
/// `count` integers into `values`.
void read_values(ReadBuffer& in, unsigned long* values, uint64_t count);
/// `count` integers into `values`.
void read_values(ReadBuffer& in, unsigned long long* values, uint64_t count);
/// `count` integers into `values`.
void read_values(ReadBuffer& in, uint32_t* values, uint64_t count);
/// `count` float 32 or float 64 values into `values`.
void read_values(ReadBuffer& in, float* values, uint64_t count);
/// `count` float 32 or float 64 values into `values`.
void read_values(ReadBuffer& in, double* values, uint64_t count);

/// Skips one complete value of any form (ext included) and returns its size in bytes. Walks
/// without recursion, so any nesting depth is safe; refuses 0xC1 ("invalid type byte 0xC1").
uint64_t skip(ReadBuffer& in);

/// Throws the record error: "reading struct : wrong number of fields. N fields in message, F in
/// struct".
[[noreturn]] void throw_struct_count(uint64_t in_message, uint64_t in_struct);
/// Throws the tuple error: "reading tuple : wrong number of fields. N fields in message, F in
/// tuple".
[[noreturn]] void throw_tuple_count(uint64_t in_message, uint64_t in_struct);

// The container templates are declared together before any is defined, so that each finds
// the others for nested types (a vector of tuples, a tuple holding a map...).
template <class T>
void read(ReadBuffer& in, std::vector<T>& values);
template <class K, class V>
void read(ReadBuffer& in, std::map<K, V>& values);
template <class... Ts>
void read(ReadBuffer& in, std::tuple<Ts...>& values);
template <class A, class B>
void read(ReadBuffer& in, std::pair<A, B>& value);

/// Array header, resize to exactly its count, then each element in place (numbers in one run).
/// Elements too large to set aside for that count (see `affordable`) grow as they are read.
template <class T>
void read(ReadBuffer& in, std::vector<T>& values) {
    const uint64_t count = read_array_header(in);
    if (!affordable(in, count, sizeof(T))) {
        values.clear();
        values.reserve(kReservePerByte * in.remaining() / sizeof(T));
        for (uint64_t i = 0; i < count; ++i) read(in, values.emplace_back());
        return;
    }
    values.resize(count);
    if constexpr (std::is_same_v<T, int> || std::is_same_v<T, long> ||
                  std::is_same_v<T, long long> || std::is_same_v<T, unsigned long> ||
                  std::is_same_v<T, unsigned long long> || std::is_same_v<T, uint32_t> ||
                  std::is_same_v<T, float> ||
                  std::is_same_v<T, double>) {
        read_values(in, values.data(), count);
    } else {
        for (T& v : values) read(in, v);
    }
}

/// Map header, then keys and values; an existing key is overwritten.
template <class K, class V>
void read(ReadBuffer& in, std::map<K, V>& values) {
    const uint64_t count = read_map_header(in);
    values.clear();
    for (uint64_t i = 0; i < count; ++i) {
        K key{};
        read(in, key);
        read(in, values[key]);
    }
}

/// Array header that must count exactly N, then each member.
template <class... Ts>
void read(ReadBuffer& in, std::tuple<Ts...>& values) {
    const uint64_t count = read_fields_header(in);
    if (count != sizeof...(Ts)) throw_tuple_count(count, sizeof...(Ts));
    std::apply([&in](auto&... v) { (read(in, v), ...); }, values);
}

/// Array header that must count exactly 2, then both members.
template <class A, class B>
void read(ReadBuffer& in, std::pair<A, B>& value) {
    const uint64_t count = read_fields_header(in);
    if (count != 2) throw_tuple_count(count, 2);
    read(in, value.first);
    read(in, value.second);
}

}  // namespace qor::serialization::msgpack
