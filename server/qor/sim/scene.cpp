#include <qor/sim/scene.hpp>

#include <cmath>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

namespace qor::sim {

namespace mp = serialization::msgpack;

namespace {

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
        if (c.type.empty())
            throw std::runtime_error(fmt::format("scene element {} has an empty type", i));
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
    encode_scene(out, components, [](std::vector<uint8_t>& to, const Component& c) {
        to.insert(to.end(), c.data.begin(), c.data.end());
    });
    return out;
}

void encode_scene(std::vector<uint8_t>& out, const std::vector<Component>& components,
                  const std::function<void(std::vector<uint8_t>&, const Component&)>& write_data) {
    size_t estimate = 5;
    for (const Component& c : components) estimate += 32 + c.type.size() + c.data.size();
    out.reserve(out.size() + estimate);
    mp::pack_array_header(out, components.size());
    for (const Component& c : components) {
        mp::pack_array_header(out, 4);
        mp::pack(out, c.type);
        mp::pack(out, static_cast<long long>(c.id));
        mp::pack(out, c.client_id);
        write_data(out, c);
    }
}

void encode(std::vector<uint8_t>& out, const GroundData& value) {
    rigid_body::write(out, value);
}

void encode(std::vector<uint8_t>& out, const BodyData& value) {
    rigid_body::write(out, rigid_body::BodyData{shape_name(value.shape), value.size, value.mesh_id,
                                                value.mass, value.pose, value.linear, value.angular,
                                                value.friction, value.restitution});
}

void encode(std::vector<uint8_t>& out, const BodyState& value) {
    rigid_body::write(out, value);
}

GroundData decode_ground(const std::vector<uint8_t>& data) {
    mp::ReadBuffer in(data.data(), data.size());
    GroundData g = rigid_body::read_ground(in);
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
    rigid_body::BodyData wire = rigid_body::read_body(in);
    BodyData b{parse_shape(wire.shape),
               wire.size,
               wire.mesh_id,
               wire.mass,
               wire.pose,
               wire.linear,
               wire.angular,
               wire.friction,
               wire.restitution};
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

}  // namespace qor::sim
