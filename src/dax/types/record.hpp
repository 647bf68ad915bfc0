#pragma once

// The record mechanism shared by every dax::types structure: a record names its fields once
// with DAX_RECORD_FIELDS, and the MessagePack writer and reader below derive the field count
// and the field order from that list. A record travels as an array of its fields in
// declaration order, never as a map.
//
// Single-precision fields are written as float 64: the codec has no float 32 writer, float 64
// holds every float exactly, and every reader of a float field accepts it.
//
// Records whose every field has one fixed encoded form (double, float, uint32_t, bool and
// records made only of those) have a size known at compile time. A vector of such records is
// written by growing the output once and filling it in place, and read with one bounds check
// per element; the bytes are those of the field-by-field path, and an element that arrives in
// any other accepted form (a small index as a fixint, a float 32 coordinate) is read by the
// field-by-field path instead.

#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/serialization/msgpack/fixed.hpp>
#include <qor/serialization/msgpack/pack.hpp>
#include <qor/serialization/msgpack/read.hpp>

/// Declares a record's fields, in wire order: defines `fields()` (mutable and const) returning
/// references to them, and marks the type as a record for `dax::types::pack` and `read`.
#define DAX_RECORD_FIELDS(...)        \
    using dax_record_tag = void;      \
    auto fields() {                   \
        return std::tie(__VA_ARGS__); \
    }                                 \
    auto fields() const {             \
        return std::tie(__VA_ARGS__); \
    }

// The per-record shortcuts sit in the hot loop of a mesh; the compiler's size heuristics would
// otherwise leave some of them out of line and cost a third of the read speed.
#if defined(__GNUC__)
#define DAX_TYPES_INLINE [[gnu::always_inline]] inline
#else
#define DAX_TYPES_INLINE inline
#endif

namespace dax::types {

/// True for types declared with DAX_RECORD_FIELDS.
template <class T, class = void>
struct is_record : std::false_type {};
template <class T>
struct is_record<T, std::void_t<typename T::dax_record_tag>> : std::true_type {};
template <class T>
inline constexpr bool is_record_v = is_record<T>::value;

/// Number of fields of record T.
template <class T>
inline constexpr std::size_t field_count_v =
    std::tuple_size_v<decltype(std::declval<const T&>().fields())>;

/// Appends `record` as an array of its fields in declaration order.
template <class T, std::enable_if_t<is_record_v<T>, int> = 0>
void pack(std::vector<uint8_t>& out, const T& record);
/// Reads `record` from an array that must hold exactly its number of fields; raises the codec's
/// "reading struct : wrong number of fields. ..." error otherwise.
template <class T, std::enable_if_t<is_record_v<T>, int> = 0>
void read(qor::serialization::msgpack::ReadBuffer& in, T& record);

namespace detail {

namespace msgpack = qor::serialization::msgpack;

template <class T>
using bare_t = std::remove_cv_t<std::remove_reference_t<T>>;

template <class T, class = void>
struct fixed_size : std::integral_constant<std::size_t, 0> {};
template <>
struct fixed_size<double> : std::integral_constant<std::size_t, msgpack::float64_size> {};
template <>  // written as float 64
struct fixed_size<float> : std::integral_constant<std::size_t, msgpack::float64_size> {};
template <>
struct fixed_size<uint32_t> : std::integral_constant<std::size_t, msgpack::uint32_size> {};
template <>
struct fixed_size<bool> : std::integral_constant<std::size_t, 1> {};

template <class Tuple>
struct fields_fixed_size;
template <class... Fs>
struct fields_fixed_size<std::tuple<Fs...>> {
    static constexpr bool all = ((fixed_size<bare_t<Fs>>::value > 0) && ...);
    static constexpr std::size_t value = all ? 1 + (fixed_size<bare_t<Fs>>::value + ...) : 0;
};

// A record is fixed-size when every field is, and its header is a one-byte fixarray.
template <class T>
struct fixed_size<T, std::enable_if_t<is_record_v<T>>>
    : std::integral_constant<
          std::size_t, (field_count_v<T> < 16)
                           ? fields_fixed_size<decltype(std::declval<const T&>().fields())>::value
                           : 0> {};

// The fewest bytes any accepted encoding of a T can take (a double may come as float 32, an
// index as a one-byte fixint). A list header claiming more elements than its bytes can hold
// must not make a reader allocate far more memory than the message carries.
template <class T>
constexpr std::size_t min_encoded_size();
template <class Tuple>
struct fields_min_size;
template <class... Fs>
struct fields_min_size<std::tuple<Fs...>> {
    static constexpr std::size_t value = 1 + (min_encoded_size<bare_t<Fs>>() + ... + 0);
};
template <class T>
constexpr std::size_t min_encoded_size() {
    if constexpr (is_record_v<T>)
        return fields_min_size<decltype(std::declval<const T&>().fields())>::value;
    else if constexpr (std::is_floating_point_v<T>)
        return 5;
    else if constexpr (std::is_same_v<T, msgpack::buffer>)
        return 2;
    else
        return 1;
}

// Writes the fixed form of `value` at `p` (room already made) and returns the end.
inline uint8_t* put_fixed(uint8_t* p, double value) {
    return msgpack::put_float64(p, value);
}
inline uint8_t* put_fixed(uint8_t* p, float value) {
    return put_fixed(p, static_cast<double>(value));
}
inline uint8_t* put_fixed(uint8_t* p, uint32_t value) {
    return msgpack::put_uint32(p, value);
}
inline uint8_t* put_fixed(uint8_t* p, bool value) {
    p[0] = value ? 0xC3 : 0xC2;
    return p + 1;
}
template <class T, std::enable_if_t<is_record_v<T>, int> = 0>
DAX_TYPES_INLINE uint8_t* put_fixed(uint8_t* p, const T& record) {
    *p++ = static_cast<uint8_t>(0x90 | field_count_v<T>);
    std::apply([&p](const auto&... f) { ((p = put_fixed(p, f)), ...); }, record.fields());
    return p;
}

// Reads `value` from its fixed form at `p` (bytes already bounds-checked); false when the bytes
// hold some other form, in which case the caller falls back to the full reader.
inline bool get_fixed(const uint8_t* p, double& value) {
    if (p[0] != 0xCB) return false;
    value = msgpack::get_double_be(p + 1);
    return true;
}
inline bool get_fixed(const uint8_t* p, float& value) {
    double wide;
    if (!get_fixed(p, wide)) return false;
    value = static_cast<float>(wide);
    return true;
}
inline bool get_fixed(const uint8_t* p, uint32_t& value) {
    if (p[0] != 0xCE) return false;
    value = msgpack::get_be32(p + 1);
    return true;
}
inline bool get_fixed(const uint8_t* p, bool& value) {
    value = p[0] == 0xC3;
    return true;
}
template <class T, std::enable_if_t<is_record_v<T>, int> = 0>
DAX_TYPES_INLINE bool get_fixed(const uint8_t* p, T& record) {
    if (*p++ != (0x90 | field_count_v<T>)) return false;
    return std::apply(
        [&p](auto&... f) {
            return (
                (get_fixed(p, f) ? (p += fixed_size<bare_t<decltype(f)>>::value, true) : false) &&
                ...);
        },
        record.fields());
}

// Reads a fixed-size record when the bytes at the cursor have its fixed form and are all there;
// otherwise leaves the cursor alone and returns false.
template <class T>
DAX_TYPES_INLINE bool read_fixed(msgpack::ReadBuffer& in, T& record) {
    constexpr std::size_t size = fixed_size<T>::value;
    if (in.remaining() < size || !get_fixed(in.current(), record)) return false;
    in.position += size;
    return true;
}

template <class T>
void read_fields(msgpack::ReadBuffer& in, T& record);

template <class T>
void pack_field(std::vector<uint8_t>& out, const T& value);
inline void pack_field(std::vector<uint8_t>& out, float value) {
    msgpack::pack(out, static_cast<double>(value));
}
inline void pack_field(std::vector<uint8_t>& out, const std::vector<bool>& values) {
    msgpack::pack(out, values);
}
template <class E>
void pack_field(std::vector<uint8_t>& out, const std::vector<E>& values) {
    msgpack::pack_array_header(out, values.size());
    if constexpr (fixed_size<E>::value > 0) {
        constexpr std::size_t size = fixed_size<E>::value;
        const uint64_t at = msgpack::grow_tail(out, values.size() * size);  // may move the storage
        uint8_t* p = out.data() + at;
        for (const E& v : values) p = put_fixed(p, v);
    } else {
        for (const E& v : values) pack_field(out, v);
    }
}

template <class T>
void read_field(msgpack::ReadBuffer& in, T& value);
inline void read_field(msgpack::ReadBuffer& in, std::vector<bool>& values) {
    msgpack::read(in, values);
}
template <class E>
void read_field(msgpack::ReadBuffer& in, std::vector<E>& values) {
    const uint64_t count = msgpack::read_array_header(in);
    constexpr uint64_t least = min_encoded_size<E>();
    if ((least > 1 && count > in.remaining() / least) ||
        !msgpack::affordable(in, count, sizeof(E))) {
        // The elements cannot all be there, so reading will fail somewhere, or they would
        // take far more memory than the bytes left: grow with the elements actually read so
        // that memory follows the bytes received, and the error is still the one met at the
        // failing element.
        values.clear();
        for (uint64_t i = 0; i < count; ++i) read_field(in, values.emplace_back());
        return;
    }
    values.resize(count);
    if constexpr (fixed_size<E>::value > 0) {
        // The hot loop of a mesh: the shortcut stays inline here.
        for (E& v : values) {
            if (read_fixed(in, v)) continue;
            if constexpr (is_record_v<E>)
                read_fields(in, v);
            else
                read_field(in, v);
        }
    } else {
        for (E& v : values) read_field(in, v);
    }
}

// Header, count test, then every field in order: the path every accepted form goes through.
template <class T>
void read_fields(msgpack::ReadBuffer& in, T& record) {
    const uint64_t count = msgpack::read_fields_header(in);
    if (count != field_count_v<T>) msgpack::throw_struct_count(count, field_count_v<T>);
    std::apply([&in](auto&... f) { (read_field(in, f), ...); }, record.fields());
}

template <class T>
void pack_fields(std::vector<uint8_t>& out, const T& record) {
    msgpack::pack_array_header(out, field_count_v<T>);
    std::apply([&out](const auto&... f) { (pack_field(out, f), ...); }, record.fields());
}

// Records go to the record templates directly, so that records declared in other namespaces
// (where argument-dependent lookup would not find them) nest like ours.
template <class T>
void pack_field(std::vector<uint8_t>& out, const T& value) {
    if constexpr (is_record_v<T>) {
        dax::types::pack(out, value);
    } else {
        using msgpack::pack;
        pack(out, value);
    }
}
template <class T>
void read_field(msgpack::ReadBuffer& in, T& value) {
    if constexpr (is_record_v<T>) {
        dax::types::read(in, value);
    } else {
        using msgpack::read;
        read(in, value);
    }
}

}  // namespace detail

// The codec's overloads join the records' so that dax::types::pack and read take any value:
// records, their vectors and the scalars alike.
using qor::serialization::msgpack::pack;
using qor::serialization::msgpack::read;

template <class T, std::enable_if_t<is_record_v<T>, int>>
void pack(std::vector<uint8_t>& out, const T& record) {
    if constexpr (detail::fixed_size<T>::value > 0) {
        const uint64_t at =
            qor::serialization::msgpack::grow_tail(out, detail::fixed_size<T>::value);
        detail::put_fixed(out.data() + at, record);
    } else {
        detail::pack_fields(out, record);
    }
}

template <class T, std::enable_if_t<is_record_v<T>, int>>
void read(qor::serialization::msgpack::ReadBuffer& in, T& record) {
    if constexpr (detail::fixed_size<T>::value > 0) {
        if (detail::read_fixed(in, record)) return;
    }
    detail::read_fields(in, record);
}

}  // namespace dax::types
