#include <rigid_body/components.hpp>

#include <stdexcept>
#include <string>

#include <dax/client/plugin.hpp>
#include <qor/serialization/msgpack.hpp>

// The layouts below are the server's: every number a float 64, every group a fixed-length
// array. Reading accepts integers too, as the server does.

namespace rigid_body {

namespace mp = qor::serialization::msgpack;

namespace {

double number(mp::ReadBuffer& in) {
    if (in.remaining() == 0) throw std::runtime_error("unexpected end of data");
    const uint8_t b = *in.current();
    if (b == 0xca || b == 0xcb) {
        double v = 0;
        mp::read(in, v);
        return v;
    }
    long long v = 0;
    mp::read(in, v);
    return static_cast<double>(v);
}

void expect(mp::ReadBuffer& in, uint64_t count, const char* what) {
    if (mp::read_array_header(in) != count)
        throw std::runtime_error(std::string("rigid_body: unexpected layout of ") + what);
}

Vec3 read_vec3(mp::ReadBuffer& in, const char* what) {
    expect(in, 3, what);
    Vec3 v;
    v.x = number(in);
    v.y = number(in);
    v.z = number(in);
    return v;
}

void write_vec3(std::vector<uint8_t>& out, const Vec3& v) {
    mp::pack_array_header(out, 3);
    mp::pack(out, v.x);
    mp::pack(out, v.y);
    mp::pack(out, v.z);
}

}  // namespace

// ---- Ground: [[nx, ny, nz], offset, friction, restitution] ---------------------------------

std::string Ground::getType() {
    return kType;
}
void Ground::extension1() {}
void Ground::extension2() {}
void Ground::onSceneLoaded() {}

void Ground::serialize(std::vector<uint8_t>& out) {
    mp::pack_array_header(out, 4);
    write_vec3(out, normal);
    mp::pack(out, offset);
    mp::pack(out, friction);
    mp::pack(out, restitution);
}

void Ground::deserialize(mp::ReadBuffer& in) {
    expect(in, 4, "Ground data");
    normal = read_vec3(in, "Ground normal");
    offset = number(in);
    friction = number(in);
    restitution = number(in);
}

// ---- Body: [shape, size, mesh id, mass, [x, y, z, qw, qx, qy, qz], linear, angular,
//            friction, restitution]; state: [[x, y, z], [qw, qx, qy, qz], linear, angular] --

std::string Body::getType() {
    return kType;
}
void Body::extension1() {}
void Body::extension2() {}
void Body::onSceneLoaded() {
    loaded = true;
}

void Body::serialize(std::vector<uint8_t>& out) {
    mp::pack_array_header(out, 9);
    mp::pack(out, shape);
    write_vec3(out, size);
    mp::pack(out, static_cast<long long>(mesh_id));
    mp::pack(out, mass);
    mp::pack_array_header(out, 7);
    const Pose& p = state.pose;
    for (double v : {p.position.x, p.position.y, p.position.z, p.qw, p.qx, p.qy, p.qz})
        mp::pack(out, v);
    write_vec3(out, state.linear);
    write_vec3(out, state.angular);
    mp::pack(out, friction);
    mp::pack(out, restitution);
}

void Body::deserialize(mp::ReadBuffer& in) {
    expect(in, 9, "Body data");
    mp::read(in, shape);
    size = read_vec3(in, "Body size");
    long long mesh = 0;
    mp::read(in, mesh);
    mesh_id = mesh;
    mass = number(in);
    expect(in, 7, "Body pose");
    Pose& p = state.pose;
    for (double* v : {&p.position.x, &p.position.y, &p.position.z, &p.qw, &p.qx, &p.qy, &p.qz})
        *v = number(in);
    state.linear = read_vec3(in, "Body linear velocity");
    state.angular = read_vec3(in, "Body angular velocity");
    friction = number(in);
    restitution = number(in);
}

void Body::update_state(mp::ReadBuffer& in) {
    expect(in, 4, "Body state");
    state.pose.position = read_vec3(in, "Body position");
    expect(in, 4, "Body rotation");
    state.pose.qw = number(in);
    state.pose.qx = number(in);
    state.pose.qy = number(in);
    state.pose.qz = number(in);
    state.linear = read_vec3(in, "Body linear velocity");
    state.angular = read_vec3(in, "Body angular velocity");
    ++updates;
}

namespace {

class Factory : public dax::client::IModuleFactory {
  public:
    dax::client::IClientComponent* create(const std::string& type, dax::client::DaxClient* client,
                                          int64_t id) override {
        if (type == Ground::kType) return new Ground(id, client);
        if (type == Body::kType) return new Body(id, client);
        return nullptr;
    }
};

class Module : public dax::client::PluginModule {
  public:
    void registerFactories(std::vector<dax::client::IModuleFactory*>* factories) override {
        factories->push_back(new Factory());
    }
    std::string info() override {
        return "rigid bodies: Ground, Body (box, sphere, capsule, mesh)";
    }
};

}  // namespace

}  // namespace rigid_body

DAX_PLUGIN_EXPORT("rigid_body", rigid_body::Module)
