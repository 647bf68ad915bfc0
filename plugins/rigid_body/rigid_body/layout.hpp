#pragma once

// The MessagePack layouts of the rigid-body component types, written once for both ends: the
// plug-in's components and the reference server read and write exactly these. Every number
// is a float 64 and every group a fixed-length array; reading accepts integers where numbers
// are expected. The world is z-up, lengths in metres, masses in kilograms, angles in radians.
// Codec only: no client, no server, so either side can include it.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <qor/serialization/msgpack.hpp>

namespace rigid_body {

/// Type name of the static ground plane.
inline constexpr const char* kGroundType = "Ground";
/// Type name of a rigid body (box, sphere, capsule or triangle mesh).
inline constexpr const char* kBodyType = "Body";

/// A 3-vector.
struct Vec3 {
    double x = 0, y = 0, z = 0;
};

/// Position and rotation (unit quaternion, scalar first).
struct Pose {
    Vec3 position;
    double qw = 1, qx = 0, qy = 0, qz = 0;
};

/// Data of a `Ground`: [[nx, ny, nz], offset, friction, restitution].
struct GroundData {
    Vec3 normal{0, 0, 1};      ///< points out of the solid side
    double offset = 0;         ///< distance of the plane from the origin along `normal`
    double friction = 0.8;     ///< Coulomb friction coefficient
    double restitution = 0.2;  ///< bounciness, 0 to 1
};

/// Data of a `Body`: [shape, [sx, sy, sz], mesh id, mass, [x, y, z, qw, qx, qy, qz],
/// [vx, vy, vz], [wx, wy, wz], friction, restitution].
struct BodyData {
    /// "box" (size = half extents), "sphere" (size.x = radius), "capsule" (size.x = radius,
    /// size.y = cylinder height, along z) or "mesh" (size = scale of mesh `mesh_id`).
    std::string shape = "box";
    Vec3 size{0.5, 0.5, 0.5};
    int64_t mesh_id = 0;  ///< a mesh made with CREATE_TRIMESH, for shape "mesh"
    double mass = 1;      ///< kilograms; 0 makes the body static
    Pose pose;
    Vec3 linear;   ///< m/s
    Vec3 angular;  ///< rad/s
    double friction = 0.6;
    double restitution = 0.1;
};

/// Per-step state of a `Body`: [[x, y, z], [qw, qx, qy, qz], [vx, vy, vz], [wx, wy, wz]].
struct BodyState {
    Pose pose;
    Vec3 linear;   ///< m/s
    Vec3 angular;  ///< rad/s
};
/// Where the position and the rotation sit in a body's per-step state, for readers that pick
/// the pose out of a published state without decoding the rest (the server's viewer).
inline constexpr int kBodyStatePosition = 0;
inline constexpr int kBodyStateRotation = 1;

namespace detail {

namespace mp = qor::serialization::msgpack;

/// Reads an array header of exactly `count` elements; else throws std::runtime_error
/// "<what> must be an array of <count>, got <n>".
inline void expect_array(mp::ReadBuffer& in, uint64_t count, const char* what) {
    const uint64_t n = mp::read_array_header(in);
    if (n != count)
        throw std::runtime_error(std::string(what) + " must be an array of " +
                                 std::to_string(count) + ", got " + std::to_string(n));
}

inline Vec3 read_vec3(mp::ReadBuffer& in, const char* what) {
    expect_array(in, 3, what);
    Vec3 v;
    v.x = mp::read_number(in);
    v.y = mp::read_number(in);
    v.z = mp::read_number(in);
    return v;
}

inline void write_vec3(std::vector<uint8_t>& out, const Vec3& v) {
    mp::pack_array_header(out, 3);
    for (double d : {v.x, v.y, v.z}) mp::pack(out, d);
}

// The rotation alone, [qw, qx, qy, qz]: a body state carries it as its own array, a body's
// data after the position in one array of 7.
inline void write_rotation(std::vector<uint8_t>& out, const Pose& p) {
    for (double d : {p.qw, p.qx, p.qy, p.qz}) mp::pack(out, d);
}

inline void read_rotation(mp::ReadBuffer& in, Pose& p) {
    for (double* d : {&p.qw, &p.qx, &p.qy, &p.qz}) *d = mp::read_number(in);
}

}  // namespace detail

inline void write(std::vector<uint8_t>& out, const GroundData& value) {
    namespace mp = qor::serialization::msgpack;
    mp::pack_array_header(out, 4);
    detail::write_vec3(out, value.normal);
    mp::pack(out, value.offset);
    mp::pack(out, value.friction);
    mp::pack(out, value.restitution);
}

inline void write(std::vector<uint8_t>& out, const BodyData& value) {
    namespace mp = qor::serialization::msgpack;
    mp::pack_array_header(out, 9);
    mp::pack(out, value.shape);
    detail::write_vec3(out, value.size);
    mp::pack(out, static_cast<long long>(value.mesh_id));
    mp::pack(out, value.mass);
    mp::pack_array_header(out, 7);
    const Vec3& at = value.pose.position;
    for (double d : {at.x, at.y, at.z}) mp::pack(out, d);
    detail::write_rotation(out, value.pose);
    detail::write_vec3(out, value.linear);
    detail::write_vec3(out, value.angular);
    mp::pack(out, value.friction);
    mp::pack(out, value.restitution);
}

/// Bytes of every body state: its groups are fixed arrays of float 64 values.
inline constexpr uint64_t kBodyStateSize =
    1 + 3 * qor::serialization::msgpack::float64_record_size(3) +
    qor::serialization::msgpack::float64_record_size(4);

/// Writes a body state at `p`, which has room for `kBodyStateSize` bytes; returns the pointer
/// past it. A server writes one per body and step, so the whole map grows its target once.
inline uint8_t* put_state(uint8_t* p, const BodyState& value) {
    namespace mp = qor::serialization::msgpack;
    const Pose& at = value.pose;
    p = mp::put_fixarray(p, 4);
    p = mp::put_float64_record(p, at.position.x, at.position.y, at.position.z);
    p = mp::put_float64_record(p, at.qw, at.qx, at.qy, at.qz);
    p = mp::put_float64_record(p, value.linear.x, value.linear.y, value.linear.z);
    return mp::put_float64_record(p, value.angular.x, value.angular.y, value.angular.z);
}

inline void write(std::vector<uint8_t>& out, const BodyState& value) {
    const uint64_t at = qor::serialization::msgpack::grow_tail(out, kBodyStateSize);
    put_state(out.data() + at, value);  // after growing, which may move the storage
}

/// Reads a ground's data; throws std::runtime_error on a different layout.
inline GroundData read_ground(qor::serialization::msgpack::ReadBuffer& in) {
    namespace mp = qor::serialization::msgpack;
    detail::expect_array(in, 4, "Ground data");
    GroundData g;
    g.normal = detail::read_vec3(in, "Ground normal");
    g.offset = mp::read_number(in);
    g.friction = mp::read_number(in);
    g.restitution = mp::read_number(in);
    return g;
}

/// Reads a body's data; throws std::runtime_error on a different layout. The values are not
/// checked: the shape may be unknown, the mass negative.
inline BodyData read_body(qor::serialization::msgpack::ReadBuffer& in) {
    namespace mp = qor::serialization::msgpack;
    detail::expect_array(in, 9, "Body data");
    BodyData b;
    mp::read(in, b.shape);
    b.size = detail::read_vec3(in, "Body size");
    long long mesh = 0;
    mp::read(in, mesh);
    b.mesh_id = mesh;
    b.mass = mp::read_number(in);
    detail::expect_array(in, 7, "Body pose");
    Vec3& at = b.pose.position;
    for (double* d : {&at.x, &at.y, &at.z}) *d = mp::read_number(in);
    detail::read_rotation(in, b.pose);
    b.linear = detail::read_vec3(in, "Body linear velocity");
    b.angular = detail::read_vec3(in, "Body angular velocity");
    b.friction = mp::read_number(in);
    b.restitution = mp::read_number(in);
    return b;
}

/// Reads one body state; throws std::runtime_error on a different layout.
inline BodyState read_state(qor::serialization::msgpack::ReadBuffer& in) {
    detail::expect_array(in, 4, "Body state");
    BodyState s;
    s.pose.position = detail::read_vec3(in, "Body state position");
    detail::expect_array(in, 4, "Body state rotation");
    detail::read_rotation(in, s.pose);
    s.linear = detail::read_vec3(in, "Body state linear velocity");
    s.angular = detail::read_vec3(in, "Body state angular velocity");
    return s;
}

}  // namespace rigid_body
