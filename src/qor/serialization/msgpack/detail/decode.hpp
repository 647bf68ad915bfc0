#pragma once

// Scalar decoders over a raw pointer: each takes the bytes at `p`, of which `avail` may be
// read, stores the value and returns the number of bytes it occupied. The type byte is judged
// before the length, so a wrong form reports its own error even when it is also truncated.
// Nothing is read at or beyond p + avail. The ReadBuffer readers are thin wrappers over these.

#include <cstdint>
#include <cstring>

#include <qor/serialization/msgpack/fixed.hpp>

namespace qor::serialization::msgpack::detail {

/// Throws std::runtime_error with `text`; kept out of line so the decoders stay small.
[[noreturn]] void fail(const char* text);

inline constexpr const char* end_of_data = "unexpected end of data";

/// Any integer form, as the 64 bits of its two's complement value (uint 64 taken as it is).
inline uint64_t decode_integer(const uint8_t* p, uint64_t avail, uint64_t& value) {
    if (avail == 0) fail(end_of_data);
    const uint8_t b = p[0];
    if (int8_t(b) >= -32) {  // positive fixint 0x00..0x7F, negative fixint 0xE0..0xFF
        value = uint64_t(int64_t(int8_t(b)));
        return 1;
    }
    // 0xCC..0xCF are uint 8..64 and 0xD0..0xD3 int 8..64: the width and the signedness
    // follow from the type byte, so one shift decodes every width without a branch per form.
    const unsigned form = unsigned(b) - 0xCC;
    if (form > 7) fail("expecting integer value");
    const unsigned width = 1u << (form & 3);
    if (avail < 1 + width) fail(end_of_data);
    uint64_t raw;  // the value bytes at the top, big-endian
    if (avail >= 9) {
        raw = get_be64(p + 1);
    } else {
        raw = 0;
        for (unsigned i = 0; i < width; ++i) raw = raw << 8 | p[1 + i];
        raw <<= 64 - 8 * width;
    }
    const unsigned shift = 64 - 8 * width;
    value = form >= 4 ? uint64_t(int64_t(raw) >> shift) : raw >> shift;
    return 1 + width;
}

/// float 32 or float 64, as a double (float 32 widened exactly); `wrong_type` names the target.
inline uint64_t decode_floating(const uint8_t* p, uint64_t avail, double& value,
                                const char* wrong_type) {
    if (avail == 0) fail(end_of_data);
    if (p[0] == 0xCB) {
        if (avail < 9) fail(end_of_data);
        value = get_double_be(p + 1);
        return 9;
    }
    if (p[0] == 0xCA) {
        if (avail < 5) fail(end_of_data);
        const uint32_t bits = get_be32(p + 1);
        float f;
        std::memcpy(&f, &bits, 4);
        value = f;
        return 5;
    }
    fail(wrong_type);
}

/// Header of a length-prefixed form: returns the header size and stores the payload length,
/// after checking that header and payload both fit in `avail`.
/// `fix_base`/`fix_mask` describe the fix form (0 mask when there is none) and `form8` is the
/// type byte of the 8-bit-length form, followed by the 16 and 32-bit ones.
inline uint64_t decode_length(const uint8_t* p, uint64_t avail, uint64_t& length, uint8_t fix_base,
                              uint8_t fix_mask, uint8_t form8, const char* wrong_type) {
    if (avail == 0) fail(end_of_data);
    const uint8_t b = p[0];
    uint64_t header;
    if (fix_mask != 0 && (b & uint8_t(~fix_mask)) == fix_base) {
        header = 1;
    } else if (b == form8) {
        header = 2;
    } else if (b == uint8_t(form8 + 1)) {
        header = 3;
    } else if (b == uint8_t(form8 + 2)) {
        header = 5;
    } else {
        fail(wrong_type);
    }
    if (avail < header) fail(end_of_data);
    switch (header) {
        case 1:
            length = b & fix_mask;
            break;
        case 2:
            length = p[1];
            break;
        case 3:
            length = get_be16(p + 1);
            break;
        default:
            length = get_be32(p + 1);
            break;
    }
    if (avail - header < length) fail(end_of_data);
    return header;
}

/// str forms: header size, payload length in `length`.
inline uint64_t decode_str_header(const uint8_t* p, uint64_t avail, uint64_t& length) {
    return decode_length(p, avail, length, 0xA0, 0x1F, 0xD9,
                         "inconsistent data while parsing string");
}

/// bin forms: header size, payload length in `length`.
inline uint64_t decode_bin_header(const uint8_t* p, uint64_t avail, uint64_t& length) {
    return decode_length(p, avail, length, 0x00, 0x00, 0xC4,
                         "inconsistent data while parsing binary data");
}

/// Container header (fixarray/fixmap and the 16 and 32-bit forms): header size, count in
/// `count`. The count is not compared with the bytes left here.
inline uint64_t decode_container_header(const uint8_t* p, uint64_t avail, uint64_t& count,
                                        uint8_t fix_base, uint8_t form16, const char* wrong_type) {
    if (avail == 0) fail(end_of_data);
    const uint8_t b = p[0];
    if ((b & 0xF0) == fix_base) {
        count = b & 0x0F;
        return 1;
    }
    if (b == form16) {
        if (avail < 3) fail(end_of_data);
        count = get_be16(p + 1);
        return 3;
    }
    if (b == uint8_t(form16 + 1)) {
        if (avail < 5) fail(end_of_data);
        count = get_be32(p + 1);
        return 5;
    }
    fail(wrong_type);
}

/// Bytes readable at the cursor; a cursor past its end has none.
inline uint64_t available(const ReadBuffer& in) {
    return in.position < in.size ? in.size - in.position : 0;
}

}  // namespace qor::serialization::msgpack::detail
