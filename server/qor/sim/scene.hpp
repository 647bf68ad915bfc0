#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qor/serialization/msgpack.hpp>

namespace qor::sim {

// The component types this server simulates and the MessagePack layout of their data and
// per-step state. Client plug-ins write and read exactly these layouts, so they are a wire
// contract: every number is a float 64, every group a fixed-length array. The world is
// z-up, lengths in metres, masses in kilograms, angles in radians.

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

/// Collision shapes of a `Body`.
enum class Shape { box, sphere, capsule, mesh };

/// "box", "sphere", "capsule" or "mesh".
const char* shape_name(Shape shape);

/// Data of a `Ground`: [[nx, ny, nz], offset, friction, restitution].
struct GroundData {
    Vec3 normal{0, 0, 1};
    double offset = 0;
    double friction = 0.8;
    double restitution = 0.2;
};

/// Data of a `Body`: [shape, [sx, sy, sz], mesh id, mass, [x, y, z, qw, qx, qy, qz],
/// [vx, vy, vz], [wx, wy, wz], friction, restitution]. `size` holds the half extents of a
/// box, the radius of a sphere (x), the radius and cylinder height of a capsule (x, y, along
/// z), and the scale of a mesh. Mass 0 makes the body static.
struct BodyData {
    Shape shape = Shape::box;
    Vec3 size{0.5, 0.5, 0.5};
    int64_t mesh_id = 0;
    double mass = 1;
    Pose pose;
    Vec3 linear;
    Vec3 angular;
    double friction = 0.6;
    double restitution = 0.1;
};

/// Per-step state of a `Body`: [[x, y, z], [qw, qx, qy, qz], [vx, vy, vz], [wx, wy, wz]].
struct BodyState {
    Pose pose;
    Vec3 linear;
    Vec3 angular;
};

/// One element of a scene record: type, id, client id and the encoded data value.
struct Component {
    std::string type;
    int64_t id = 0;
    int client_id = 0;
    std::vector<uint8_t> data;  ///< exactly one MessagePack value
};

/// Decodes a scene record; throws std::runtime_error naming what is wrong.
std::vector<Component> decode_scene(const uint8_t* bytes, uint64_t size);
/// Encodes components (already in the order wanted) as a scene record.
std::vector<uint8_t> encode_scene(const std::vector<Component>& components);

void encode(std::vector<uint8_t>& out, const GroundData& value);
void encode(std::vector<uint8_t>& out, const BodyData& value);
void encode(std::vector<uint8_t>& out, const BodyState& value);
/// Reads a ground's data; integers are accepted where numbers are expected.
GroundData decode_ground(const std::vector<uint8_t>& data);
/// Reads a body's data; throws on an unknown shape, a negative mass or a bad size.
BodyData decode_body(const std::vector<uint8_t>& data);
/// Reads one body state from the cursor.
BodyState read_state(serialization::msgpack::ReadBuffer& in);

}  // namespace qor::sim
