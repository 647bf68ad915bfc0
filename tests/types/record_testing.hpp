#pragma once

// Tools shared by the record tests: a random filler, a field-wise equality and
// a reference encoder/decoder built only from the codec's scalar functions, used as the oracle
// for the records' own (fast) paths.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>

#include "support/testing.hpp"

namespace record_testing {

namespace mp = qor::serialization::msgpack;

using test_support::hex;
using test_support::to_hex;

template <class T>
std::vector<uint8_t> encode(const T& value) {
    std::vector<uint8_t> out;
    dax::types::pack(out, value);
    return out;
}

// Reads a whole value of T; `consumed` receives the bytes the reader advanced over.
template <class T>
T decode(const std::vector<uint8_t>& bytes, uint64_t* consumed = nullptr) {
    mp::ReadBuffer in(bytes.data(), bytes.size());
    T value;
    dax::types::read(in, value);
    if (consumed) *consumed = in.position;
    return value;
}

// The text of the std::runtime_error raised by reading `bytes` as T, or "" when none is raised.
template <class T>
std::string read_error(const std::vector<uint8_t>& bytes, T& target) {
    mp::ReadBuffer in(bytes.data(), bytes.size());
    return test_support::error_of([&] { dax::types::read(in, target); });
}
template <class T>
std::string read_error(const std::vector<uint8_t>& bytes) {
    T target;
    return read_error(bytes, target);
}

// ---- random values ------------------------------------------------------------------------

struct Filler {
    std::mt19937_64 rng;
    unsigned max_elements = 3;

    explicit Filler(uint64_t seed) : rng(seed) {}

    uint64_t bits() { return rng(); }
    // Integers spread over every width so each encoded form turns up.
    int64_t spread() {
        const int shift = static_cast<int>(rng() % 64);
        const auto magnitude = static_cast<int64_t>(rng() >> shift >> 1);
        return (rng() & 1) ? -magnitude : magnitude;
    }

    void operator()(int& v) { v = static_cast<int>(spread()); }
    void operator()(uint32_t& v) { v = static_cast<uint32_t>(spread()); }
    void operator()(bool& v) { v = rng() & 1; }
    void operator()(float& v) {
        v = std::ldexp(static_cast<float>(static_cast<int32_t>(rng())),
                       static_cast<int>(rng() % 80) - 60);
    }
    void operator()(double& v) {
        v = std::ldexp(static_cast<double>(static_cast<int64_t>(rng())),
                       static_cast<int>(rng() % 400) - 200);
    }
    void operator()(std::string& v) {
        v.resize(rng() % 40);
        for (char& c : v) c = static_cast<char>(rng());
    }
    void operator()(mp::buffer& v) {
        std::vector<uint8_t> bytes(rng() % 300);
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
        v = mp::buffer(bytes);
    }
    void operator()(std::vector<bool>& v) {
        v.resize(rng() % (max_elements + 1));
        for (std::size_t i = 0; i < v.size(); ++i) v[i] = rng() & 1;
    }
    template <class E>
    void operator()(std::vector<E>& v) {
        v.resize(rng() % (max_elements + 1));
        for (E& e : v) (*this)(e);
    }
    template <class T, std::enable_if_t<dax::types::is_record_v<T>, int> = 0>
    void operator()(T& record) {
        std::apply([this](auto&... f) { ((*this)(f), ...); }, record.fields());
    }
};

template <class T>
T random_record(uint64_t seed) {
    Filler fill(seed);
    T value;
    fill(value);
    return value;
}

// ---- field-wise equality --------------------------------------------------------------------

template <class E>
bool same(const std::vector<E>& a, const std::vector<E>& b);

template <class T>
bool same(const T& a, const T& b) {
    if constexpr (dax::types::is_record_v<T>) {
        return std::apply(
            [&b](const auto&... fa) {
                return std::apply([&fa...](const auto&... fb) { return (same(fa, fb) && ...); },
                                  b.fields());
            },
            a.fields());
    } else if constexpr (std::is_floating_point_v<T>) {
        // Bitwise, so that signed zeros and NaN payloads count.
        return std::memcmp(&a, &b, sizeof(T)) == 0;
    } else {
        return a == b;
    }
}
template <class E>
bool same(const std::vector<E>& a, const std::vector<E>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!same(a[i], b[i])) return false;
    return true;
}

// ---- reference encoder and decoder ----------------------------------------------------------
// Field by field through the codec's scalar functions only: what every record must produce and
// accept, whatever shortcuts the records take.

inline void ref_pack(std::vector<uint8_t>& out, float v) {
    mp::pack(out, static_cast<double>(v));
}
inline void ref_pack(std::vector<uint8_t>& out, const std::vector<bool>& v) {
    mp::pack(out, v);
}
template <class T>
void ref_pack(std::vector<uint8_t>& out, const T& v);
template <class E>
void ref_pack(std::vector<uint8_t>& out, const std::vector<E>& v) {
    mp::pack_array_header(out, v.size());
    for (const E& e : v) ref_pack(out, e);
}
template <class T>
void ref_pack(std::vector<uint8_t>& out, const T& v) {
    if constexpr (dax::types::is_record_v<T>) {
        mp::pack_array_header(out, dax::types::field_count_v<T>);
        std::apply([&out](const auto&... f) { (ref_pack(out, f), ...); }, v.fields());
    } else {
        mp::pack(out, v);
    }
}

inline void ref_read(mp::ReadBuffer& in, std::vector<bool>& v) {
    mp::read(in, v);
}
template <class T>
void ref_read(mp::ReadBuffer& in, T& v);
template <class E>
void ref_read(mp::ReadBuffer& in, std::vector<E>& v) {
    v.resize(mp::read_array_header(in));
    for (E& e : v) ref_read(in, e);
}
template <class T>
void ref_read(mp::ReadBuffer& in, T& v) {
    if constexpr (dax::types::is_record_v<T>) {
        const uint64_t n = mp::read_array_header(in);
        if (n != dax::types::field_count_v<T>)
            mp::throw_struct_count(n, dax::types::field_count_v<T>);
        std::apply([&in](auto&... f) { (ref_read(in, f), ...); }, v.fields());
    } else {
        mp::read(in, v);
    }
}

}  // namespace record_testing
