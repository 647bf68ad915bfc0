#include <qor/serialization/msgpack/pack.hpp>

#include <cstring>
#include <stdexcept>

#include <qor/serialization/msgpack/fixed.hpp>

namespace qor::serialization::msgpack {

namespace {

constexpr uint64_t max_length = 0xFFFFFFFFull;

// Every writer sizes its value first (raising any error before a byte is appended), then
// grows the target once and fills the bytes in place. Integers, which cannot fail, are the
// exception: they take room for their widest form and cut the vector back after writing.
uint8_t* grow(std::vector<uint8_t>& out, uint64_t n) {
    const uint64_t at = grow_tail(out, n);  // before data(): growing may move the storage
    return out.data() + at;
}

constexpr uint64_t max_integer_size = integer_room;

// One integer: room for the widest form, then the vector is cut back to the bytes written.
template <class Put, class T>
void pack_integer(std::vector<uint8_t>& out, Put put, T v) {
    const uint64_t at = out.size();
    out.resize(at + max_integer_size);
    out.resize(at + put(out.data() + at, v));
}

// A run of integers grown once for the widest forms and cut back once at the end.
template <class Put, class T>
void pack_integers(std::vector<uint8_t>& out, Put put, const T* values, uint64_t count) {
    const uint64_t at = out.size();
    out.resize(at + count * max_integer_size);
    uint8_t* const start = out.data() + at;
    uint8_t* p = start;
    for (uint64_t i = 0; i < count; ++i) p += put(p, values[i]);
    out.resize(at + uint64_t(p - start));
}

const auto put_signed_fn = [](uint8_t* p, int64_t v) { return uint64_t(put_integer(p, v) - p); };
const auto put_unsigned_fn = [](uint8_t* p, uint64_t v) {
    return uint64_t(put_unsigned_integer(p, v) - p);
};

// Length-prefixed forms (str, bin): `form8` is the 8-bit-length type byte, followed in the
// format by the 16 and 32-bit ones; `fix_base` is the one-byte form for lengths below
// `fix_limit` (a limit of 0 means the form has none).
uint64_t length_header_size(uint64_t length, uint64_t fix_limit) {
    if (length < fix_limit) return 1;
    if (length <= 0xFF) return 2;
    if (length <= 0xFFFF) return 3;
    return 5;
}

uint8_t* fill_length_header(uint8_t* p, uint64_t length, uint64_t header, uint8_t fix_base,
                            uint8_t form8) {
    switch (header) {
        case 1:
            return put_u8(p, uint8_t(fix_base | length));
        case 2:
            return put_u8(put_u8(p, form8), uint8_t(length));
        case 3:
            return put_be16(put_u8(p, uint8_t(form8 + 1)), uint16_t(length));
        default:
            return put_be32(put_u8(p, uint8_t(form8 + 2)), uint32_t(length));
    }
}

void pack_bytes(std::vector<uint8_t>& out, const void* bytes, uint64_t length, uint64_t fix_limit,
                uint8_t fix_base, uint8_t form8) {
    const uint64_t header = length_header_size(length, fix_limit);
    uint8_t* p = fill_length_header(grow(out, header + length), length, header, fix_base, form8);
    if (length != 0) std::memcpy(p, bytes, length);
}

void pack_string(std::vector<uint8_t>& out, const char* bytes, uint64_t length) {
    if (length > max_length) throw std::runtime_error("string too long");
    pack_bytes(out, bytes, length, 32, 0xA0, 0xD9);
}

void pack_container_header(std::vector<uint8_t>& out, uint64_t count, uint8_t fix_base,
                           uint8_t form16, const char* too_large) {
    if (count > max_length) throw std::runtime_error(too_large);
    if (count < 16) {
        out.push_back(uint8_t(fix_base | count));
    } else if (count <= 0xFFFF) {
        put_be16(put_u8(grow(out, 3), form16), uint16_t(count));
    } else {
        put_be32(put_u8(grow(out, 5), uint8_t(form16 + 1)), uint32_t(count));
    }
}

}  // namespace

uint64_t grow_tail(std::vector<uint8_t>& out, uint64_t n) {
    const uint64_t at = out.size();
    out.resize(at + n);
    return at;
}

void pack_array_header(std::vector<uint8_t>& out, uint64_t count) {
    pack_container_header(out, count, 0x90, 0xDC, "array too large");
}

void pack_map_header(std::vector<uint8_t>& out, uint64_t count) {
    pack_container_header(out, count, 0x80, 0xDE, "map too large");
}

void pack(std::vector<uint8_t>& out, bool value) {
    out.push_back(value ? 0xC3 : 0xC2);
}

void pack(std::vector<uint8_t>& out, int value) {
    pack_integer(out, put_signed_fn, value);
}

void pack(std::vector<uint8_t>& out, long value) {
    pack_integer(out, put_signed_fn, value);
}

void pack(std::vector<uint8_t>& out, long long value) {
    pack_integer(out, put_signed_fn, value);
}

void pack(std::vector<uint8_t>& out, uint32_t value) {
    put_uint32(grow(out, uint32_size), value);
}

void pack(std::vector<uint8_t>& out, unsigned long value) {
    pack_integer(out, put_unsigned_fn, value);
}

void pack(std::vector<uint8_t>& out, unsigned long long value) {
    pack_integer(out, put_unsigned_fn, value);
}

void pack(std::vector<uint8_t>& out, double value) {
    put_float64(grow(out, float64_size), value);
}

void pack(std::vector<uint8_t>& out, const std::string& value) {
    pack_string(out, value.data(), value.size());
}

void pack(std::vector<uint8_t>& out, const char* value) {
    if (value == nullptr) throw std::runtime_error("null string pointer");
    pack_string(out, value, std::strlen(value));
}

namespace {

uint64_t bin_header_size(uint64_t length) {
    if (length > max_length) throw std::runtime_error("binary data too large");
    const uint64_t header = length_header_size(length, 0);
    // Second guard where the length is narrowed into the header; unreachable after the
    // check above but kept so that a future change there cannot write a wrapped length.
    if (header == 5 && length > max_length) throw std::runtime_error("binary data too long");
    return header;
}

void put_bin(uint8_t* at, const buffer& value, uint64_t header) {
    uint8_t* p = fill_length_header(at, value.size, header, 0, 0xC4);
    if (value.size != 0) std::memcpy(p, value.data, value.size);
}

}  // namespace

void pack(std::vector<uint8_t>& out, const buffer& value) {
    const uint64_t header = bin_header_size(value.size);
    put_bin(grow(out, header + value.size), value, header);
}

void pack_bin_header(std::vector<uint8_t>& out, uint64_t size) {
    const uint64_t header = bin_header_size(size);
    fill_length_header(grow(out, header), size, header, 0, 0xC4);
}

buffer pack_bin(const buffer& value) {
    const uint64_t header = bin_header_size(value.size);
    buffer block(header + value.size);
    put_bin(block.data, value, header);
    return block;
}

void pack(std::vector<uint8_t>& out, const std::vector<bool>& values) {
    pack_array_header(out, values.size());
    uint8_t* p = grow(out, values.size());
    for (bool v : values) *p++ = v ? 0xC3 : 0xC2;
}

void pack_values(std::vector<uint8_t>& out, const int* values, uint64_t count) {
    pack_integers(out, put_signed_fn, values, count);
}

void pack_values(std::vector<uint8_t>& out, const long* values, uint64_t count) {
    pack_integers(out, put_signed_fn, values, count);
}

void pack_values(std::vector<uint8_t>& out, const long long* values, uint64_t count) {
    pack_integers(out, put_signed_fn, values, count);
}

void pack_values(std::vector<uint8_t>& out, const unsigned long* values, uint64_t count) {
    pack_integers(out, put_unsigned_fn, values, count);
}

void pack_values(std::vector<uint8_t>& out, const unsigned long long* values, uint64_t count) {
    pack_integers(out, put_unsigned_fn, values, count);
}

void pack_values(std::vector<uint8_t>& out, const uint32_t* values, uint64_t count) {
    uint8_t* p = grow(out, count * uint32_size);
    for (uint64_t i = 0; i < count; ++i) p = put_uint32(p, values[i]);
}

void pack_values(std::vector<uint8_t>& out, const double* values, uint64_t count) {
    uint8_t* p = grow(out, count * float64_size);
    for (uint64_t i = 0; i < count; ++i) p = put_float64(p, values[i]);
}

}  // namespace qor::serialization::msgpack
