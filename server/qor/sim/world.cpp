#include <qor/sim/world.hpp>

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>

#include <btBulletDynamicsCommon.h>
#include <fmt/format.h>

#include <dax/types/mesh.hpp>
#include <qor/sim/meshes.hpp>

namespace qor::sim {

namespace {

constexpr double kMaxSubStep = 1.0 / 240.0;

btVector3 bt(const Vec3& v) {
    return btVector3(btScalar(v.x), btScalar(v.y), btScalar(v.z));
}
Vec3 vec(const btVector3& v) {
    return {v.x(), v.y(), v.z()};
}

// Everything Bullet needs to keep alive for one object; shapes and mesh data are not owned
// by Bullet's world.
struct Object {
    bool is_body = false;
    bool is_static = false;
    std::unique_ptr<btTriangleMesh> triangles;
    std::unique_ptr<btCollisionShape> shape;
    std::unique_ptr<btDefaultMotionState> motion;
    std::unique_ptr<btRigidBody> body;
};

// Bullet's world with its clock within reach: the remainder of a step it keeps for the next.
struct DynamicsWorld : btDiscreteDynamicsWorld {
    using btDiscreteDynamicsWorld::btDiscreteDynamicsWorld;
    void restart_clock() { m_localTime = 0; }
};

}  // namespace

struct PhysicsWorld::Impl {
    btDefaultCollisionConfiguration configuration;
    btCollisionDispatcher dispatcher{&configuration};
    btDbvtBroadphase broadphase;
    btSequentialImpulseConstraintSolver solver;
    DynamicsWorld world{&dispatcher, &broadphase, &solver, &configuration};
    std::map<int64_t, Object> objects;
    // The bodies again, by ascending id, side by side: every step reads each body's state and
    // figures, and walking the map's nodes for that costs a cache miss or two per body.
    struct Entry {
        int64_t id;
        const btRigidBody* body;
        bool is_static;
    };
    std::vector<Entry> bodies;
    bool registered = true;

    Impl() { world.setGravity(btVector3(0, 0, btScalar(-9.81))); }
    ~Impl() { clear(); }

    void clear() {
        if (registered)
            for (auto& [id, o] : objects) world.removeRigidBody(o.body.get());
        objects.clear();
        bodies.clear();
    }

    void insert(int64_t id, Object o) {
        auto it = objects.find(id);
        if (it != objects.end()) {
            if (registered) world.removeRigidBody(it->second.body.get());
            objects.erase(it);
        }
        if (registered) world.addRigidBody(o.body.get());
        // Scenes are built in ascending id order, so this is nearly always an append.
        auto at = bodies.end();
        if (!bodies.empty() && bodies.back().id >= id)
            at = std::lower_bound(bodies.begin(), bodies.end(), id,
                                  [](const Entry& e, int64_t key) { return e.id < key; });
        if (at != bodies.end() && at->id == id) at = bodies.erase(at);
        if (o.is_body) bodies.insert(at, Entry{id, o.body.get(), o.is_static});
        objects.emplace(id, std::move(o));
    }

    // The contact points between touching pairs.
    int contacts() {
        int n = 0;
        const int manifolds = dispatcher.getNumManifolds();
        for (int i = 0; i < manifolds; ++i)
            n += dispatcher.getManifoldByIndexInternal(i)->getNumContacts();
        return n;
    }
};

PhysicsWorld::PhysicsWorld() : impl_(std::make_unique<Impl>()) {}
PhysicsWorld::~PhysicsWorld() = default;

void PhysicsWorld::clear() {
    impl_->clear();
}

void PhysicsWorld::reset() {
    impl_->clear();
    // With no object left these restart the broadphase's tree, its proxy numbering (the order
    // of contact pairs follows it) and the solver's seed, as in a new world.
    impl_->broadphase.resetPool(&impl_->dispatcher);
    impl_->solver.reset();
    impl_->world.restart_clock();
    impl_->registered = true;
}

void PhysicsWorld::check_body(const BodyData& b, const dax::types::mesh_batch_t* mesh) {
    if (b.shape != Shape::mesh) return;
    if (!mesh) throw std::invalid_argument("a mesh body needs its triangle mesh");
    if (mesh->triangles.empty() || mesh->vertices.size() < 3)
        throw std::invalid_argument(fmt::format("triangle mesh {} is empty", b.mesh_id));
    const int64_t bad = first_bad_index(*mesh);
    if (bad >= 0)
        throw std::invalid_argument(fmt::format(
            "triangle {} of mesh {} names a vertex beyond its {} vertices", bad, b.mesh_id,
            mesh->vertices.size()));
}

void PhysicsWorld::add_ground(int64_t id, const GroundData& ground) {
    Object o;
    o.is_static = true;
    o.shape = std::make_unique<btStaticPlaneShape>(bt(ground.normal), btScalar(ground.offset));
    o.motion = std::make_unique<btDefaultMotionState>();
    btRigidBody::btRigidBodyConstructionInfo info(0, o.motion.get(), o.shape.get());
    info.m_friction = btScalar(ground.friction);
    info.m_restitution = btScalar(ground.restitution);
    o.body = std::make_unique<btRigidBody>(info);
    impl_->insert(id, std::move(o));
}

void PhysicsWorld::add_body(int64_t id, const BodyData& b, const dax::types::mesh_batch_t* mesh) {
    Object o;
    o.is_body = true;
    o.is_static = b.mass == 0;
    switch (b.shape) {
        case Shape::box:
            o.shape = std::make_unique<btBoxShape>(bt(b.size));
            break;
        case Shape::sphere:
            o.shape = std::make_unique<btSphereShape>(btScalar(b.size.x));
            break;
        case Shape::capsule:
            o.shape = std::make_unique<btCapsuleShapeZ>(btScalar(b.size.x), btScalar(b.size.y));
            break;
        case Shape::mesh: {
            check_body(b, mesh);
            if (o.is_static) {
                // Exact triangles collide only as static geometry in Bullet.
                o.triangles = std::make_unique<btTriangleMesh>();
                for (const auto& t : mesh->triangles) {
                    const auto& a = mesh->vertices[t.a];
                    const auto& c = mesh->vertices[t.b];
                    const auto& d = mesh->vertices[t.c];
                    o.triangles->addTriangle(
                        btVector3(btScalar(a.x), btScalar(a.y), btScalar(a.z)),
                        btVector3(btScalar(c.x), btScalar(c.y), btScalar(c.z)),
                        btVector3(btScalar(d.x), btScalar(d.y), btScalar(d.z)));
                }
                o.shape = std::make_unique<btBvhTriangleMeshShape>(o.triangles.get(), true);
            } else {
                auto hull = std::make_unique<btConvexHullShape>();
                for (const auto& v : mesh->vertices)
                    hull->addPoint(btVector3(btScalar(v.x), btScalar(v.y), btScalar(v.z)), false);
                hull->recalcLocalAabb();
                o.shape = std::move(hull);
            }
            o.shape->setLocalScaling(bt(b.size));
            break;
        }
    }
    btTransform start;
    start.setOrigin(bt(b.pose.position));
    start.setRotation(btQuaternion(btScalar(b.pose.qx), btScalar(b.pose.qy), btScalar(b.pose.qz),
                                   btScalar(b.pose.qw)));
    o.motion = std::make_unique<btDefaultMotionState>(start);
    btVector3 inertia(0, 0, 0);
    if (!o.is_static) o.shape->calculateLocalInertia(btScalar(b.mass), inertia);
    btRigidBody::btRigidBodyConstructionInfo info(btScalar(b.mass), o.motion.get(), o.shape.get(),
                                                  inertia);
    info.m_friction = btScalar(b.friction);
    info.m_restitution = btScalar(b.restitution);
    // Rolling friction stops spheres and capsules rolling forever on a flat ground.
    info.m_rollingFriction = btScalar(b.shape == Shape::box ? 0.0 : 0.01);
    info.m_spinningFriction = btScalar(0.01);
    o.body = std::make_unique<btRigidBody>(info);
    if (!o.is_static) {
        o.body->setLinearVelocity(bt(b.linear));
        o.body->setAngularVelocity(bt(b.angular));
    }
    impl_->insert(id, std::move(o));
}

void PhysicsWorld::set_gravity(const Vec3& gravity) {
    impl_->world.setGravity(bt(gravity));
    for (auto& [id, o] : impl_->objects) {
        if (o.is_static) continue;
        o.body->setGravity(bt(gravity));
        o.body->activate(true);
    }
}

Vec3 PhysicsWorld::gravity() const {
    return vec(impl_->world.getGravity());
}

void PhysicsWorld::set_registered(bool registered) {
    if (registered == impl_->registered) return;
    for (auto& [id, o] : impl_->objects) {
        if (registered) {
            impl_->world.addRigidBody(o.body.get());
            o.body->activate(true);
        } else {
            impl_->world.removeRigidBody(o.body.get());
        }
    }
    impl_->registered = registered;
}

bool PhysicsWorld::registered() const {
    return impl_->registered;
}

void PhysicsWorld::step(double dt) {
    if (!(dt > 0)) return;
    const int steps = std::max(1, static_cast<int>(std::ceil(dt / kMaxSubStep - 1e-9)));
    impl_->world.stepSimulation(btScalar(dt), steps, btScalar(dt / steps));
}

namespace {

BodyState state_of(const btRigidBody& body) {
    BodyState s;
    const btTransform& t = body.getCenterOfMassTransform();
    s.pose.position = vec(t.getOrigin());
    const btQuaternion q = t.getRotation();
    s.pose.qw = q.w();
    s.pose.qx = q.x();
    s.pose.qy = q.y();
    s.pose.qz = q.z();
    s.linear = vec(body.getLinearVelocity());
    s.angular = vec(body.getAngularVelocity());
    return s;
}

// The world's figures, summed body by body.
struct Figures {
    double mass = 0;
    btVector3 weighted{0, 0, 0};

    void add(WorldStats& s, const btRigidBody& body, bool is_static) {
        ++s.bodies;
        if (is_static) return;
        if (body.isActive()) ++s.active;
        const double m = 1.0 / body.getInvMass();
        const double v = body.getLinearVelocity().length();
        s.kinetic += 0.5 * m * v * v;
        s.max_speed = std::max(s.max_speed, v);
        weighted += body.getCenterOfMassPosition() * btScalar(m);
        mass += m;
    }
    void finish(WorldStats& s) const {
        if (mass > 0) s.centre = vec(weighted / btScalar(mass));
    }
};

}  // namespace

WorldStats PhysicsWorld::snapshot(std::vector<std::pair<int64_t, BodyState>>& out) const {
    out.clear();
    out.reserve(impl_->bodies.size());
    WorldStats s;
    Figures figures;
    for (const auto& b : impl_->bodies) {
        out.emplace_back(b.id, state_of(*b.body));
        figures.add(s, *b.body, b.is_static);
    }
    figures.finish(s);
    s.contacts = impl_->contacts();
    return s;
}

bool PhysicsWorld::state(int64_t id, BodyState& out) const {
    auto it = impl_->objects.find(id);
    if (it == impl_->objects.end() || !it->second.is_body) return false;
    out = state_of(*it->second.body);
    return true;
}

bool PhysicsWorld::sleeping(int64_t id) const {
    auto it = impl_->objects.find(id);
    if (it == impl_->objects.end() || !it->second.is_body) return false;
    return it->second.is_static || !it->second.body->isActive();
}

int PhysicsWorld::body_count() const {
    return static_cast<int>(impl_->bodies.size());
}

}  // namespace qor::sim
