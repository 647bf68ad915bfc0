#include <qor/serialization/msgpack/pack.hpp>

#include <cstring>
#include <stdexcept>

#include <qor/serialization/msgpack/fixed.hpp>

namespace qor::serialization::msgpack {

namespace {

constexpr uint64_t max_length = 0xFFFFFFFFull;

// Every writer sizes its value first (raising any error before a byte is appended), then
// grows the target once and fills the bytes in place.
uint8_t* grow(std::vector<uint8_t>& out, uint64_t n) {
    const uint64_t at = grow_tail(out, n);  // before data(): growing may move the storage
    return out.data() + at;
}

// Encoded size of a signed value by the integer rule. The negative side is deliberately one
// step narrower than the format permits (-128 takes int 16, -32768 int 32): the server and
// every existing peer expect exactly these forms.
uint64_t signed_size(int64_t v) {
    if (v >= 0) {
        if (v <= 0x7F) return 1;
        if (v <= 0xFF) return 2;
        if (v <= 0xFFFF) return 3;
        if (v <= 0xFFFFFFFFll) return 5;
        return 9;
    }
    if (v >= -32) return 1;
    if (v >= -127) return 2;
    if (v >= -32767) return 3;
    if (v >= -2147483648ll) return 5;
    return 9;
}

void fill_signed(uint8_t* p, int64_t v, uint64_t size) {
    if (v >= 0) {
        switch (size) {
            case 1:
                put_u8(p, uint8_t(v));
                break;
            case 2:
                put_u8(put_u8(p, 0xCC), uint8_t(v));
                break;
            case 3:
                put_be16(put_u8(p, 0xCD), uint16_t(v));
                break;
            case 5:
                put_be32(put_u8(p, 0xCE), uint32_t(v));
                break;
            default:
                put_be64(put_u8(p, 0xCF), uint64_t(v));
                break;
        }
        return;
    }
    switch (size) {
        case 1:
            put_u8(p, uint8_t(int8_t(v)));
            break;
        case 2:
            put_u8(put_u8(p, 0xD0), uint8_t(int8_t(v)));
            break;
        case 3:
            put_be16(put_u8(p, 0xD1), uint16_t(int16_t(v)));
            break;
        case 5:
            put_be32(put_u8(p, 0xD2), uint32_t(int32_t(v)));
            break;
        default:
            put_be64(put_u8(p, 0xD3), uint64_t(v));
            break;
    }
}

void pack_signed(std::vector<uint8_t>& out, int64_t v) {
    const uint64_t size = signed_size(v);
    fill_signed(grow(out, size), v, size);
}

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
    pack_signed(out, value);
}

void pack(std::vector<uint8_t>& out, long value) {
    pack_signed(out, value);
}

void pack(std::vector<uint8_t>& out, long long value) {
    pack_signed(out, value);
}

void pack(std::vector<uint8_t>& out, uint32_t value) {
    put_uint32(grow(out, uint32_size), value);
}

void pack(std::vector<uint8_t>& out, unsigned long value) {
    if (value <= 0x7F) {
        out.push_back(uint8_t(value));
    } else if (value <= 0xFF) {
        put_u8(put_u8(grow(out, 2), 0xCC), uint8_t(value));
    } else if (value <= 0xFFFF) {
        put_be16(put_u8(grow(out, 3), 0xCD), uint16_t(value));
    } else if (value <= 0xFFFFFFFFul) {
        put_be32(put_u8(grow(out, 5), 0xCE), uint32_t(value));
    } else {
        put_be64(put_u8(grow(out, 9), 0xCF), uint64_t(value));
    }
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

void pack(std::vector<uint8_t>& out, const buffer& value) {
    if (value.size > max_length) throw std::runtime_error("binary data too large");
    const uint64_t header = length_header_size(value.size, 0);
    // Second guard where the length is narrowed into the header; unreachable after the
    // check above but kept so that a future change there cannot write a wrapped length.
    if (header == 5 && value.size > max_length) throw std::runtime_error("binary data too long");
    uint8_t* p = fill_length_header(grow(out, header + value.size), value.size, header, 0, 0xC4);
    if (value.size != 0) std::memcpy(p, value.data, value.size);
}

void pack(std::vector<uint8_t>& out, const std::vector<bool>& values) {
    pack_array_header(out, values.size());
    uint8_t* p = grow(out, values.size());
    for (bool v : values) *p++ = v ? 0xC3 : 0xC2;
}

}  // namespace qor::serialization::msgpack
