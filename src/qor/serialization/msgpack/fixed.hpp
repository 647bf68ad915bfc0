#pragma once

// Inline building blocks for records whose encoding has a fixed size: vertices, index pairs
// and triples, poses. Growing the packing target once per value caps a mesh at a fraction
// of memory bandwidth; with these a writer grows it once per record or once per batch and
// fills the bytes in place, and a reader checks the bounds once per record.
//
// Writing a vector of vertices (each a fixarray of three float 64 values) in one growth:
//
//     pack_array_header(out, vertices.size());
//     constexpr uint64_t each = float64_record_size(3);
//     const uint64_t at = grow_tail(out, vertices.size() * each);  // may move the storage
//     uint8_t* p = out.data() + at;
//     for (const auto& v : vertices) p = put_float64_record(p, v.x, v.y, v.z);
//
// Reading them back, with the general readers as the fallback for any other form (float 32
// coordinates, a wrong field count, truncation), so every error text stays the general one:
//
//     vertices.resize(read_array_header(in));
//     for (auto& v : vertices)
//         if (!read_float64_record(in, v.x, v.y, v.z)) read_fields(in, v);  // general path
//
// A map of ids to fixed records (a per-step state map) grows once by the widest size of an
// entry and is cut back once at the end:
//
//     pack_map_header(out, states.size());
//     const uint64_t at = grow_tail(out, states.size() * (integer_room + float64_record_size(7)));
//     uint8_t* p = out.data() + at;
//     for (const auto& s : states) p = put_float64_record(put_integer(p, s.id), s.x, ...);
//     out.resize(uint64_t(p - out.data()));
//
// The put_* functions write at a raw pointer that the caller has made room for and return the
// pointer one past what they wrote. The get_* functions read at a raw pointer that the caller
// has checked. Only the read_*_record functions check bounds themselves.

#include <cstdint>
#include <cstring>
#include <type_traits>

#include <qor/serialization/msgpack/read.hpp>

namespace qor::serialization::msgpack {

/// Bytes of one float 64 value: type byte 0xCB and eight big-endian bytes.
inline constexpr uint64_t float64_size = 9;
/// Bytes of one uint 32 value: type byte 0xCE and four big-endian bytes.
inline constexpr uint64_t uint32_size = 5;
/// Bytes of a fixarray record of `fields` float 64 values.
constexpr uint64_t float64_record_size(uint64_t fields) {
    return 1 + fields * float64_size;
}
/// Bytes of a fixarray record of `fields` uint 32 values.
constexpr uint64_t uint32_record_size(uint64_t fields) {
    return 1 + fields * uint32_size;
}

namespace fixed_detail {
inline uint16_t to_be(uint16_t v) {
#if defined(__GNUC__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return __builtin_bswap16(v);
#elif defined(__GNUC__)
    return v;
#else
    const uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
    uint16_t r;
    std::memcpy(&r, b, 2);
    return r;
#endif
}
inline uint32_t to_be(uint32_t v) {
#if defined(__GNUC__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return __builtin_bswap32(v);
#elif defined(__GNUC__)
    return v;
#else
    const uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    uint32_t r;
    std::memcpy(&r, b, 4);
    return r;
#endif
}
inline uint64_t to_be(uint64_t v) {
#if defined(__GNUC__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return __builtin_bswap64(v);
#elif defined(__GNUC__)
    return v;
#else
    return (uint64_t(to_be(uint32_t(v))) << 32) | to_be(uint32_t(v >> 32));
#endif
}
}  // namespace fixed_detail

/// Writes one byte at `p`.
inline uint8_t* put_u8(uint8_t* p, uint8_t v) {
    *p = v;
    return p + 1;
}
/// Writes `v` as two big-endian bytes at `p`.
inline uint8_t* put_be16(uint8_t* p, uint16_t v) {
    const uint16_t be = fixed_detail::to_be(v);
    std::memcpy(p, &be, 2);
    return p + 2;
}
/// Writes `v` as four big-endian bytes at `p`.
inline uint8_t* put_be32(uint8_t* p, uint32_t v) {
    const uint32_t be = fixed_detail::to_be(v);
    std::memcpy(p, &be, 4);
    return p + 4;
}
/// Writes `v` as eight big-endian bytes at `p`.
inline uint8_t* put_be64(uint8_t* p, uint64_t v) {
    const uint64_t be = fixed_detail::to_be(v);
    std::memcpy(p, &be, 8);
    return p + 8;
}
/// Writes a fixarray header; `count` must be below 16.
inline uint8_t* put_fixarray(uint8_t* p, uint8_t count) {
    return put_u8(p, uint8_t(0x90 | count));
}
/// Writes `v` as float 64 (nine bytes).
inline uint8_t* put_float64(uint8_t* p, double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, 8);
    return put_be64(put_u8(p, 0xCB), bits);
}
/// Writes `v` as uint 32 (five bytes whatever the value).
inline uint8_t* put_uint32(uint8_t* p, uint32_t v) {
    return put_be32(put_u8(p, 0xCE), v);
}

/// Room an integer writer needs at `p`: it stores nine bytes whatever the form it writes, and
/// only the bytes up to the pointer it returns count.
inline constexpr uint64_t integer_room = 9;

namespace fixed_detail {
// Writes one integer form at `p`: `form` 0 is the one-byte fixint (the low byte of `bits`),
// 1 to 4 the forms with 1, 2, 4 and 8 value bytes, whose type bytes are `base` + `form`.
// The width is chosen by arithmetic rather than branches: in a run of mixed magnitudes branch
// mispredictions would otherwise cost more than the writing.
inline uint8_t* put_form(uint8_t* p, uint64_t bits, unsigned form, unsigned base) {
    static constexpr uint8_t value_bytes[5] = {0, 1, 2, 4, 8};
    const unsigned width = value_bytes[form];
    p[0] = form == 0 ? uint8_t(bits) : uint8_t(base + form);
    uint64_t be = to_be(uint64_t(bits << ((64 - 8 * width) & 63)));  // value bytes first
    std::memcpy(p + 1, &be, 8);                                       // the rest is slack
    return p + 1 + width;
}
}  // namespace fixed_detail

/// Writes `v` by the integer rule of signed values, as `pack` does; needs `integer_room`.
/// Non-negative values take the unsigned forms. The negative side is deliberately one step
/// narrower than the format permits (-128 takes int 16, -32768 int 32): the server and every
/// existing peer expect exactly these forms.
inline uint8_t* put_integer(uint8_t* p, int64_t v) {
    const unsigned up = (v > 0x7F) + (v > 0xFF) + (v > 0xFFFF) + (v > 0xFFFFFFFFll);
    const unsigned down = (v < -32) + (v < -127) + (v < -32767) + (v < -2147483648ll);
    return v < 0 ? fixed_detail::put_form(p, uint64_t(v), down, 0xCF)
                 : fixed_detail::put_form(p, uint64_t(v), up, 0xCB);
}

/// Writes `v` in its smallest unsigned form, as `pack` does; needs `integer_room`.
inline uint8_t* put_unsigned_integer(uint8_t* p, uint64_t v) {
    const unsigned up = (v > 0x7F) + (v > 0xFF) + (v > 0xFFFF) + (v > 0xFFFFFFFFull);
    return fixed_detail::put_form(p, v, up, 0xCB);
}

/// Writes a fixarray of the given values, each as float 64 (fewer than 16 values).
template <class... D>
inline uint8_t* put_float64_record(uint8_t* p, D... values) {
    static_assert(sizeof...(D) < 16 && (std::is_same_v<D, double> && ...));
    p = put_fixarray(p, uint8_t(sizeof...(D)));
    ((p = put_float64(p, values)), ...);
    return p;
}
/// Writes a fixarray of the given values, each as uint 32 (fewer than 16 values).
template <class... U>
inline uint8_t* put_uint32_record(uint8_t* p, U... values) {
    static_assert(sizeof...(U) < 16 && (std::is_same_v<U, uint32_t> && ...));
    p = put_fixarray(p, uint8_t(sizeof...(U)));
    ((p = put_uint32(p, values)), ...);
    return p;
}

/// Two big-endian bytes at `p`.
inline uint16_t get_be16(const uint8_t* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return fixed_detail::to_be(v);
}
/// Four big-endian bytes at `p`.
inline uint32_t get_be32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return fixed_detail::to_be(v);
}
/// Eight big-endian bytes at `p`.
inline uint64_t get_be64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return fixed_detail::to_be(v);
}
/// The double stored as eight big-endian bytes at `p` (the payload of a float 64, after 0xCB).
inline double get_double_be(const uint8_t* p) {
    const uint64_t bits = get_be64(p);
    double v;
    std::memcpy(&v, &bits, 8);
    return v;
}

/// Reads a fixarray of float 64 values into `fields` when the bytes at the cursor have exactly
/// that form and fit in the buffer; otherwise returns false and leaves the cursor untouched.
template <class... D>
inline bool read_float64_record(ReadBuffer& in, D&... fields) {
    static_assert(sizeof...(D) < 16 && (std::is_same_v<D, double> && ...));
    constexpr uint64_t n = sizeof...(D);
    if (in.position > in.size || in.size - in.position < float64_record_size(n)) return false;
    const uint8_t* p = in.data + in.position;
    if (p[0] != (0x90 | n)) return false;
    for (uint64_t i = 0; i < n; ++i)
        if (p[1 + i * float64_size] != 0xCB) return false;
    uint64_t at = 2;
    ((fields = get_double_be(p + at), at += float64_size), ...);
    in.position += float64_record_size(n);
    return true;
}

/// Reads a fixarray of uint 32 values into `fields` when the bytes at the cursor have exactly
/// that form and fit in the buffer; otherwise returns false and leaves the cursor untouched.
template <class... U>
inline bool read_uint32_record(ReadBuffer& in, U&... fields) {
    static_assert(sizeof...(U) < 16 && (std::is_same_v<U, uint32_t> && ...));
    constexpr uint64_t n = sizeof...(U);
    if (in.position > in.size || in.size - in.position < uint32_record_size(n)) return false;
    const uint8_t* p = in.data + in.position;
    if (p[0] != (0x90 | n)) return false;
    for (uint64_t i = 0; i < n; ++i)
        if (p[1 + i * uint32_size] != 0xCE) return false;
    uint64_t at = 2;
    ((fields = get_be32(p + at), at += uint32_size), ...);
    in.position += uint32_record_size(n);
    return true;
}

}  // namespace qor::serialization::msgpack
