#include <qor/sim/scene.hpp>

#include <cmath>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

namespace qor::sim {

namespace mp = serialization::msgpack;

namespace {

void expect_array(mp::ReadBuffer& in, uint64_t count, const char* what) {
    const uint64_t n = mp::read_array_header(in);
    if (n != count)
        throw std::runtime_error(fmt::format("{} must be an array of {}, got {}", what, count, n));
}

Vec3 read_vec3(mp::ReadBuffer& in, const char* what) {
    expect_array(in, 3, what);
    Vec3 v;
    v.x = mp::read_number(in);
    v.y = mp::read_number(in);
    v.z = mp::read_number(in);
    return v;
}

void pack_vec3(std::vector<uint8_t>& out, const Vec3& v) {
    mp::pack_array_header(out, 3);
    mp::pack(out, v.x);
    mp::pack(out, v.y);
    mp::pack(out, v.z);
}

bool finite(const Vec3& v) {
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

void check_finite(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(fmt::format("{} must be finite", what));
}

void check_consumed(const mp::ReadBuffer& in, const char* what) {
    if (in.remaining() != 0) throw std::runtime_error(fmt::format("trailing bytes after {}", what));
}

Shape parse_shape(const std::string& name) {
    if (name == "box") return Shape::box;
    if (name == "sphere") return Shape::sphere;
    if (name == "capsule") return Shape::capsule;
    if (name == "mesh") return Shape::mesh;
    throw std::runtime_error(fmt::format("unknown body shape '{}'", name));
}

}  // namespace

const char* shape_name(Shape shape) {
    switch (shape) {
        case Shape::box:
            return "box";
        case Shape::sphere:
            return "sphere";
        case Shape::capsule:
            return "capsule";
        case Shape::mesh:
            return "mesh";
    }
    return "box";
}

std::vector<Component> decode_scene(const uint8_t* bytes, uint64_t size) {
    mp::ReadBuffer in(bytes, size);
    const uint64_t count = mp::read_array_header(in);
    std::vector<Component> out;
    out.reserve(count);
    std::set<int64_t> seen;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t fields = mp::read_array_header(in);
        if (fields != 4)
            throw std::runtime_error(
                fmt::format("scene element {} must be an array of 4, got {}", i, fields));
        Component c;
        mp::read(in, c.type);
        long long id = 0;
        mp::read(in, id);
        c.id = id;
        mp::read(in, c.client_id);
        const uint64_t start = in.position;
        mp::skip(in);
        c.data.assign(in.data + start, in.current());
        if (!seen.insert(c.id).second)
            throw std::runtime_error(fmt::format("duplicate component id {}", c.id));
        out.push_back(std::move(c));
    }
    check_consumed(in, "the scene record");
    return out;
}

std::vector<uint8_t> encode_scene(const std::vector<Component>& components) {
    std::vector<uint8_t> out;
    mp::pack_array_header(out, components.size());
    for (const Component& c : components) {
        mp::pack_array_header(out, 4);
        mp::pack(out, c.type);
        mp::pack(out, static_cast<long long>(c.id));
        mp::pack(out, c.client_id);
        out.insert(out.end(), c.data.begin(), c.data.end());
    }
    return out;
}

void encode(std::vector<uint8_t>& out, const GroundData& value) {
    mp::pack_array_header(out, 4);
    pack_vec3(out, value.normal);
    mp::pack(out, value.offset);
    mp::pack(out, value.friction);
    mp::pack(out, value.restitution);
}

void encode(std::vector<uint8_t>& out, const BodyData& value) {
    mp::pack_array_header(out, 9);
    mp::pack(out, shape_name(value.shape));
    pack_vec3(out, value.size);
    mp::pack(out, static_cast<long long>(value.mesh_id));
    mp::pack(out, value.mass);
    mp::pack_array_header(out, 7);
    mp::pack(out, value.pose.position.x);
    mp::pack(out, value.pose.position.y);
    mp::pack(out, value.pose.position.z);
    mp::pack(out, value.pose.qw);
    mp::pack(out, value.pose.qx);
    mp::pack(out, value.pose.qy);
    mp::pack(out, value.pose.qz);
    pack_vec3(out, value.linear);
    pack_vec3(out, value.angular);
    mp::pack(out, value.friction);
    mp::pack(out, value.restitution);
}

void encode(std::vector<uint8_t>& out, const BodyState& value) {
    mp::pack_array_header(out, 4);
    pack_vec3(out, value.pose.position);
    mp::pack_array_header(out, 4);
    mp::pack(out, value.pose.qw);
    mp::pack(out, value.pose.qx);
    mp::pack(out, value.pose.qy);
    mp::pack(out, value.pose.qz);
    pack_vec3(out, value.linear);
    pack_vec3(out, value.angular);
}

GroundData decode_ground(const std::vector<uint8_t>& data) {
    mp::ReadBuffer in(data.data(), data.size());
    expect_array(in, 4, "Ground data");
    GroundData g;
    g.normal = read_vec3(in, "Ground normal");
    g.offset = mp::read_number(in);
    g.friction = mp::read_number(in);
    g.restitution = mp::read_number(in);
    check_consumed(in, "Ground data");
    check_finite(finite(g.normal) && std::isfinite(g.offset) && std::isfinite(g.friction) &&
                     std::isfinite(g.restitution),
                 "Ground data");
    const double len =
        std::sqrt(g.normal.x * g.normal.x + g.normal.y * g.normal.y + g.normal.z * g.normal.z);
    if (len < 1e-9) throw std::runtime_error("Ground normal must not be zero");
    g.normal = {g.normal.x / len, g.normal.y / len, g.normal.z / len};
    return g;
}

BodyData decode_body(const std::vector<uint8_t>& data) {
    mp::ReadBuffer in(data.data(), data.size());
    expect_array(in, 9, "Body data");
    BodyData b;
    std::string shape;
    mp::read(in, shape);
    b.shape = parse_shape(shape);
    b.size = read_vec3(in, "Body size");
    long long mesh = 0;
    mp::read(in, mesh);
    b.mesh_id = mesh;
    b.mass = mp::read_number(in);
    expect_array(in, 7, "Body pose");
    b.pose.position.x = mp::read_number(in);
    b.pose.position.y = mp::read_number(in);
    b.pose.position.z = mp::read_number(in);
    b.pose.qw = mp::read_number(in);
    b.pose.qx = mp::read_number(in);
    b.pose.qy = mp::read_number(in);
    b.pose.qz = mp::read_number(in);
    b.linear = read_vec3(in, "Body linear velocity");
    b.angular = read_vec3(in, "Body angular velocity");
    b.friction = mp::read_number(in);
    b.restitution = mp::read_number(in);
    check_consumed(in, "Body data");

    check_finite(finite(b.size) && finite(b.pose.position) && finite(b.linear) &&
                     finite(b.angular) && std::isfinite(b.mass) && std::isfinite(b.friction) &&
                     std::isfinite(b.restitution) && std::isfinite(b.pose.qw) &&
                     std::isfinite(b.pose.qx) && std::isfinite(b.pose.qy) &&
                     std::isfinite(b.pose.qz),
                 "Body data");
    if (b.mass < 0) throw std::runtime_error("Body mass must not be negative");
    const bool size_ok = b.shape == Shape::sphere    ? b.size.x > 0
                         : b.shape == Shape::capsule ? b.size.x > 0 && b.size.y >= 0
                                                     : b.size.x > 0 && b.size.y > 0 && b.size.z > 0;
    if (!size_ok) throw std::runtime_error("Body size must be positive");
    if (b.shape == Shape::mesh && b.mesh_id <= 0)
        throw std::runtime_error("a mesh Body needs the id of a triangle mesh");
    const double qn = std::sqrt(b.pose.qw * b.pose.qw + b.pose.qx * b.pose.qx +
                                b.pose.qy * b.pose.qy + b.pose.qz * b.pose.qz);
    if (qn < 1e-9) throw std::runtime_error("Body rotation must not be a zero quaternion");
    b.pose.qw /= qn;
    b.pose.qx /= qn;
    b.pose.qy /= qn;
    b.pose.qz /= qn;
    return b;
}

BodyState read_state(mp::ReadBuffer& in) {
    expect_array(in, 4, "Body state");
    BodyState s;
    s.pose.position = read_vec3(in, "Body state position");
    expect_array(in, 4, "Body state rotation");
    s.pose.qw = mp::read_number(in);
    s.pose.qx = mp::read_number(in);
    s.pose.qy = mp::read_number(in);
    s.pose.qz = mp::read_number(in);
    s.linear = read_vec3(in, "Body state linear velocity");
    s.angular = read_vec3(in, "Body state angular velocity");
    return s;
}

}  // namespace qor::sim
