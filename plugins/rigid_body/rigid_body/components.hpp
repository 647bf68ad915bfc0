#pragma once

// Client-side components of the reference server's rigid-body types. A program that handles
// them by their classes includes this header; it finds the objects through DaxClient::Create
// and getComponent, checks getType(), and casts. The classes are defined here in full so that
// such a program has their type information without linking the plug-in, which it only loads.
// Their wire layouts are those of <rigid_body/layout.hpp>, which the server uses too.

#include <cstdint>
#include <string>
#include <vector>

#include <dax/client/components/client_component.hpp>
#include <qor/serialization/msgpack.hpp>
#include <rigid_body/layout.hpp>

namespace rigid_body {

/// A static plane; the server's "Ground".
class Ground : public dax::client::IClientComponent {
  public:
    static constexpr const char* kType = kGroundType;
    Ground(int64_t id, dax::client::DaxClient* client) : IClientComponent(id, client) {}

    Vec3 normal{0, 0, 1};      ///< points out of the solid side
    double offset = 0;         ///< distance of the plane from the origin along `normal`
    double friction = 0.8;     ///< Coulomb friction coefficient
    double restitution = 0.2;  ///< bounciness, 0 to 1

    std::string getType() override { return kType; }
    void extension1() override {}
    void extension2() override {}
    void onSceneLoaded() override {}

    /// GroundData's layout.
    void serialize(std::vector<uint8_t>& out) override {
        write(out, GroundData{normal, offset, friction, restitution});
    }

    void deserialize(qor::serialization::msgpack::ReadBuffer& in) override {
        const GroundData g = read_ground(in);
        normal = g.normal;
        offset = g.offset;
        friction = g.friction;
        restitution = g.restitution;
    }
};

/// A rigid body; the server's "Body". Fill its description, send the scene, then read
/// `state` as the server's updates arrive.
class Body : public dax::client::IClientComponent {
  public:
    static constexpr const char* kType = kBodyType;
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
    using State = BodyState;
    State state;
    int updates = 0;      ///< states applied since creation
    bool loaded = false;  ///< set when a whole scene from the server has arrived

    std::string getType() override { return kType; }
    void extension1() override {}
    void extension2() override {}
    void onSceneLoaded() override { loaded = true; }

    /// BodyData's layout, the pose and velocities taken from `state`.
    void serialize(std::vector<uint8_t>& out) override {
        write(out, BodyData{shape, size, mesh_id, mass, state.pose, state.linear, state.angular,
                            friction, restitution});
    }

    void deserialize(qor::serialization::msgpack::ReadBuffer& in) override {
        BodyData b = read_body(in);
        shape = std::move(b.shape);
        size = b.size;
        mesh_id = b.mesh_id;
        mass = b.mass;
        state = {b.pose, b.linear, b.angular};
        friction = b.friction;
        restitution = b.restitution;
    }

    /// BodyState's layout.
    void update_state(qor::serialization::msgpack::ReadBuffer& in) override {
        state = read_state(in);
        ++updates;
    }
};

}  // namespace rigid_body
