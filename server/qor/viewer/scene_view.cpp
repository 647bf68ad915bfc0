#include <qor/viewer/scene_view.hpp>

#include <cstddef>
#include <map>
#include <stdexcept>
#include <tuple>
#include <utility>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>
#include <qor/sim/scene.hpp>
#include <rigid_body/layout.hpp>

namespace qor::viewer {

namespace {

namespace mp = serialization::msgpack;
namespace dt = dax::types;

// The position of `member` in a record's wire order, taken from the record's own field list.
template <class R, class M>
long long field_index(M R::*member) {
    R record;
    const void* wanted = &(record.*member);
    long long found = -1;
    long long i = 0;
    std::apply([&](const auto&... field) { ((found = &field == wanted ? i : found, ++i), ...); },
               record.fields());
    if (found < 0) throw std::logic_error("field_index: not a field of the record");
    return found;
}

void pack_numbers(std::vector<uint8_t>& out, std::initializer_list<double> values) {
    mp::pack_array_header(out, values.size());
    for (double v : values) mp::pack(out, v);
}

std::vector<uint8_t> call_value(sim::SimulationCore& core, const std::string& operation,
                                const std::vector<uint8_t>& args, uint64_t count) {
    const sim::CallResult r = core.call(dax::types::kOperationPrefix + operation, args.data(),
                                        args.size(), count);
    if (!r.ok) throw std::runtime_error(r.message);
    return r.value;
}

void pack_mesh(std::vector<uint8_t>& out, sim::SimulationCore& core, int64_t id) {
    std::vector<uint8_t> arg;
    mp::pack(arg, static_cast<long long>(id));
    const std::vector<uint8_t> value = call_value(core, "GET_TRIMESH", arg, 1);
    mp::ReadBuffer in(value.data(), value.size());
    dt::mesh_batch_t mesh;
    dt::read(in, mesh);
    mp::pack(out, "vertices");
    mp::pack_array_header(out, mesh.vertices.size() * 3);
    for (const auto& v : mesh.vertices) {
        mp::pack(out, v.x);
        mp::pack(out, v.y);
        mp::pack(out, v.z);
    }
    mp::pack(out, "triangles");
    mp::pack_array_header(out, mesh.triangles.size() * 3);
    for (const auto& t : mesh.triangles) {
        mp::pack(out, t.a);
        mp::pack(out, t.b);
        mp::pack(out, t.c);
    }
}

}  // namespace

sim::CallResult describe_scene(sim::SimulationCore& core) {
    sim::CallResult result;
    try {
        const std::vector<uint8_t> value = call_value(core, "GET_SERVER_SCENE", {}, 0);
        mp::ReadBuffer in(value.data(), value.size());
        mp::buffer record;
        mp::read(in, record);
        const std::vector<sim::Component> scene = sim::decode_scene(record.data, record.size);

        std::vector<uint8_t> bodies, planes;
        size_t body_count = 0, plane_count = 0;
        for (const sim::Component& c : scene) {
            if (c.type == sim::kBodyType) {
                const sim::BodyData b = sim::decode_body(c.data);
                const bool mesh = b.shape == sim::Shape::mesh;
                mp::pack_map_header(bodies, mesh ? 8 : 6);
                mp::pack(bodies, "id");
                mp::pack(bodies, static_cast<long long>(c.id));
                mp::pack(bodies, "shape");
                mp::pack(bodies, sim::shape_name(b.shape));
                mp::pack(bodies, "size");
                pack_numbers(bodies, {b.size.x, b.size.y, b.size.z});
                mp::pack(bodies, "mass");
                mp::pack(bodies, b.mass);
                mp::pack(bodies, "position");
                pack_numbers(bodies, {b.pose.position.x, b.pose.position.y, b.pose.position.z});
                mp::pack(bodies, "rotation");
                pack_numbers(bodies, {b.pose.qw, b.pose.qx, b.pose.qy, b.pose.qz});
                if (mesh) pack_mesh(bodies, core, b.mesh_id);
                ++body_count;
            } else if (c.type == sim::kGroundType) {
                const sim::GroundData g = sim::decode_ground(c.data);
                mp::pack_map_header(planes, 3);
                mp::pack(planes, "id");
                mp::pack(planes, static_cast<long long>(c.id));
                mp::pack(planes, "normal");
                pack_numbers(planes, {g.normal.x, g.normal.y, g.normal.z});
                mp::pack(planes, "offset");
                mp::pack(planes, g.offset);
                ++plane_count;
            }
        }

        std::vector<uint8_t>& out = result.value;
        mp::pack_map_header(out, 4);
        mp::pack(out, "bodies");
        mp::pack_array_header(out, body_count);
        out.insert(out.end(), bodies.begin(), bodies.end());
        mp::pack(out, "planes");
        mp::pack_array_header(out, plane_count);
        out.insert(out.end(), planes.begin(), planes.end());

        const std::pair<const char*, long long> update[] = {
            {"states", field_index(&dt::integration_result_t::states)},
            {"step", field_index(&dt::integration_result_t::value_int)},
            {"details", field_index(&dt::integration_result_t::details)},
            {"time", field_index(&dt::step_details_t::f2)},
            {"state", field_index(&dt::step_details_t::i9)},
        };
        mp::pack(out, "update");
        mp::pack_map_header(out, std::size(update));
        for (const auto& [name, index] : update) {
            mp::pack(out, name);
            mp::pack(out, index);
        }
        mp::pack(out, "body_state");
        mp::pack_map_header(out, 2);
        mp::pack(out, "position");
        mp::pack(out, static_cast<long long>(rigid_body::kBodyStatePosition));
        mp::pack(out, "rotation");
        mp::pack(out, static_cast<long long>(rigid_body::kBodyStateRotation));
        result.ok = true;
    } catch (const std::exception& e) {
        result = {};
        result.error = "qor.error.operation_failed";
        result.message = std::string("viewer scene: ") + e.what();
    }
    return result;
}

}  // namespace qor::viewer
