#pragma once

// Client-side components of the reference server's rigid-body types. A program that handles
// them by their classes includes this header; it finds the objects through DaxClient::Create
// and getComponent, checks getType(), and casts. The classes are defined here in full so that
// such a program has their type information without linking the plug-in, which it only loads.
//
// The layouts are the server's: every number a float 64, every group a fixed-length array.
// Reading accepts integers too, as the server does.

#include <cstdint>
#include <string>
#include <vector>

#include <stdexcept>

#include <dax/client/client_component.hpp>
#include <qor/serialization/msgpack.hpp>

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

namespace detail {

namespace mp = qor::serialization::msgpack;


inline void expect(mp::ReadBuffer& in, uint64_t count, const char* what) {
    if (mp::read_array_header(in) != count)
        throw std::runtime_error(std::string("rigid_body: unexpected layout of ") + what);
}

inline Vec3 read_vec3(mp::ReadBuffer& in, const char* what) {
    expect(in, 3, what);
    Vec3 v;
    v.x = mp::read_number(in);
    v.y = mp::read_number(in);
    v.z = mp::read_number(in);
    return v;
}

inline void write_vec3(std::vector<uint8_t>& out, const Vec3& v) {
    mp::pack_array_header(out, 3);
    mp::pack(out, v.x);
    mp::pack(out, v.y);
    mp::pack(out, v.z);
}

}  // namespace detail

/// A static plane; the server's "Ground".
class Ground : public dax::client::IClientComponent {
  public:
    static constexpr const char* kType = "Ground";
    Ground(int64_t id, dax::client::DaxClient* client) : IClientComponent(id, client) {}

    Vec3 normal{0, 0, 1};      ///< points out of the solid side
    double offset = 0;         ///< distance of the plane from the origin along `normal`
    double friction = 0.8;     ///< Coulomb friction coefficient
    double restitution = 0.2;  ///< bounciness, 0 to 1

    std::string getType() override { return kType; }
    void extension1() override {}
    void extension2() override {}
    void onSceneLoaded() override {}

    /// [[nx, ny, nz], offset, friction, restitution]
    void serialize(std::vector<uint8_t>& out) override {
        namespace mp = qor::serialization::msgpack;
        mp::pack_array_header(out, 4);
        detail::write_vec3(out, normal);
        mp::pack(out, offset);
        mp::pack(out, friction);
        mp::pack(out, restitution);
    }

    void deserialize(qor::serialization::msgpack::ReadBuffer& in) override {
        detail::expect(in, 4, "Ground data");
        normal = detail::read_vec3(in, "Ground normal");
        offset = detail::mp::read_number(in);
        friction = detail::mp::read_number(in);
        restitution = detail::mp::read_number(in);
    }
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

    std::string getType() override { return kType; }
    void extension1() override {}
    void extension2() override {}
    void onSceneLoaded() override { loaded = true; }

    /// [shape, size, mesh id, mass, [x, y, z, qw, qx, qy, qz], linear, angular, friction,
    /// restitution]
    void serialize(std::vector<uint8_t>& out) override {
        namespace mp = qor::serialization::msgpack;
        mp::pack_array_header(out, 9);
        mp::pack(out, shape);
        detail::write_vec3(out, size);
        mp::pack(out, static_cast<long long>(mesh_id));
        mp::pack(out, mass);
        mp::pack_array_header(out, 7);
        const Pose& p = state.pose;
        for (double v : {p.position.x, p.position.y, p.position.z, p.qw, p.qx, p.qy, p.qz})
            mp::pack(out, v);
        detail::write_vec3(out, state.linear);
        detail::write_vec3(out, state.angular);
        mp::pack(out, friction);
        mp::pack(out, restitution);
    }

    void deserialize(qor::serialization::msgpack::ReadBuffer& in) override {
        namespace mp = qor::serialization::msgpack;
        detail::expect(in, 9, "Body data");
        mp::read(in, shape);
        size = detail::read_vec3(in, "Body size");
        long long mesh = 0;
        mp::read(in, mesh);
        mesh_id = mesh;
        mass = detail::mp::read_number(in);
        detail::expect(in, 7, "Body pose");
        Pose& p = state.pose;
        for (double* v : {&p.position.x, &p.position.y, &p.position.z, &p.qw, &p.qx, &p.qy, &p.qz})
            *v = detail::mp::read_number(in);
        state.linear = detail::read_vec3(in, "Body linear velocity");
        state.angular = detail::read_vec3(in, "Body angular velocity");
        friction = detail::mp::read_number(in);
        restitution = detail::mp::read_number(in);
    }

    /// [[x, y, z], [qw, qx, qy, qz], [vx, vy, vz], [wx, wy, wz]]
    void update_state(qor::serialization::msgpack::ReadBuffer& in) override {
        detail::expect(in, 4, "Body state");
        state.pose.position = detail::read_vec3(in, "Body position");
        detail::expect(in, 4, "Body rotation");
        state.pose.qw = detail::mp::read_number(in);
        state.pose.qx = detail::mp::read_number(in);
        state.pose.qy = detail::mp::read_number(in);
        state.pose.qz = detail::mp::read_number(in);
        state.linear = detail::read_vec3(in, "Body linear velocity");
        state.angular = detail::read_vec3(in, "Body angular velocity");
        ++updates;
    }
};

}  // namespace rigid_body
