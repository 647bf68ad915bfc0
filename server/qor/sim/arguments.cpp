#include <qor/sim/arguments.hpp>

#include <climits>
#include <cmath>

#include <fmt/format.h>

#include <qor/serialization/msgpack/detail/decode.hpp>

namespace qor::sim {

namespace mp = serialization::msgpack;

namespace {

uint8_t peek(const mp::ReadBuffer& in) {
    if (in.remaining() == 0) throw std::runtime_error("unexpected end of data");
    return *in.current();
}

bool is_integer_byte(uint8_t b) {
    return b <= 0x7f || b >= 0xe0 || (b >= 0xcc && b <= 0xd3);
}

}  // namespace

void read_arg(mp::ReadBuffer& in, bool& value) {
    const uint8_t b = peek(in);
    if (b != 0xc2 && b != 0xc3) throw std::runtime_error("not a boolean");
    mp::read(in, value);
}

void read_arg(mp::ReadBuffer& in, int& value) {
    if (!is_integer_byte(peek(in))) throw std::runtime_error("not an integer");
    long long wide = 0;
    mp::read(in, wide);
    if (wide < INT32_MIN || wide > INT32_MAX) throw std::runtime_error("out of the 32-bit range");
    value = static_cast<int>(wide);
}

void read_arg(mp::ReadBuffer& in, long long& value) {
    if (!is_integer_byte(peek(in))) throw std::runtime_error("not an integer");
    mp::read(in, value);
}

void read_arg(mp::ReadBuffer& in, double& value) {
    const uint8_t b = peek(in);
    if (b != 0xca && b != 0xcb && !is_integer_byte(b)) throw std::runtime_error("not a number");
    value = mp::read_number(in);
}

void read_arg(mp::ReadBuffer& in, dax::types::mesh_batch_t& value) {
    const uint64_t fields = mp::read_fields_header(in);
    if (fields != 3) mp::throw_struct_count(fields, 3);
    const uint64_t count = mp::read_array_header(in);
    // A vertex takes at least four bytes (three fixints): a count its bytes cannot hold must
    // not size the list.
    if (count > in.remaining() / 4) throw std::runtime_error("unexpected end of data");
    value.vertices.resize(count);
    for (dax::types::vec3d_t& v : value.vertices) {
        const uint64_t n = mp::read_fields_header(in);
        if (n != 3) mp::throw_struct_count(n, 3);
        v.x = mp::read_number(in);
        v.y = mp::read_number(in);
        v.z = mp::read_number(in);
    }
    dax::types::read(in, value.pairs);
    dax::types::read(in, value.triangles);
}

void read_arg(mp::ReadBuffer& in, std::string& value) {
    mp::read(in, value);
}

void read_arg(mp::ReadBuffer& in, mp::buffer& value) {
    mp::read(in, value);
}

void read_arg(mp::ReadBuffer& in, BinaryView& value) {
    // The checks and texts of reading into a block, without the copy.
    const uint64_t avail = in.remaining();
    uint64_t length = 0;
    const uint64_t header =
        mp::detail::decode_bin_header(avail ? in.current() : nullptr, avail, length);
    value.data = in.current() + header;
    value.size = length;
    in.position += header + length;
}

double check_period(double ms) {
    if (!std::isfinite(ms) || ms < 1 || ms > 60000)
        throw std::invalid_argument(fmt::format("period {} ms is outside 1..60000", ms));
    return ms;
}

}  // namespace qor::sim
