#include <qor/serialization/msgpack/read.hpp>

#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <qor/serialization/msgpack/detail/decode.hpp>

namespace qor::serialization::msgpack {

namespace detail {

void fail(const char* text) {
    throw std::runtime_error(text);
}

}  // namespace detail

namespace {

using detail::available;
using detail::end_of_data;
using detail::fail;

// The next byte to read, or the start of the block when the cursor has run past its end
// (`available` is then 0 and no decoder dereferences it).
const uint8_t* next(const ReadBuffer& in) {
    return in.position <= in.size ? in.data + in.position : in.data;
}

uint64_t read_integer(ReadBuffer& in) {
    uint64_t bits;
    in.position += detail::decode_integer(next(in), available(in), bits);
    return bits;
}

double read_floating(ReadBuffer& in, const char* wrong_type) {
    double value;
    in.position += detail::decode_floating(next(in), available(in), value, wrong_type);
    return value;
}

// Reads a container header and refuses a count whose elements, at `min_element_bytes` each,
// cannot fit in what is left: a hostile five-byte input must not make a caller resize a
// vector to four billion elements. With 0 the count is not compared with the bytes left.
uint64_t read_container_header(ReadBuffer& in, uint8_t fix_base, uint8_t form16,
                               uint64_t min_element_bytes, const char* wrong_type) {
    const uint64_t avail = available(in);
    uint64_t count;
    const uint64_t header =
        detail::decode_container_header(next(in), avail, count, fix_base, form16, wrong_type);
    if (min_element_bytes != 0 && count > (avail - header) / min_element_bytes) fail(end_of_data);
    in.position += header;
    return count;
}

// Decodes `count` values into consecutive elements with the cursor kept in locals; on an
// error the cursor is left at the failing value, as the one-value readers leave it.
template <class T, class Decode>
void read_run(ReadBuffer& in, T* values, uint64_t count, Decode decode) {
    const uint8_t* const data = in.data;
    const uint64_t size = in.size;
    uint64_t position = in.position;
    try {
        for (uint64_t i = 0; i < count; ++i) {
            const uint64_t avail = position < size ? size - position : 0;
            position += decode(avail == 0 ? data : data + position, avail, values[i]);
        }
    } catch (...) {
        in.position = position;
        throw;
    }
    in.position = position;
}

template <class T>
void read_integers(ReadBuffer& in, T* values, uint64_t count) {
    read_run(in, values, count, [](const uint8_t* p, uint64_t avail, T& value) {
        uint64_t bits;
        const uint64_t used = detail::decode_integer(p, avail, bits);
        value = static_cast<T>(bits);  // two's complement: the low bits for the narrow targets
        return used;
    });
}

template <class T>
void read_floats(ReadBuffer& in, T* values, uint64_t count, const char* wrong_type) {
    read_run(in, values, count, [wrong_type](const uint8_t* p, uint64_t avail, T& value) {
        double wide;
        const uint64_t used = detail::decode_floating(p, avail, wide, wrong_type);
        value = static_cast<T>(wide);
        return used;
    });
}

[[noreturn]] void throw_count(const char* what, uint64_t in_message, uint64_t expected,
                              const char* container) {
    std::ostringstream text;
    text << "reading " << what << " : wrong number of fields. " << in_message
         << " fields in message, " << expected << " in " << container;
    throw std::runtime_error(text.str());
}

}  // namespace

ReadBuffer::ReadBuffer(const buffer& block) : data(block.data), size(block.size), position(0) {}

ReadBuffer::ReadBuffer(const uint8_t* bytes, uint64_t count)
    : data(bytes), size(count), position(0) {}

uint64_t read_array_header(ReadBuffer& in) {
    return read_container_header(in, 0x90, 0xDC, 1, "inconsistent data while parsing array");
}

uint64_t read_fields_header(ReadBuffer& in) {
    // Every element takes at least one byte, but the count is the caller's to judge first.
    return read_container_header(in, 0x90, 0xDC, 0, "inconsistent data while parsing array");
}

uint64_t read_map_header(ReadBuffer& in) {
    return read_container_header(in, 0x80, 0xDE, 2, "inconsistent data while parsing map");
}

void read(ReadBuffer& in, long& value) {
    value = static_cast<long>(read_integer(in));
}

void read(ReadBuffer& in, long long& value) {
    value = static_cast<long long>(read_integer(in));
}

void read(ReadBuffer& in, int& value) {
    value = int(int32_t(uint32_t(read_integer(in))));
}

void read(ReadBuffer& in, uint32_t& value) {
    value = uint32_t(read_integer(in));
}

void read(ReadBuffer& in, unsigned long& value) {
    value = static_cast<unsigned long>(read_integer(in));
}

void read(ReadBuffer& in, unsigned long long& value) {
    value = read_integer(in);
}

void read(ReadBuffer& in, float& value) {
    value = static_cast<float>(read_floating(in, "expected float value"));
}

void read(ReadBuffer& in, double& value) {
    value = read_floating(in, "expected double value");
}

double read_number(ReadBuffer& in) {
    if (available(in) == 0) fail(end_of_data);
    const uint8_t type = in.data[in.position];
    if (type == 0xCA || type == 0xCB) return read_floating(in, "expected double value");
    long long whole = 0;
    read(in, whole);
    return static_cast<double>(whole);
}

void read(ReadBuffer& in, bool& value) {
    if (available(in) == 0) fail(end_of_data);
    value = in.data[in.position] == 0xC3;
    ++in.position;
}

void read(ReadBuffer& in, std::string& value) {
    uint64_t length;
    const uint8_t* p = next(in);
    const uint64_t header = detail::decode_str_header(p, available(in), length);
    value.assign(reinterpret_cast<const char*>(p + header), length);
    in.position += header + length;
}

void read(ReadBuffer& in, buffer& value) {
    uint64_t length;
    const uint8_t* p = next(in);
    const uint64_t header = detail::decode_bin_header(p, available(in), length);
    value = buffer(p + header, length);
    in.position += header + length;
}

void read(ReadBuffer& in, std::vector<bool>& values) {
    const uint64_t count = read_array_header(in);
    values.resize(count);
    // The header check guarantees one byte per element.
    const uint8_t* p = in.data + in.position;
    for (uint64_t i = 0; i < count; ++i) values[i] = p[i] == 0xC3;
    in.position += count;
}

void read_values(ReadBuffer& in, int* values, uint64_t count) {
    read_integers(in, values, count);
}

void read_values(ReadBuffer& in, long* values, uint64_t count) {
    read_integers(in, values, count);
}

void read_values(ReadBuffer& in, long long* values, uint64_t count) {
    read_integers(in, values, count);
}

void read_values(ReadBuffer& in, unsigned long* values, uint64_t count) {
    read_integers(in, values, count);
}

void read_values(ReadBuffer& in, unsigned long long* values, uint64_t count) {
    read_integers(in, values, count);
}

void read_values(ReadBuffer& in, uint32_t* values, uint64_t count) {
    read_integers(in, values, count);
}

void read_values(ReadBuffer& in, float* values, uint64_t count) {
    read_floats(in, values, count, "expected float value");
}

void read_values(ReadBuffer& in, double* values, uint64_t count) {
    read_floats(in, values, count, "expected double value");
}

namespace {

// Bytes of a value that is one fixed-size scalar (a fixint, nil, a boolean, a float, a sized
// integer), by its type byte; 0 for every other form.
constexpr uint8_t scalar_size(uint8_t b) {
    if (b <= 0x7F || b >= 0xE0) return 1;
    if (b == 0xC0 || b == 0xC2 || b == 0xC3) return 1;
    if (b == 0xCA) return 5;
    if (b == 0xCB) return 9;
    if (b >= 0xCC && b <= 0xD3) return uint8_t(1 + (1 << ((b - 0xCC) & 3)));
    return 0;
}

// Records of `size` bytes (at least 8) whose type bytes all match the first's, counted from
// `p` with whole-word compares: `off`, `pattern` and `mask` give `Words` 8-byte windows inside a
// record, each masked to the type bytes it holds. Every load stays inside the `most` records,
// which the caller has bounded by the bytes present.
template <unsigned Words>
uint64_t matching_records(const uint8_t* p, uint64_t most, uint64_t size, const uint8_t* off,
                          const uint64_t* pattern, const uint64_t* mask) {
    const auto differs = [&](const uint8_t* r) {
        uint64_t diff = 0;
        for (unsigned k = 0; k < Words; ++k) {
            uint64_t word;
            std::memcpy(&word, r + off[k], 8);
            diff |= (word ^ pattern[k]) & mask[k];
        }
        return diff;
    };
    uint64_t count = 0;
    // Four records a test: within a run they almost always match, so one branch serves four.
    while (most - count >= 4) {
        const uint8_t* r = p + count * size;
        if (differs(r) | differs(r + size) | differs(r + 2 * size) | differs(r + 3 * size)) break;
        count += 4;
    }
    while (count < most && differs(p + count * size) == 0) ++count;
    return count;
}

// The number of consecutive fixarray records at `p` of the same form as the first: a header
// of n fields, each a scalar of one type byte and size. Arrays of such records (vertices,
// index triples, poses) are the bulk of large messages; checking a record's type bytes with
// a few word compares instead of walking it value by value keeps skipping at memory speed.
// Reads only within `avail` bytes and at most `most` records.
uint64_t same_records(const uint8_t* p, uint64_t avail, uint64_t most, uint64_t& record_bytes) {
    const uint8_t header = p[0];
    const unsigned fields = header & 0x0F;
    if ((header & 0xF0) != 0x90 || fields == 0 || avail < 2) return 0;
    const uint8_t type = p[1];
    const uint64_t each = scalar_size(type);
    if (each == 0) return 0;
    const uint64_t size = 1 + fields * each;
    if (avail / size < most) most = avail / size;
    uint64_t count = 0;
    // The windows a record's type bytes fall in, each kept inside the record.
    uint8_t off[16];
    uint64_t pattern[16] = {};
    uint64_t mask[16] = {};
    unsigned words = 0;
    if (size >= 8) {
        for (unsigned f = 0; f <= fields; ++f) {
            const uint64_t at = f == 0 ? 0 : 1 + (f - 1) * each;
            uint64_t window = at & ~uint64_t(7);
            if (window + 8 > size) window = size - 8;
            if (words == 0 || off[words - 1] != window) off[words++] = uint8_t(window);
            const unsigned shift = unsigned(at - window) * 8;
            pattern[words - 1] |= uint64_t(f == 0 ? header : type) << shift;
            mask[words - 1] |= uint64_t(0xFF) << shift;
        }
    }
    using Matching = uint64_t (*)(const uint8_t*, uint64_t, uint64_t, const uint8_t*,
                                  const uint64_t*, const uint64_t*);
    static constexpr Matching by_words[] = {nullptr, matching_records<1>, matching_records<2>,
                                            matching_records<3>, matching_records<4>};
    if (size >= 8 && words < std::size(by_words)) {
        count = by_words[words](p, most, size, off, pattern, mask);
    } else {
        // Short records, or long ones with many fields: byte by byte.
        for (const uint8_t* r = p; count < most; r += size, ++count) {
            bool same = r[0] == header;
            for (unsigned f = 0; f < fields; ++f) same &= r[1 + f * each] == type;
            if (!same) break;
        }
    }
    record_bytes = count * size;
    return count;
}

}  // namespace

uint64_t skip(ReadBuffer& in) {
    const uint64_t avail = available(in);
    const uint8_t* p = next(in);
    // Values still to walk. Containers add their elements here instead of recursing, so
    // nesting depth costs no stack; each pending value needs at least one byte, which bounds
    // the loop by the bytes present whatever the headers claim.
    uint64_t pending = 1;
    uint64_t at = 0;
    while (pending != 0) {
        if (at >= avail) fail(end_of_data);
        const uint8_t b = p[at];
        uint64_t run_bytes = 0;
        if (const uint64_t run = same_records(p + at, avail - at, pending, run_bytes)) {
            // Each record is one pending value with no children left behind it; the count
            // check below is the strictest of those the value-by-value walk would make.
            at += run_bytes;
            pending -= run;
            if (pending > avail - at) fail(end_of_data);
            continue;
        }
        const uint64_t left = avail - at;
        uint64_t header = 1;
        uint64_t payload = 0;
        uint64_t children = 0;
        if (b <= 0x7F || b >= 0xE0) {
            // positive and negative fixint
        } else if (b <= 0x8F) {
            children = 2 * uint64_t(b & 0x0F);
        } else if (b <= 0x9F) {
            children = b & 0x0F;
        } else if (b <= 0xBF) {
            payload = b & 0x1F;
        } else {
            // Sizes of the forms 0xC0..0xDF: header bytes (type, length, ext type, fixed
            // value), and how the length field counts: 0 none, 1 payload bytes, 2 elements,
            // 3 key/value pairs.
            struct Form {
                uint8_t header;
                uint8_t length_bytes;
                uint8_t length_kind;
            };
            static constexpr Form forms[32] = {
                {1, 0, 0},  {0, 0, 0}, {1, 0, 0}, {1, 0, 0},   // nil, (unused), false, true
                {2, 1, 1},  {3, 2, 1}, {5, 4, 1},              // bin 8/16/32
                {3, 1, 1},  {4, 2, 1}, {6, 4, 1},              // ext 8/16/32
                {5, 0, 0},  {9, 0, 0},                         // float 32/64
                {2, 0, 0},  {3, 0, 0}, {5, 0, 0}, {9, 0, 0},   // uint 8..64
                {2, 0, 0},  {3, 0, 0}, {5, 0, 0}, {9, 0, 0},   // int 8..64
                {3, 0, 0},  {4, 0, 0}, {6, 0, 0}, {10, 0, 0},  // fixext 1/2/4/8
                {18, 0, 0},                                    // fixext 16
                {2, 1, 1},  {3, 2, 1}, {5, 4, 1},              // str 8/16/32
                {3, 2, 2},  {5, 4, 2},                         // array 16/32
                {3, 2, 3},  {5, 4, 3},                         // map 16/32
            };
            const Form form = forms[b - 0xC0];
            // 0xC1 is reserved by the format and never written by any encoder: treat it as
            // corruption rather than guess a size for it.
            if (form.header == 0) fail("invalid type byte 0xC1");
            header = form.header;
            if (left < header) fail(end_of_data);
            uint64_t length = 0;
            switch (form.length_bytes) {
                case 1:
                    length = p[at + 1];
                    break;
                case 2:
                    length = get_be16(p + at + 1);
                    break;
                case 4:
                    length = get_be32(p + at + 1);
                    break;
                default:
                    break;
            }
            if (form.length_kind == 1) payload = length;
            if (form.length_kind == 2) children = length;
            if (form.length_kind == 3) children = 2 * length;
        }
        if (left < header || left - header < payload) fail(end_of_data);
        at += header + payload;
        pending = pending - 1 + children;
        if (pending > avail - at) fail(end_of_data);
    }
    in.position += at;
    return at;
}

void throw_struct_count(uint64_t in_message, uint64_t in_struct) {
    throw_count("struct", in_message, in_struct, "struct");
}

void throw_tuple_count(uint64_t in_message, uint64_t in_struct) {
    throw_count("tuple", in_message, in_struct, "tuple");
}

}  // namespace qor::serialization::msgpack
