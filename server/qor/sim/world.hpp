#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <qor/sim/scene.hpp>

namespace dax::types {
struct mesh_batch_t;
}

namespace qor::sim {

/// Figures of the world after a step.
struct WorldStats {
    int bodies = 0;        ///< bodies (ground planes excluded)
    int active = 0;        ///< bodies not asleep
    int contacts = 0;      ///< contact points between touching pairs
    double kinetic = 0;    ///< linear kinetic energy of all bodies, joules
    double max_speed = 0;  ///< fastest body's linear speed, m/s
    Vec3 centre;           ///< centre of mass of the dynamic bodies
};

/// A Bullet rigid-body world built from ground planes and bodies. Not thread-safe: the owner
/// serialises access.
class PhysicsWorld {
  public:
    PhysicsWorld();
    ~PhysicsWorld();
    PhysicsWorld(const PhysicsWorld&) = delete;
    PhysicsWorld& operator=(const PhysicsWorld&) = delete;

    /// Removes every ground and body.
    void clear();
    /// Removes every ground and body and restarts the world's clock and Bullet's own
    /// counters, so that what is built next steps exactly as it would in a new world. Gravity
    /// stays; registration is on again, as in a new world. Far cheaper than a new world.
    void reset();
    /// Throws std::invalid_argument, as `add_body` would, when `body` cannot be built with
    /// `mesh`; lets a scene be checked whole before a world is changed.
    static void check_body(const BodyData& body, const dax::types::mesh_batch_t* mesh);
    /// Adds a static plane under `id`.
    void add_ground(int64_t id, const GroundData& ground);
    /// Adds a body under `id`; a mesh body needs its mesh (static: exact triangles; dynamic:
    /// their convex hull). Throws std::invalid_argument for an unusable mesh (`check_body`).
    void add_body(int64_t id, const BodyData& body, const dax::types::mesh_batch_t* mesh);

    /// Gravity, m/s² (default 0, 0, -9.81).
    void set_gravity(const Vec3& gravity);
    Vec3 gravity() const;

    /// Takes every object out of the dynamics world (false) or puts it back (true); objects
    /// taken out keep their state and do not move.
    void set_registered(bool registered);
    bool registered() const;

    /// Advances by `dt` seconds in fixed sub-steps of at most 1/240 s.
    void step(double dt);

    /// The state of every body into `out` (its memory reused from call to call), by ascending
    /// id, and the world's figures, read in one pass over the bodies.
    WorldStats snapshot(std::vector<std::pair<int64_t, BodyState>>& out) const;
    /// The state of one body; false when there is no body with that id.
    bool state(int64_t id, BodyState& out) const;
    /// True when the body exists and is asleep.
    bool sleeping(int64_t id) const;
    /// Number of bodies (ground planes excluded).
    int body_count() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qor::sim
