#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <qor/serialization/msgpack.hpp>
#include <rigid_body/layout.hpp>

namespace qor::sim {

// The component types this server simulates and the MessagePack layout of their data and
// per-step state: those of the sample plug-in's <rigid_body/layout.hpp>, which client
// plug-ins write and read, so they are a wire contract. The server reads them strictly.

using rigid_body::kBodyType;
using rigid_body::kGroundType;
using Vec3 = rigid_body::Vec3;
using Pose = rigid_body::Pose;
using GroundData = rigid_body::GroundData;
using BodyState = rigid_body::BodyState;

/// Collision shapes of a `Body`.
enum class Shape { box, sphere, capsule, mesh };

/// "box", "sphere", "capsule" or "mesh".
const char* shape_name(Shape shape);

/// Data of a `Body` (rigid_body::BodyData) with its shape understood. `size` holds the half
/// extents of a box, the radius of a sphere (x), the radius and cylinder height of a capsule
/// (x, y, along z), and the scale of a mesh. Mass 0 makes the body static.
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
/// Same into `out`, each component's data written by `write_data` (which must write exactly
/// one value): a record of changed data without a changed copy of every component.
void encode_scene(std::vector<uint8_t>& out, const std::vector<Component>& components,
                  const std::function<void(std::vector<uint8_t>&, const Component&)>& write_data);

void encode(std::vector<uint8_t>& out, const GroundData& value);
void encode(std::vector<uint8_t>& out, const BodyData& value);
void encode(std::vector<uint8_t>& out, const BodyState& value);
/// Reads a ground's data; integers are accepted where numbers are expected.
GroundData decode_ground(const std::vector<uint8_t>& data);
/// Reads a body's data; throws on an unknown shape, a negative mass or a bad size.
BodyData decode_body(const std::vector<uint8_t>& data);
/// Reads one body state from the cursor.
using rigid_body::read_state;

}  // namespace qor::sim
