#pragma once

// Client-side components of the reference server's rigid-body types. A program that handles
// them by their classes includes this header; it finds the objects through DaxClient::Create
// and getComponent, checks getType(), and casts. The code lives in the plug-in.

#include <cstdint>
#include <string>
#include <vector>

#include <dax/client/client_component.hpp>

namespace rigid_body {

/// A 3-vector.
struct Vec3 {
    double x = 0, y = 0, z = 0;
};

/// Position and rotation (unit quaternion, scalar first).
struct Pose {
    Vec3 position;
    double qw = 1, qx = 0, qy = 0, qz = 0;
};

/// A static plane; the server's "Ground".
class Ground : public dax::client::IClientComponent {
  public:
    static constexpr const char* kType = "Ground";
    Ground(int64_t id, dax::client::DaxClient* client) : IClientComponent(id, client) {}

    Vec3 normal{0, 0, 1};      ///< points out of the solid side
    double offset = 0;         ///< distance of the plane from the origin along `normal`
    double friction = 0.8;     ///< Coulomb friction coefficient
    double restitution = 0.2;  ///< bounciness, 0 to 1

    std::string getType() override;
    void extension1() override;
    void extension2() override;
    void serialize(std::vector<uint8_t>& out) override;
    void deserialize(qor::serialization::msgpack::ReadBuffer& in) override;
    void onSceneLoaded() override;
};

/// A rigid body; the server's "Body". Fill its description, send the scene, then read
/// `state` as the server's updates arrive.
class Body : public dax::client::IClientComponent {
  public:
    static constexpr const char* kType = "Body";
    Body(int64_t id, dax::client::DaxClient* client) : IClientComponent(id, client) {}

    /// "box" (size = half extents), "sphere" (size.x = radius), "capsule" (size.x = radius,
    /// size.y = cylinder height, along z) or "mesh" (size = scale of mesh `mesh_id`).
    std::string shape = "box";
    Vec3 size{0.5, 0.5, 0.5};
    int64_t mesh_id = 0;  ///< a mesh made with CREATE_TRIMESH, for shape "mesh"
    double mass = 1;      ///< kilograms; 0 makes the body static
    double friction = 0.6;
    double restitution = 0.1;

    /// Starting pose and velocities when sent; the latest state from the server afterwards.
    struct State {
        Pose pose;
        Vec3 linear;   ///< m/s
        Vec3 angular;  ///< rad/s
    } state;
    int updates = 0;      ///< states applied since creation
    bool loaded = false;  ///< set when a whole scene from the server has arrived

    std::string getType() override;
    void update_state(qor::serialization::msgpack::ReadBuffer& in) override;
    void extension1() override;
    void extension2() override;
    void serialize(std::vector<uint8_t>& out) override;
    void deserialize(qor::serialization::msgpack::ReadBuffer& in) override;
    void onSceneLoaded() override;
};

}  // namespace rigid_body
